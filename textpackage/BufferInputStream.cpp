#include <textpackage/BufferInputStream.hpp>

#include <utility>

namespace opc::textpackage {

BufferInputStream::BufferInputStream(std::unique_ptr<std::streambuf> buffer)
    : BufferStream<std::istream>(std::move(buffer)) {
}

void BufferInputStream::open() {
    if (stream_)
        return;
    buffer_->pubseekoff(0, std::ios_base::beg, std::ios_base::in | std::ios_base::out);
    stream_ = std::make_shared<std::istream>(buffer_.get());
}

std::int64_t BufferInputStream::read(char* buffer, std::int64_t count) {
    if (!isGood() || count < 0)
        return 0;
    stream_->read(buffer, count);
    return stream_->gcount();
}

bool BufferInputStream::atEnd() {
    return !isGood();
}

void BufferInputStream::close() {
    stream_.reset();
}

BufferInputStream::~BufferInputStream() = default;

} // namespace opc::textpackage
