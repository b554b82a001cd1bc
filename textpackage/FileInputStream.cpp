#include <textpackage/FileInputStream.hpp>

#include <opccore/Exception.hpp>

namespace opc::textpackage {

FileInputStream::FileInputStream(FileSystemOps& fileSystem, std::u16string const& path)
    : FileStream<std::istream>(fileSystem, path) {
    FileInputStream::open();
}

void FileInputStream::open() {
    if (stream_)
        return;
    boost::system::error_code code;
    stream_ = fileSystem_.createInputStream(path_, StreamMode::In | StreamMode::Binary, code);
    if (code)
        throw Exception("Failed to create or open file system input stream");
}

std::int64_t FileInputStream::read(char* buffer, std::int64_t count) {
    if (!isGood() || count < 0)
        return 0;
    stream_->read(buffer, count);
    return stream_->gcount();
}

bool FileInputStream::atEnd() {
    return !isGood();
}

void FileInputStream::close() {
    stream_.reset();
}

FileInputStream::~FileInputStream() = default;

} // namespace opc::textpackage
