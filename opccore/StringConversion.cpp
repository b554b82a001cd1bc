#include <opccore/StringConversion.hpp>

#include <algorithm>
#include <cstddef>
#include <iterator>

#include <utf8.h>

#include <opccore/Exception.hpp>

namespace opc {

namespace {

constexpr char16_t ReplacementCharacter = u'\uFFFD';
constexpr std::size_t NoneFound = std::u16string::npos;

bool isHighSurrogate(char16_t unit) {
    return unit >= 0xD800 && unit < 0xDC00;
}

bool isLowSurrogate(char16_t unit) {
    return unit >= 0xDC00 && unit < 0xE000;
}

/// The index of the first lone surrogate at or after `begin`; `NoneFound` where there is none.
std::size_t findLoneSurrogate(std::u16string const& text, std::size_t begin) {
    for (std::size_t i = begin; i < text.size(); ++i) {
        if (isHighSurrogate(text[i]) && i + 1 < text.size() && isLowSurrogate(text[i + 1]))
            ++i;
        else if (isHighSurrogate(text[i]) || isLowSurrogate(text[i]))
            return i;
    }
    return NoneFound;
}

/// The text for a message: what is ill-formed replaced, what is long cut.
std::string quoted(std::string const& text) {
    constexpr std::size_t Most = 200;
    auto shown = utf8::replace_invalid(text.substr(0, Most));
    std::replace(shown.begin(), shown.end(), '\0', '?'); // a NUL would end the message
    return "\"" + shown + (text.size() > Most ? "\"..." : "\"");
}

std::u16string withoutLoneSurrogates(std::u16string text) {
    for (auto i = findLoneSurrogate(text, 0); i != NoneFound; i = findLoneSurrogate(text, i))
        text[i] = ReplacementCharacter;
    return text;
}

} // namespace

std::u16string toString(std::string const& text, bool strict) {
    auto const invalid = utf8::find_invalid(text.begin(), text.end());
    if (invalid != text.end() && !strict)
        return toString(utf8::replace_invalid(text), true);
    if (invalid != text.end())
        throw Exception("Ill-formed UTF-8 at byte " + std::to_string(invalid - text.begin()) + " of " + quoted(text));

    std::u16string result;
    result.reserve(text.size());
    utf8::unchecked::utf8to16(text.begin(), text.end(), std::back_inserter(result));
    return result;
}

std::string toUDEString(std::u16string const& path) {
    auto shown = path;
    std::replace(shown.begin(), shown.end(), u'\0', ReplacementCharacter); // a NUL would end the message
    return detail::toUTF8String(shown, false);
}

std::string detail::toUTF8String(std::u16string const& text, bool strict) {
    auto const loneSurrogate = findLoneSurrogate(text, 0);
    if (loneSurrogate != NoneFound && !strict)
        return toUTF8String(withoutLoneSurrogates(text), true);
    if (loneSurrogate != NoneFound)
        throw Exception("Ill-formed UTF-16 at unit " + std::to_string(loneSurrogate) + " of " +
                        quoted(toUTF8String(text, false)));

    std::string result;
    result.reserve(text.size());
    utf8::unchecked::utf16to8(text.begin(), text.end(), std::back_inserter(result));
    return result;
}

} // namespace opc
