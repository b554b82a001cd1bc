#include <fuzz/support/plainText.hpp>

#include <cstddef>
#include <cstdint>

namespace fuzz {

namespace {

constexpr std::string_view Base64Alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

bool isSurrogate(char32_t character) {
    return character >= 0xD800 && character <= 0xDFFF;
}

/// How many bytes a sequence has by its first byte; 0 for a byte that begins none.
std::size_t sequenceSize(unsigned char first) {
    if (first < 0x80)
        return 1;
    if (first >= 0xC2 && first <= 0xDF)
        return 2;
    if (first >= 0xE0 && first <= 0xEF)
        return 3;
    return first >= 0xF0 && first <= 0xF4 ? 4 : 0;
}

/// The character of a sequence; none where it is ill-formed.
std::optional<char32_t> characterOf(std::string_view sequence) {
    constexpr unsigned FirstByteMasks[] = {0, 0x7F, 0x1F, 0x0F, 0x07};
    constexpr char32_t Smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    char32_t character = static_cast<unsigned char>(sequence[0]) & FirstByteMasks[sequence.size()];
    for (auto const byte : sequence.substr(1)) {
        if ((byte & 0xC0) != 0x80)
            return {};
        character = character << 6 | static_cast<char32_t>(byte & 0x3F);
    }
    if (character < Smallest[sequence.size()] || character > 0x10FFFF || isSurrogate(character))
        return {};
    return character;
}

void append(std::string& text, char32_t character) {
    auto const continuation = [&](unsigned shift) { text += static_cast<char>(0x80 | (character >> shift & 0x3F)); };
    if (character < 0x80) {
        text += static_cast<char>(character);
    } else if (character < 0x800) {
        text += static_cast<char>(0xC0 | character >> 6);
        continuation(0);
    } else if (character < 0x10000) {
        text += static_cast<char>(0xE0 | character >> 12);
        continuation(6);
        continuation(0);
    } else {
        text += static_cast<char>(0xF0 | character >> 18);
        continuation(12);
        continuation(6);
        continuation(0);
    }
}

} // namespace

std::vector<std::string_view> linesOf(std::string_view text) {
    std::vector<std::string_view> lines;
    for (std::size_t begin = 0; begin < text.size();) {
        auto end = text.find('\n', begin);
        if (end == std::string_view::npos)
            end = text.size();
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return lines;
}

std::string withLineFeedsAlone(std::string_view text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text.substr(i, 2) != "\r\n")
            result += text[i];
    }
    return result;
}

std::optional<std::u16string> utf16Of(std::string_view text) {
    std::u16string result;
    while (!text.empty()) {
        auto const size = sequenceSize(static_cast<unsigned char>(text.front()));
        if (size == 0 || size > text.size())
            return {};
        auto const character = characterOf(text.substr(0, size));
        if (!character)
            return {};
        if (*character < 0x10000) {
            result += static_cast<char16_t>(*character);
        } else {
            result += static_cast<char16_t>(0xD800 + ((*character - 0x10000) >> 10));
            result += static_cast<char16_t>(0xDC00 + ((*character - 0x10000) & 0x3FF));
        }
        text.remove_prefix(size);
    }
    return result;
}

std::optional<std::string> utf8Of(std::u16string_view text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char32_t character = text[i];
        bool const isPair = character >= 0xD800 && character < 0xDC00 && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
                            text[i + 1] <= 0xDFFF;
        if (isSurrogate(character) && !isPair)
            return {};
        if (isPair)
            character = 0x10000 + ((character - 0xD800) << 10) + (text[++i] - 0xDC00U);
        append(result, character);
    }
    return result;
}

std::u16string lowerCase(std::u16string text) {
    for (auto& unit : text)
        unit = unit >= u'A' && unit <= u'Z' ? static_cast<char16_t>(unit + 32) : unit;
    return text;
}

std::optional<std::string> base64Bytes(std::string_view text) {
    std::string digits;
    for (auto const character : text) {
        if (std::string_view(" \t\n\v\f\r").find(character) == std::string_view::npos)
            digits += character;
    }
    if (digits.size() % 4 != 0)
        return {};
    std::size_t padding = 0;
    while (padding < 2 && padding < digits.size() && digits[digits.size() - 1 - padding] == '=')
        ++padding;

    std::string bytes;
    std::size_t bits = 0;
    std::size_t bitCount = 0; // of those that make no byte yet
    for (auto const digit : std::string_view(digits).substr(0, digits.size() - padding)) {
        auto const value = Base64Alphabet.find(digit);
        if (value == std::string_view::npos)
            return {};
        bits = bits << 6 | value;
        bitCount += 6;
        if (bitCount >= 8) {
            bitCount -= 8;
            bytes += static_cast<char>(bits >> bitCount);
            bits &= (std::size_t{1} << bitCount) - 1;
        }
    }
    return bits == 0 ? std::optional(bytes) : std::nullopt;
}

std::string base64LinesOf(std::string_view bytes) {
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        if (i > 0 && i % 57 == 0)
            text += '\n';
        std::uint32_t group = 0;
        for (std::size_t k = 0; k < 3; ++k)
            group = group << 8 | (i + k < bytes.size() ? static_cast<unsigned char>(bytes[i + k]) : 0U);
        for (std::size_t k = 0; k < 4; ++k)
            text += i + k > bytes.size() ? '=' : Base64Alphabet[group >> (18 - 6 * k) & 0x3F];
    }
    return text;
}

} // namespace fuzz
