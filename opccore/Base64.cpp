#include <opccore/Base64.hpp>

#include <array>
#include <cstddef>
#include <utility>

namespace foundation::crypto::utils {

namespace {

constexpr char Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint32_t NotInAlphabet = 0x80000000U;

using DigitTable = std::array<std::uint32_t, 256>;

/// The value of each character at its place in a group of four; `NotInAlphabet` for all others.
constexpr DigitTable makeDigitTable(unsigned shift) {
    DigitTable table{};
    for (auto& entry : table)
        entry = NotInAlphabet;
    for (std::uint32_t value = 0; value < 64; ++value)
        table[static_cast<unsigned char>(Alphabet[value])] = value << shift;
    return table;
}

constexpr DigitTable First = makeDigitTable(18);
constexpr DigitTable Second = makeDigitTable(12);
constexpr DigitTable Third = makeDigitTable(6);
constexpr DigitTable Fourth = makeDigitTable(0);

bool isSpace(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/// Decodes text of whole groups without white space or padding; false, and nothing promised about `bytes`, where
/// the text is anything else.
bool decodePlainGroups(unsigned char const* text, std::size_t groups, std::uint8_t* bytes) {
    std::uint32_t seen = 0;
    for (std::size_t group = 0; group < groups; ++group, text += 4, bytes += 3) {
        std::uint32_t const bits = First[text[0]] | Second[text[1]] | Third[text[2]] | Fourth[text[3]];
        seen |= bits;
        bytes[0] = static_cast<std::uint8_t>(bits >> 16);
        bytes[1] = static_cast<std::uint8_t>(bits >> 8);
        bytes[2] = static_cast<std::uint8_t>(bits);
    }
    return (seen & NotInAlphabet) == 0;
}

/// Decodes one character at a time, and knows where a fault is.
class CarefulDecoder {
public:
    explicit CarefulDecoder(std::size_t expectedBytes) { bytes_.reserve(expectedBytes); }

    void append(std::string const& text) {
        for (std::size_t offset = 0; offset < text.size(); ++offset) {
            if (text[offset] == '=')
                appendPadding(offset);
            else if (!isSpace(text[offset]))
                appendDigit(static_cast<unsigned char>(text[offset]), offset);
        }
        finish(text.size());
    }

    std::vector<std::uint8_t> take() { return std::move(bytes_); }

private:
    void appendDigit(unsigned char character, std::size_t offset) {
        if (Fourth[character] == NotInAlphabet)
            fail("a character outside the alphabet", offset);
        if (padding_ > 0)
            fail("data after the padding", offset);
        bits_ = bits_ << 6 | Fourth[character];
        lastDigitOffset_ = offset;
        if (++digits_ < 4)
            return;
        appendBytes(bits_, 3);
        bits_ = 0;
        digits_ = 0;
    }

    void appendPadding(std::size_t offset) {
        if (digits_ < 2 || digits_ + ++padding_ > 4)
            fail("misplaced padding", offset);
    }

    void finish(std::size_t end) {
        if (digits_ == 0)
            return;
        if (digits_ + padding_ != 4)
            fail("the length is not a multiple of four characters", end);
        std::uint32_t const bits = bits_ << 6 * padding_;
        unsigned const count = 3 - padding_;
        if ((bits & (0xFFFFFFU >> 8 * count)) != 0)
            fail("trailing bits that are not zero", lastDigitOffset_);
        appendBytes(bits, count);
    }

    void appendBytes(std::uint32_t bits, unsigned count) {
        for (unsigned i = 0; i < count; ++i)
            bytes_.push_back(static_cast<std::uint8_t>(bits >> (16 - 8 * i)));
    }

    [[noreturn]] static void fail(char const* reason, std::size_t offset) {
        throw Exception("Unable to decode Base64: " + std::string(reason) + " (byte " + std::to_string(offset) + ")");
    }

    std::vector<std::uint8_t> bytes_;
    std::uint32_t bits_ = 0; // of the group at hand
    unsigned digits_ = 0;    // of the group at hand
    unsigned padding_ = 0;   // of the text
    std::size_t lastDigitOffset_ = 0;
};

} // namespace

Exception::Exception(std::string const& message) : std::runtime_error(message) {
}

// Defined here so that the type has one home and is caught by type across library borders.
Exception::~Exception() = default;

std::vector<std::uint8_t> base64Decode(std::string const& text) {
    // A package holds millions of lines of whole plain groups, the last of a part excepted, and each comes here on
    // its own: that case is done at once, whatever is left goes the careful way.
    if (text.size() % 4 == 0) {
        std::vector<std::uint8_t> bytes(text.size() / 4 * 3);
        if (decodePlainGroups(reinterpret_cast<unsigned char const*>(text.data()), text.size() / 4, bytes.data()))
            return bytes;
    }
    CarefulDecoder decoder(text.size() / 4 * 3);
    decoder.append(text);
    return decoder.take();
}

} // namespace foundation::crypto::utils
