#include <textpackage/StringInputStream.hpp>

namespace opc::textpackage {

StringInputStream::StringInputStream(std::string const& bytes) : stream_(bytes) {
}

void StringInputStream::open() {
    isOpen_ = true;
    stream_.clear();
    stream_.seekg(0);
}

std::int64_t StringInputStream::read(char* buffer, std::int64_t count) {
    if (atEnd() || count < 0)
        return 0;
    stream_.read(buffer, count);
    return stream_.gcount();
}

bool StringInputStream::atEnd() {
    return !isOpen_ || !stream_.good();
}

void StringInputStream::close() {
    isOpen_ = false;
}

StringInputStream::~StringInputStream() = default;

} // namespace opc::textpackage
