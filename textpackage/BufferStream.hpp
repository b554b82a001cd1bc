#pragma once

#include <memory>
#include <streambuf>
#include <utility>

#include <boost/core/noncopyable.hpp>

namespace opc::textpackage {

/// A standard stream over a buffer that it owns, open or closed.
template <class Stream>
class BufferStream : private boost::noncopyable {
public:
    /// Whether the stream is open and bad.
    bool isBad() const { return stream_ && stream_->bad(); }

protected:
    explicit BufferStream(std::unique_ptr<std::streambuf> buffer) : buffer_(std::move(buffer)) {}
    ~BufferStream() = default;

    bool isGood() const { return stream_ && stream_->good(); }

    std::unique_ptr<std::streambuf> buffer_;
    std::shared_ptr<Stream> stream_; // empty while closed
};

} // namespace opc::textpackage
