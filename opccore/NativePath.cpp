#include <opccore/NativePath.hpp>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <string>

#include <boost/uuid/name_generator_sha1.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <utf8.h>

#include <opccore/Exception.hpp>
#include <opccore/StringConversion.hpp>

namespace opc::detail {

namespace {

constexpr std::size_t MaximumComponentBytes = 255;
constexpr char HashMark = '~';
constexpr std::size_t HashBytes = 36; // of a UUID's text
constexpr std::size_t MaximumHeadBytes = MaximumComponentBytes - 1 - HashBytes;
constexpr std::size_t LongestSequenceBytes = 4;
constexpr std::size_t MostBytesOfUnit = 3;

/// UTF-8, with three bytes for each lone surrogate: such a path still names one file of its own.
std::string toBytes(std::u16string_view path) {
    std::string bytes;
    bytes.reserve(path.size());
    for (std::size_t i = 0; i < path.size(); ++i) {
        char32_t const unit = path[i];
        bool const pair =
            unit >= 0xD800 && unit < 0xDC00 && i + 1 < path.size() && path[i + 1] >= 0xDC00 && path[i + 1] < 0xE000;
        if (pair)
            utf8::unchecked::append(0x10000 + ((unit - 0xD800) << 10) + (path[++i] - 0xDC00U),
                                    std::back_inserter(bytes));
        else
            utf8::unchecked::append(unit, std::back_inserter(bytes));
    }
    return bytes;
}

std::string_view headOf(std::string_view component) {
    std::size_t size = MaximumHeadBytes;
    while ((static_cast<unsigned char>(component[size]) & 0xC0) == 0x80) // inside a sequence
        --size;
    return component.substr(0, size);
}

std::string hashOf(std::string_view component) {
    // A cryptographic hash, since the names come from packages of strangers: two parts that were made to collide
    // would share one file.
    boost::uuids::name_generator_sha1 const generator(boost::uuids::ns::url());
    return to_string(generator(component.data(), component.size()));
}

void appendComponent(std::string& path, std::string_view component) {
    if (component.size() <= MaximumComponentBytes)
        path.append(component);
    else
        path.append(headOf(component)).append(1, HashMark).append(hashOf(component));
}

bool isSurrogateInBytes(std::string_view bytes) {
    return bytes.size() >= 3 && bytes[0] == '\xED' && (bytes[1] & '\xE0') == '\xA0' && (bytes[2] & '\xC0') == '\x80';
}

} // namespace

std::u16string fromNativePath(std::string const& path) {
    std::u16string result;
    for (auto begin = path.begin();;) {
        auto const invalid = utf8::find_invalid(begin, path.end());
        utf8::unchecked::utf8to16(begin, invalid, std::back_inserter(result));
        if (invalid == path.end())
            return result;
        if (!isSurrogateInBytes({&*invalid, static_cast<std::size_t>(path.end() - invalid)}))
            return toString(path, true); // which says what is wrong
        begin = invalid + 3;
        utf8::unchecked::utf8to16(invalid, begin, std::back_inserter(result));
    }
}

bool looksShortened(std::u16string_view component) {
    if (component.size() * MostBytesOfUnit + LongestSequenceBytes <= MaximumComponentBytes)
        return false; // as nearly all are
    auto const bytes = toBytes(component);
    if (bytes.size() > MaximumComponentBytes || bytes.size() + LongestSequenceBytes <= MaximumComponentBytes)
        return false;
    auto const markAt = bytes.size() - HashBytes - 1;
    return bytes[markAt] == HashMark && bytes.find_first_not_of("0123456789abcdef-", markAt + 1) == std::string::npos;
}

std::string makeNativePath(std::u16string const& path) {
    if (path.find(u'\0') != std::u16string::npos)
        throw Exception("A path must not hold NUL: \"" + toUDEString(path.substr(0, path.find(u'\0'))) + "\"...");

    auto const bytes = toBytes(path);
    std::string result;
    result.reserve(bytes.size());
    for (std::size_t begin = 0;;) {
        auto const end = std::min(bytes.find('/', begin), bytes.size());
        appendComponent(result, std::string_view(bytes).substr(begin, end - begin));
        if (end == bytes.size())
            return result;
        result += '/';
        begin = end + 1;
    }
}

} // namespace opc::detail
