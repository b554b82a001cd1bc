#include <tests/support/Base64Lines.hpp>

#include <cstdint>
#include <random>

namespace testsupport {

std::string base64Lines(std::string const& bytes) {
    std::string const digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    std::uint32_t bits = 0;
    int count = 0;
    for (char const byte : bytes) {
        bits = bits << 8 | static_cast<unsigned char>(byte);
        for (count += 8; count >= 6; count -= 6)
            text += digits[bits >> (count - 6) & 63];
    }
    if (count > 0)
        text += digits[bits << (6 - count) & 63];
    while (text.size() % 4 != 0)
        text += '=';

    std::string lines;
    for (std::size_t begin = 0; begin < text.size(); begin += 76)
        lines += (begin == 0 ? "" : "\n") + text.substr(begin, 76);
    return lines;
}

std::string mixedBytes(std::size_t count) {
    std::mt19937 numbers(static_cast<std::mt19937::result_type>(count));
    std::string bytes;
    while (bytes.size() < count)
        bytes += static_cast<char>(numbers() & 0xFF);
    return bytes;
}

} // namespace testsupport
