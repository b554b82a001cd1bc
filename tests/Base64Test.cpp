#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>

#include <opccore/Base64.hpp>

namespace {

using foundation::crypto::utils::base64Decode;
using Base64Exception = foundation::crypto::utils::Exception;

constexpr std::string_view Alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::string_view WhiteSpace = " \t\n\v\f\r";

std::vector<std::uint8_t> bytesOf(std::string_view text) {
    return {text.begin(), text.end()};
}

/// Bytes of every value, in an order that no period of three hides.
std::vector<std::uint8_t> someBytes(std::size_t count) {
    std::vector<std::uint8_t> bytes(count);
    std::uint32_t state = static_cast<std::uint32_t>(count) + 1;
    for (auto& byte : bytes) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<std::uint8_t>(state >> 24);
    }
    return bytes;
}

/// The encoding bit by bit, as slow and plain as it can be.
std::string encode(std::vector<std::uint8_t> const& bytes) {
    std::string text;
    for (std::size_t bit = 0; bit < bytes.size() * 8; bit += 6) {
        std::size_t value = 0;
        for (std::size_t i = bit; i < bit + 6; ++i) {
            bool const isSet = i < bytes.size() * 8 && (bytes[i / 8] >> (7 - i % 8) & 1) != 0;
            value = value * 2 + (isSet ? 1 : 0);
        }
        text += Alphabet[value];
    }
    text.append((4 - text.size() % 4) % 4, '=');
    return text;
}

auto throwsBase64Error(std::string const& message) {
    return testing::ThrowsMessage<Base64Exception>(testing::StrEq(message));
}

TEST(Base64Decode, DecodesTheVectorsOfRfc4648) {
    struct {
        char const* text;
        char const* bytes;
    } const vectors[] = {
        {"", ""},
        {"Zg==", "f"},
        {"Zm8=", "fo"},
        {"Zm9v", "foo"},
        {"Zm9vYg==", "foob"},
        {"Zm9vYmE=", "fooba"},
        {"Zm9vYmFy", "foobar"},
    };

    for (auto const& vector : vectors)
        EXPECT_EQ(base64Decode(vector.text), bytesOf(vector.bytes)) << vector.text;
}

TEST(Base64Decode, GivesBackEveryLengthThatWasEncoded) {
    for (std::size_t length = 0; length <= 300; ++length) {
        auto const bytes = someBytes(length);

        EXPECT_EQ(base64Decode(encode(bytes)), bytes) << length << " bytes";
    }
}

TEST(Base64Decode, GivesBackEveryByteAtEveryPlaceOfAGroup) {
    for (std::size_t place = 0; place < 3; ++place) {
        for (unsigned value = 0; value < 256; ++value) {
            std::vector<std::uint8_t> bytes(3, 0x5A);
            bytes[place] = static_cast<std::uint8_t>(value);

            EXPECT_EQ(base64Decode(encode(bytes)), bytes) << value << " at " << place;
        }
    }
}

TEST(Base64Decode, DecodesAMebibyte) {
    auto const bytes = someBytes(std::size_t{1} << 20);

    EXPECT_EQ(base64Decode(encode(bytes)), bytes);
}

TEST(Base64Decode, DecodesAMebibyteInLinesThatEndInCrLf) {
    auto const bytes = someBytes(std::size_t{1} << 20);
    auto const text = encode(bytes);
    std::string lines;
    for (std::size_t begin = 0; begin < text.size(); begin += 76)
        lines += text.substr(begin, 76) + "\r\n";

    EXPECT_EQ(base64Decode(lines), bytes);
}

TEST(Base64Decode, SkipsATrailingCarriageReturn) {
    EXPECT_EQ(base64Decode("Zm9v\r"), bytesOf("foo"));
    EXPECT_EQ(base64Decode("Zm8=\r"), bytesOf("fo"));
    EXPECT_EQ(base64Decode("Zg==\r"), bytesOf("f"));
}

TEST(Base64Decode, SkipsEachKindOfWhiteSpaceAtEveryPlace) {
    std::string const text = "Zm9vYg==";
    for (char const space : WhiteSpace) {
        for (std::size_t place = 0; place <= text.size(); ++place) {
            auto spaced = text;
            spaced.insert(place, 1, space);

            EXPECT_EQ(base64Decode(spaced), bytesOf("foob")) << int{space} << " at " << place;
        }
    }
}

TEST(Base64Decode, GivesNothingForWhiteSpaceAlone) {
    EXPECT_THAT(base64Decode("\r"), testing::IsEmpty());
    EXPECT_THAT(base64Decode("    "), testing::IsEmpty());
    EXPECT_THAT(base64Decode(std::string(WhiteSpace)), testing::IsEmpty());
}

TEST(Base64Decode, RefusesEveryByteOutsideTheAlphabetAndSaysWhereItIs) {
    for (unsigned value = 0; value < 256; ++value) {
        auto const character = static_cast<char>(value);
        if (character == '=' || (Alphabet.find(character) != Alphabet.npos) ||
            WhiteSpace.find(character) != WhiteSpace.npos)
            continue;
        for (std::size_t place = 0; place < 4; ++place) {
            std::string text = "AAAA";
            text[place] = character;

            EXPECT_THAT([&] { base64Decode(text); },
                        throwsBase64Error("Unable to decode Base64: a character outside the alphabet (byte " +
                                          std::to_string(place) + ")"))
                << value;
        }
    }
}

struct Refusal {
    char const* text;
    char const* message;
};

void expectRefusals(std::vector<Refusal> const& refusals) {
    for (auto const& refusal : refusals)
        EXPECT_THAT([&] { base64Decode(refusal.text); }, throwsBase64Error(refusal.message)) << refusal.text;
}

TEST(Base64Decode, RefusesACharacterOutsideTheAlphabetWhereverItStands) {
    expectRefusals({
        {"Zm9v!", "Unable to decode Base64: a character outside the alphabet (byte 4)"},
        {"\r\nZm-v", "Unable to decode Base64: a character outside the alphabet (byte 4)"},
        {"Zm_v", "Unable to decode Base64: a character outside the alphabet (byte 2)"},
        {"Zm8=.", "Unable to decode Base64: a character outside the alphabet (byte 4)"},
        {"Zm9v\xC2\xA0", "Unable to decode Base64: a character outside the alphabet (byte 4)"},
    });
}

TEST(Base64Decode, RefusesALengthThatIsNoMultipleOfFour) {
    expectRefusals({
        {"Z", "Unable to decode Base64: the length is not a multiple of four characters (byte 1)"},
        {"Zg", "Unable to decode Base64: the length is not a multiple of four characters (byte 2)"},
        {"Zm8", "Unable to decode Base64: the length is not a multiple of four characters (byte 3)"},
        {"Zg=", "Unable to decode Base64: the length is not a multiple of four characters (byte 3)"},
        {"Zm9vY", "Unable to decode Base64: the length is not a multiple of four characters (byte 5)"},
        {"Zm 8", "Unable to decode Base64: the length is not a multiple of four characters (byte 4)"},
        {"Zg=\r", "Unable to decode Base64: the length is not a multiple of four characters (byte 4)"},
    });
}

TEST(Base64Decode, RefusesMisplacedPadding) {
    expectRefusals({
        {"=", "Unable to decode Base64: misplaced padding (byte 0)"},
        {"====", "Unable to decode Base64: misplaced padding (byte 0)"},
        {"Z===", "Unable to decode Base64: misplaced padding (byte 1)"},
        {"Z=m8", "Unable to decode Base64: misplaced padding (byte 1)"},
        {"Zg===", "Unable to decode Base64: misplaced padding (byte 4)"},
        {"Zm8==", "Unable to decode Base64: misplaced padding (byte 4)"},
        {"Zm9v=", "Unable to decode Base64: misplaced padding (byte 4)"},
        {"Zm9v====", "Unable to decode Base64: misplaced padding (byte 4)"},
        {"\r=", "Unable to decode Base64: misplaced padding (byte 1)"},
    });
}

TEST(Base64Decode, RefusesDataAfterThePadding) {
    expectRefusals({
        {"Zg=v", "Unable to decode Base64: data after the padding (byte 3)"},
        {"Zg==Zg==", "Unable to decode Base64: data after the padding (byte 4)"},
        {"Zm8=Zm9v", "Unable to decode Base64: data after the padding (byte 4)"},
    });
}

TEST(Base64Decode, RefusesTrailingBitsAndSaysWhichDigitHoldsThem) {
    expectRefusals({
        {"Zh==", "Unable to decode Base64: trailing bits that are not zero (byte 1)"},
        {"Zm9=", "Unable to decode Base64: trailing bits that are not zero (byte 2)"},
        {"Zm9vZh==\r\n", "Unable to decode Base64: trailing bits that are not zero (byte 5)"},
    });
}

TEST(Base64Decode, AcceptsOnlyZeroTrailingBits) {
    for (std::size_t value = 0; value < Alphabet.size(); ++value) {
        auto const oneByte = std::string("A") + Alphabet[value] + "==";
        auto const twoBytes = std::string("AA") + Alphabet[value] + "=";

        if (value % 16 == 0)
            EXPECT_THAT(base64Decode(oneByte), testing::ElementsAre(value / 16));
        else
            EXPECT_THROW(base64Decode(oneByte), Base64Exception) << oneByte;
        if (value % 4 == 0)
            EXPECT_THAT(base64Decode(twoBytes), testing::ElementsAre(0, value / 4));
        else
            EXPECT_THROW(base64Decode(twoBytes), Base64Exception) << twoBytes;
    }
}

TEST(Base64Decode, FindsAFaultDeepInsideALongText) {
    auto text = encode(someBytes(300000));
    text[277777] = '*';

    EXPECT_THAT([&] { base64Decode(text); },
                throwsBase64Error("Unable to decode Base64: a character outside the alphabet (byte 277777)"));
}

} // namespace
