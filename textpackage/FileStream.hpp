#pragma once

#include <memory>
#include <string>

#include <boost/core/noncopyable.hpp>

#include <opccore/FileSystemOps.hpp>

namespace opc::textpackage {

/// A standard stream on a file of a file system, open or closed.
template <class Stream>
class FileStream : private boost::noncopyable {
public:
    /// Whether the stream is open and bad.
    bool isBad() const { return stream_ && stream_->bad(); }

protected:
    FileStream(FileSystemOps& fileSystem, std::u16string const& path) : fileSystem_(fileSystem), path_(path) {}
    ~FileStream() = default;

    bool isGood() const { return stream_ && stream_->good(); }

    FileSystemOps& fileSystem_;
    std::u16string path_;
    std::shared_ptr<Stream> stream_; // empty while closed
};

} // namespace opc::textpackage
