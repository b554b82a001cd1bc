#include <textpackage/Base64Encoder.hpp>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
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

using Pair = std::array<char, 2>;
using PairTable = std::array<Pair, 4096>;

/// The two characters for each value of twelve bits. Looked up two by two they take two thirds of the time that
/// the iterator needs for each.
PairTable makePairTable() {
    using Characters = boost::archive::iterators::base64_from_binary<std::uint8_t const*>;
    PairTable table;
    for (std::size_t value = 0; value < table.size(); ++value) {
        std::array<std::uint8_t, 2> const halves{static_cast<std::uint8_t>(value >> 6),
                                                 static_cast<std::uint8_t>(value & 0x3F)};
        std::copy_n(Characters(halves.data()), halves.size(), table[value].begin());
    }
    return table;
}

/// Writes the four characters of a group of three bytes, and returns where they end.
inline char* encodeGroup(PairTable const& pairs, std::uint8_t const* bytes, char* out) {
    auto const bits = static_cast<std::uint32_t>(bytes[0] << 16 | bytes[1] << 8 | bytes[2]);
    std::memcpy(out, pairs[bits >> 12].data(), 2);
    std::memcpy(out + 2, pairs[bits & 0xFFF].data(), 2);
    return out + 4;
}

void appendLine(std::uint8_t const* bytes, std::size_t count, std::string& text) {
    static PairTable const pairs = makePairTable();
    std::array<char, LineCharacters> line;
    auto* end = line.data();
    for (; count >= 3; bytes += 3, count -= 3)
        end = encodeGroup(pairs, bytes, end);
    if (count > 0) {
        std::array<std::uint8_t, 3> last{}; // filled up with zero bits
        std::copy_n(bytes, count, last.begin());
        end = encodeGroup(pairs, last.data(), end);
        std::fill(end - (3 - count), end, '=');
    }
    text.append(line.data(), static_cast<std::size_t>(end - line.data()));
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
