#include <textpackage/Base64Encoder.hpp>

#include <algorithm>
#include <array>
#include <cstdint>
#include <istream>
#include <ostream>
#include <string>
#include <vector>

#include <boost/archive/iterators/base64_from_binary.hpp>

#include <opccore/Base64.hpp>

namespace opc::textpackage {

namespace {

constexpr std::size_t LineBytes = 57;      // of content, which make
constexpr std::size_t LineCharacters = 76; // of Base64
constexpr std::size_t BlockBytes = 1024 * LineBytes;

/// Regroups bytes into values of six bits, three into four, and returns how many there are; the last is filled up with
/// zero bits. By hand: the iterator that does it shifts bit by bit and takes three times as long.
std::size_t regroup(std::uint8_t const* bytes, std::size_t count, std::uint8_t* values) {
    auto* next = values;
    for (; count >= 3; bytes += 3, count -= 3) {
        *next++ = bytes[0] >> 2;
        *next++ = static_cast<std::uint8_t>((bytes[0] & 0x03) << 4 | bytes[1] >> 4);
        *next++ = static_cast<std::uint8_t>((bytes[1] & 0x0F) << 2 | bytes[2] >> 6);
        *next++ = bytes[2] & 0x3F;
    }
    if (count > 0) {
        std::uint8_t const second = count == 2 ? bytes[1] : 0;
        *next++ = bytes[0] >> 2;
        *next++ = static_cast<std::uint8_t>((bytes[0] & 0x03) << 4 | second >> 4);
        if (count == 2)
            *next++ = static_cast<std::uint8_t>((second & 0x0F) << 2);
    }
    return static_cast<std::size_t>(next - values);
}

void appendLine(std::uint8_t const* bytes, std::size_t count, std::string& text) {
    using Characters = boost::archive::iterators::base64_from_binary<std::uint8_t const*>;
    std::array<std::uint8_t, LineCharacters> values;
    auto const valueCount = regroup(bytes, count, values.data());
    std::array<char, LineCharacters> line;
    line.fill('=');
    std::copy(Characters(values.data()), Characters(values.data() + valueCount), line.data());
    text.append(line.data(), (valueCount + 3) / 4 * 4);
}

/// The next block in lines with an LF before each but the very first of the stream; empty at its end.
std::string encodeBlock(std::istream& in, std::vector<std::uint8_t>& block, bool isFirst) {
    auto const count = static_cast<std::size_t>(
        in.rdbuf()->sgetn(reinterpret_cast<char*>(block.data()), static_cast<std::streamsize>(block.size())));
    std::string text;
    text.reserve((count / LineBytes + 1) * (LineCharacters + 1));
    for (std::size_t begin = 0; begin < count; begin += LineBytes) {
        if (begin > 0 || !isFirst)
            text += '\n';
        appendLine(block.data() + begin, std::min(LineBytes, count - begin), text);
    }
    return text;
}

/// The same, with every failure to read reported as one to encode.
std::string encodeBlockOrFail(std::istream& in, std::vector<std::uint8_t>& block, bool isFirst) {
    try {
        return encodeBlock(in, block, isFirst);
    } catch (std::exception const& failure) {
        throw foundation::crypto::utils::Exception(std::string("Unable to encode in Base64. Reason=") + failure.what());
    }
}

} // namespace

void writeBase64Lines(std::istream& in, std::ostream& out) {
    std::vector<std::uint8_t> block(BlockBytes);
    bool isFirst = true;
    for (auto text = encodeBlockOrFail(in, block, isFirst); !text.empty();
         text = encodeBlockOrFail(in, block, isFirst)) {
        out.write(text.data(), static_cast<std::streamsize>(text.size()));
        isFirst = false;
    }
}

} // namespace opc::textpackage
