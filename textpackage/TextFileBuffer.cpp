#include <textpackage/TextFileBuffer.hpp>

#include <boost/iostreams/device/array.hpp>
#include <boost/iostreams/stream_buffer.hpp>

#include <opccore/StringConversion.hpp>

namespace opc::textpackage {

namespace {

using SliceBuffer = boost::iostreams::stream_buffer<boost::iostreams::basic_array_source<char>>;

} // namespace

TextFileBuffer::TextFileBuffer(std::u16string const& path) : path_(path), mapping_(opc::detail::makeNativePath(path_)) {
}

TextFileBuffer::~TextFileBuffer() {
    try {
        mapping_.close();
    } catch (...) {
        // Nobody is left to be told.
    }
}

std::unique_ptr<std::streambuf> TextFileBuffer::getStreambuf(std::uint64_t begin, std::uint64_t end) {
    return std::make_unique<SliceBuffer>(mapping_.data() + begin, mapping_.data() + end);
}

std::unique_ptr<std::streambuf> TextFileBuffer::getFullStreambuf() {
    return getStreambuf(0, mapping_.size());
}

std::string_view TextFileBuffer::content() const {
    return {mapping_.data(), mapping_.size()};
}

} // namespace opc::textpackage
