#include <opctext/contentForm.hpp>

#include <algorithm>

#include <utf8.h>

namespace opctext {

namespace {

bool isControl(char32_t character) {
    bool const isAllowed = character == '\t' || character == '\n' || character == '\r';
    return !isAllowed && (character < 0x20 || (character >= 0x7F && character < 0xA0));
}

} // namespace

bool isFitForText(std::string_view bytes) {
    if (!utf8::is_valid(bytes.begin(), bytes.end()) || !findContentFault(bytes).empty())
        return false;
    if (!bytes.empty() && bytes.back() == '\r') // it would be taken for a part of the line break after it
        return false;
    for (auto next = bytes.begin(); next != bytes.end();) {
        if (isControl(utf8::unchecked::next(next)))
            return false;
    }
    return true;
}

std::string findContentFault(std::string_view bytes) {
    auto const at = bytes.find(ForbiddenText);
    if (at == std::string_view::npos)
        return {};
    auto const line = std::count(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(at), '\n') + 1;
    return "the text " + std::string(ForbiddenText) + ", which begins the marker lines of the format, stands in line " +
           std::to_string(line) + " of the content";
}

std::u16string contentTypeFor(bool binary) {
    return binary ? u"application/binary" : u"";
}

} // namespace opctext
