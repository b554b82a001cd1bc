#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include <opccore/StringConversion.hpp>
#include <tests/support/Throws.hpp>

namespace {

using namespace std::string_literals;
using opc::toString;
using opc::toUDEString;
using opc::detail::makeNativePath;
using opc::detail::toUTF8String;
using testsupport::throwsPackageError;

constexpr std::size_t LongestComponent = 255;

std::size_t sizeOfNative(std::u16string const& path) {
    return makeNativePath(path).size();
}

/// What `makeNativePath` gives to a component that is too long: its head, "~" and a hash.
auto isShortened(std::string const& begin) {
    return testing::AllOf(testing::SizeIs(testing::Le(LongestComponent)), testing::StartsWith(begin),
                          testing::ContainsRegex("~[0-9a-f-]+$"));
}

struct Conversion {
    std::string utf8;
    std::u16string utf16;
};

void expectTheSameInEitherForm(std::vector<Conversion> const& conversions) {
    for (auto const& [utf8, utf16] : conversions) {
        for (bool const strict : {true, false}) {
            EXPECT_EQ(toString(utf8, strict), utf16);
            EXPECT_EQ(toUTF8String(utf16, strict), utf8);
        }
        if (utf8.find('\0') == std::string::npos) {
            EXPECT_EQ(toUDEString(utf16), utf8);
        }
    }
}

TEST(StringConversion, TakesAsciiAsItIsNulIncluded) {
    expectTheSameInEitherForm({
        {"", u""},
        {"/word/document.xml", u"/word/document.xml"},
        {"a\r\n\tb\x7F", u"a\r\n\tb\x7F"},
        {"a\0b\0"s, u"a\0b\0"s},
    });
}

TEST(StringConversion, ConvertsTheBasicPlane) {
    expectTheSameInEitherForm({
        {"\xC2\x80", u"\u0080"},
        {"\xC3\xA4", u"\u00E4"},
        {"\xDF\xBF", u"\u07FF"},
        {"\xE0\xA0\x80", u"\u0800"},
        {"\xE4\xB8\xAD\xE6\x96\x87", u"\u4E2D\u6587"},
        {"\xED\x9F\xBF", u"\uD7FF"},
        {"\xEE\x80\x80", u"\uE000"},
        {"\xEF\xBB\xBF", u"\uFEFF"}, // a byte order mark is a character
        {"\xEF\xBF\xBD", u"\uFFFD"},
    });
}

TEST(StringConversion, ConvertsNoncharacters) {
    expectTheSameInEitherForm({
        {"\xEF\xBF\xBE", u"\uFFFE"},
        {"\xEF\xBF\xBF", u"\uFFFF"},
        {"\xEF\xB7\x90", u"\uFDD0"},
        {"\xF0\x9F\xBF\xBF", u"\U0001FFFF"},
    });
}

TEST(StringConversion, ConvertsTheAstralPlanesToPairs) {
    expectTheSameInEitherForm({
        {"\xF0\x90\x80\x80", u"\U00010000"},
        {"\xF0\x9F\x98\x80!", u"\U0001F600!"},
        {"\xF4\x8F\xBF\xBF", u"\U0010FFFF"},
    });
}

TEST(StringConversion, GivesBackEveryUnicodeScalarValue) {
    std::u16string all;
    for (char32_t point = 0; point < 0x10000; ++point)
        if (point < 0xD800 || point >= 0xE000)
            all += static_cast<char16_t>(point);
    for (char32_t point = 0x10000; point < 0x110000; ++point) {
        all += static_cast<char16_t>(0xD800 + (point - 0x10000) / 0x400);
        all += static_cast<char16_t>(0xDC00 + (point - 0x10000) % 0x400);
    }

    auto const utf8 = toUTF8String(all, true);

    EXPECT_EQ(utf8.size(), 0x80 + 0x780 * 2 + (0xF800 - 0x800) * 3 + 0x100000 * 4);
    EXPECT_TRUE(toString(utf8, true) == all);
}

TEST(StringConversion, TakesOnlyAsciiAsASingleByte) {
    for (unsigned value = 0; value < 256; ++value) {
        std::string const text(1, static_cast<char>(value));

        if (value < 0x80)
            EXPECT_EQ(toString(text, true), std::u16string(1, static_cast<char16_t>(value)));
        else
            EXPECT_THROW(toString(text, true), opc::Exception) << value;
    }
}

struct IllFormedUtf8 {
    std::string text;
    std::string message;
    std::u16string lenient;
};

/// Strictly refused with the message, else replaced sequence by sequence.
void expectIllFormed(std::vector<IllFormedUtf8> const& texts) {
    for (auto const& [text, message, lenient] : texts) {
        EXPECT_THAT([&text = text] { toString(text, true); }, throwsPackageError(message));
        EXPECT_EQ(toString(text, false), lenient);
    }
}

TEST(StringConversion, RefusesOverlongForms) {
    expectIllFormed({
        {"\xC0\x80", "Ill-formed UTF-8 at byte 0 of \"\uFFFD\"", u"\uFFFD"},
        {"/a\xC0\xAF", "Ill-formed UTF-8 at byte 2 of \"/a\uFFFD\"", u"/a\uFFFD"},
        {"\xC1\xBFz", "Ill-formed UTF-8 at byte 0 of \"\uFFFDz\"", u"\uFFFDz"},
        {"a\xE0\x9F\xBFz", "Ill-formed UTF-8 at byte 1 of \"a\uFFFDz\"", u"a\uFFFDz"},
        {"ab\xF0\x8F\xBF\xBFz", "Ill-formed UTF-8 at byte 2 of \"ab\uFFFDz\"", u"ab\uFFFDz"},
    });
}

TEST(StringConversion, RefusesEncodedSurrogates) {
    expectIllFormed({
        {"\xED\xA0\x80z", "Ill-formed UTF-8 at byte 0 of \"\uFFFDz\"", u"\uFFFDz"},
        {"x\xED\xBF\xBF", "Ill-formed UTF-8 at byte 1 of \"x\uFFFD\"", u"x\uFFFD"},
        {"\xED\xA0\xBD\xED\xB8\x80", "Ill-formed UTF-8 at byte 0 of \"\uFFFD\uFFFD\"", u"\uFFFD\uFFFD"},
    });
}

TEST(StringConversion, RefusesTruncatedSequences) {
    expectIllFormed({
        {"\xC3", "Ill-formed UTF-8 at byte 0 of \"\uFFFD\"", u"\uFFFD"},
        {"a\xE2\x82", "Ill-formed UTF-8 at byte 1 of \"a\uFFFD\"", u"a\uFFFD"},
        {"\xC3\xA4\xF0\x9F\x98", "Ill-formed UTF-8 at byte 2 of \"\u00E4\uFFFD\"", u"\u00E4\uFFFD"},
        {"\xE2z", "Ill-formed UTF-8 at byte 0 of \"\uFFFDz\"", u"\uFFFDz"},
        {"\xF0\x9F\x98z", "Ill-formed UTF-8 at byte 0 of \"\uFFFDz\"", u"\uFFFDz"},
    });
}

TEST(StringConversion, RefusesBytesThatNeverOccur) {
    expectIllFormed({
        {"a\x80z", "Ill-formed UTF-8 at byte 1 of \"a\uFFFDz\"", u"a\uFFFDz"},
        {"xyz\xFFxyz", "Ill-formed UTF-8 at byte 3 of \"xyz\uFFFDxyz\"", u"xyz\uFFFDxyz"},
        {"\xFE", "Ill-formed UTF-8 at byte 0 of \"\uFFFD\"", u"\uFFFD"},
    });
}

TEST(StringConversion, RefusesWhatLiesBeyondTheLastPlane) {
    expectIllFormed({
        {"\xF4\x90\x80\x80z", "Ill-formed UTF-8 at byte 0 of \"\uFFFDz\"", u"\uFFFDz"},
    });
}

TEST(StringConversion, CutsALongTextInItsMessage) {
    EXPECT_THAT([] { toString(std::string(300, 'x') + '\xFF', true); },
                throwsPackageError("Ill-formed UTF-8 at byte 300 of \"" + std::string(200, 'x') + "\"..."));
    EXPECT_THAT([] { toString(std::string(199, 'x') + '\xFF', true); },
                throwsPackageError("Ill-formed UTF-8 at byte 199 of \"" + std::string(199, 'x') + "\uFFFD\""));
}

TEST(StringConversion, ShowsTheWholeTextInItsMessageThoughItHoldsNul) {
    EXPECT_THAT([] { toString("a\0b\xFF"s, true); },
                testing::ThrowsMessage<opc::Exception>(
                    testing::AllOf(testing::StartsWith("Ill-formed UTF-8 at byte 3 of \"a"), testing::EndsWith("\""))));
}

struct IllFormedUtf16 {
    std::u16string text;
    std::string message;
    std::string lenient;
};

TEST(StringConversion, RefusesLoneSurrogatesAndReplacesThemWhereNotStrict) {
    std::vector<IllFormedUtf16> const texts = {
        {{0xD800}, "Ill-formed UTF-16 at unit 0 of \"\uFFFD\"", "\uFFFD"},
        {{0xDFFF}, "Ill-formed UTF-16 at unit 0 of \"\uFFFD\"", "\uFFFD"},
        {{u'a', 0xDBFF, u'b'}, "Ill-formed UTF-16 at unit 1 of \"a\uFFFDb\"", "a\uFFFDb"},
        {{u'a', u'b', 0xDC00}, "Ill-formed UTF-16 at unit 2 of \"ab\uFFFD\"", "ab\uFFFD"},
        {{0xDC00, 0xD800}, "Ill-formed UTF-16 at unit 0 of \"\uFFFD\uFFFD\"", "\uFFFD\uFFFD"},
        {{0xDC00, 0xDC00}, "Ill-formed UTF-16 at unit 0 of \"\uFFFD\uFFFD\"", "\uFFFD\uFFFD"},
        {{0xDBFF, 0xDBFF}, "Ill-formed UTF-16 at unit 0 of \"\uFFFD\uFFFD\"", "\uFFFD\uFFFD"},
        {{0xDBFF, 0xE000}, "Ill-formed UTF-16 at unit 0 of \"\uFFFD\uE000\"", "\uFFFD\uE000"},
        {{0xD7FF, 0xDC00}, "Ill-formed UTF-16 at unit 1 of \"\uD7FF\uFFFD\"", "\uD7FF\uFFFD"},
        {{0xD83D, 0xD83D, 0xDE00}, "Ill-formed UTF-16 at unit 0 of \"\uFFFD\U0001F600\"", "\uFFFD\U0001F600"},
        {{0xD83D, 0xDE00, 0xDE00}, "Ill-formed UTF-16 at unit 2 of \"\U0001F600\uFFFD\"", "\U0001F600\uFFFD"},
    };

    for (auto const& [text, message, lenient] : texts) {
        EXPECT_THAT([&text = text] { toUTF8String(text, true); }, throwsPackageError(message));
        EXPECT_EQ(toUTF8String(text, false), lenient);
        EXPECT_EQ(toUDEString(text), lenient);
    }
}

TEST(ToUDEString, GivesWellFormedUtf8ForEveryUnitThereIs) {
    for (unsigned unit = 0; unit < 0x10000; ++unit) {
        std::u16string const path = {u'/', static_cast<char16_t>(unit), u'/'};
        bool const replaced = unit == 0 || (unit >= 0xD800 && unit < 0xE000); // a NUL would end a message

        std::string text;
        EXPECT_NO_THROW(text = toUDEString(path)) << unit;

        EXPECT_EQ(toString(text, true), replaced ? u"/\uFFFD/" : path);
    }
}

TEST(MakeNativePath, IsThePathInUtf8) {
    EXPECT_EQ(makeNativePath(u""), "");
    EXPECT_EQ(makeNativePath(u"/"), "/");
    EXPECT_EQ(makeNativePath(u"/tmp/caf\u00E9/\u4E2D/\U0001F600.txt"), "/tmp/caf\u00E9/\u4E2D/\U0001F600.txt");
}

TEST(MakeNativePath, EncodesEveryPairOfSurrogatesAsOneCharacter) {
    EXPECT_EQ(makeNativePath({0xD800, 0xDC00}), "\U00010000");
    EXPECT_EQ(makeNativePath({0xD800, 0xDFFF}), "\U000103FF");
    EXPECT_EQ(makeNativePath({0xDBFF, 0xDC00}), "\U0010FC00");
    EXPECT_EQ(makeNativePath({0xDBFF, 0xDFFF}), "\U0010FFFF");
    EXPECT_EQ(makeNativePath({0xD7FF, 0xE000}), "\uD7FF\uE000");
}

TEST(MakeNativePath, KeepsEverySeparator) {
    EXPECT_EQ(makeNativePath(u"//a///b/./../c//"), "//a///b/./../c//");
    EXPECT_EQ(makeNativePath(u"a\\b"), "a\\b");
}

TEST(MakeNativePath, KeepsAComponentOf255BytesAndShortensOneOf256) {
    EXPECT_EQ(makeNativePath(std::u16string(255, u'a')), std::string(255, 'a'));
    EXPECT_EQ(makeNativePath(std::u16string(85, u'\u4E2D')).size(), 255U);
    EXPECT_EQ(makeNativePath(std::u16string(84, u'\u4E2D') + u"abc"),
              toUTF8String(std::u16string(84, u'\u4E2D') + u"abc", true));

    EXPECT_THAT(makeNativePath(std::u16string(256, u'a')), isShortened(std::string(200, 'a')));
    EXPECT_THAT(makeNativePath(std::u16string(84, u'\u4E2D') + u"abcd"), isShortened("\u4E2D\u4E2D\u4E2D"));
    EXPECT_THAT(makeNativePath(std::u16string(64, u'\u4E2D') + std::u16string(64, u'a')), isShortened("\u4E2D\u4E2D"));
}

TEST(MakeNativePath, ShortensOnlyTheComponentsThatAreTooLong) {
    std::u16string const longName(300, u'x');
    auto const shortName = makeNativePath(longName);

    EXPECT_EQ(makeNativePath(u"/a/" + longName + u"//b/" + longName + u"/"),
              "/a/" + shortName + "//b/" + shortName + "/");
}

TEST(MakeNativePath, KeepsAPathOfAnyLengthWhoseComponentsFit) {
    std::u16string path;
    for (int i = 0; i < 30; ++i)
        path += u"/" + std::u16string(255, u'a');

    EXPECT_EQ(makeNativePath(path), toUTF8String(path, true));
}

TEST(MakeNativePath, NeverCutsInsideACharacter) {
    for (auto const* character : {u"a", u"\u00E9", u"\u4E2D", u"\U0001F600"}) {
        for (std::size_t before = 0; before < 5; ++before) {
            std::u16string name(before, u'-');
            while (name.size() < 300)
                name += character;

            auto const native = makeNativePath(name);

            EXPECT_THAT(native, isShortened(std::string(before, '-') + toUTF8String(character, true)));
            EXPECT_NO_THROW(toString(native, true)) << native;
        }
    }
}

TEST(MakeNativePath, GivesTheSameForTheSameName) {
    std::u16string const name(400, u'\u4E2D');

    EXPECT_EQ(makeNativePath(name), makeNativePath(std::u16string(name)));
    EXPECT_EQ(makeNativePath(u"a/" + name + u"/b"), "a/" + makeNativePath(name) + "/b");
}

TEST(MakeNativePath, LeavesWhatItReturnedAsItIs) {
    for (auto const& path : {u"/a/"s + std::u16string(256, u'b'), std::u16string(300, u'\u4E2D') + u"/c",
                             std::u16string(128, u'-') + std::u16string(150, u'\u00E9'), u"/short"s}) {
        auto const native = makeNativePath(path);

        EXPECT_EQ(makeNativePath(toString(native, true)), native);
    }
}

TEST(MakeNativePath, TellsLongNamesApartThatDifferInOneCharacter) {
    std::set<std::string> natives;
    for (std::size_t length : {256U, 257U, 300U, 1000U}) {
        for (std::size_t place = 0; place < length; ++place) {
            std::u16string name(length, u'n');
            name[place] = u'N';
            natives.insert(makeNativePath(name));
        }
    }

    EXPECT_EQ(natives.size(), 256U + 257U + 300U + 1000U);
}

TEST(MakeNativePath, EncodesALoneSurrogateAsThreeBytesOfItsOwn) {
    EXPECT_EQ(makeNativePath({u'a', 0xD800, u'b'}), "a\xED\xA0\x80"s + "b");
    EXPECT_EQ(makeNativePath({0xDFFF}), "\xED\xBF\xBF");
    EXPECT_EQ(makeNativePath({0xDE00, 0xD83D}), "\xED\xB8\x80\xED\xA0\xBD");
    EXPECT_EQ(makeNativePath({0xD83D, 0xD83D, 0xDE00}), "\xED\xA0\xBD\xF0\x9F\x98\x80");
    EXPECT_EQ(makeNativePath({0xD83D, u'/', 0xDE00}), "\xED\xA0\xBD/\xED\xB8\x80"); // no pair across components
}

TEST(MakeNativePath, GivesEverySurrogateAFormOfItsOwn) {
    std::set<std::string> natives;
    for (unsigned unit = 0xD800; unit < 0xE000; ++unit)
        natives.insert(makeNativePath({static_cast<char16_t>(unit)}));

    EXPECT_EQ(natives.size(), 0x800U);
    EXPECT_THAT(natives, testing::Each(testing::SizeIs(3)));
}

TEST(MakeNativePath, ShortensANameThatWasCutInsideAPair) {
    std::u16string name(249, u'\u4E2D');
    name += char16_t{0xD83D};

    EXPECT_THAT(makeNativePath(name), isShortened("\u4E2D\u4E2D"));
    EXPECT_NE(makeNativePath(name), makeNativePath(name + char16_t{0xDE00}));
}

TEST(MakeNativePath, CountsEachLoneSurrogateAsThreeBytes) {
    std::u16string const name(85, char16_t{0xD800});

    EXPECT_EQ(sizeOfNative(name), 255U);
    EXPECT_LE(sizeOfNative(name + u'a'), 255U);
    EXPECT_THAT(makeNativePath(name + u'a'), isShortened("\xED\xA0\x80\xED\xA0\x80"));
}

TEST(MakeNativePath, RefusesAPathThatTheSystemWouldCutShort) {
    EXPECT_THAT([] { makeNativePath(u"/a/b\0c"s); }, throwsPackageError("A path must not hold NUL: \"/a/b\"..."));
    EXPECT_THAT([] { makeNativePath(u"\0"s); }, throwsPackageError("A path must not hold NUL: \"\"..."));
    EXPECT_THAT([] { makeNativePath(u"/a\0"s); }, throwsPackageError("A path must not hold NUL: \"/a\"..."));
}

} // namespace
