#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <opccore/caselessCompare.hpp>

namespace {

int signOf(int value) {
    return (value > 0) - (value < 0);
}

struct Comparison {
    std::u16string first;
    std::u16string second;
    int sign;
};

TEST(CaselessCompare, GivesZeroForNamesThatDifferInTheCaseOfAsciiLettersAlone) {
    std::vector<Comparison> const comparisons = {
        {u"", u"", 0},
        {u"/word/document.xml", u"/word/document.xml", 0},
        {u"/[Content_Types].xml", u"/[CONTENT_TYPES].XML", 0},
        {u"abcdefghijklmnopqrstuvwxyz", u"ABCDEFGHIJKLMNOPQRSTUVWXYZ", 0},
        {u"\u00E4\u4E2D\U0001F600x", u"\u00E4\u4E2D\U0001F600X", 0},
    };

    for (auto const& [first, second, sign] : comparisons)
        EXPECT_EQ(opc::caselessCompare(first, second), sign) << testing::PrintToString(first);
}

TEST(CaselessCompare, OrdersByTheFirstUnitThatDiffersAndThenByLength) {
    std::vector<Comparison> const comparisons = {
        {u"", u"a", -1},
        {u"/a", u"/ab", -1},
        {u"/A", u"/ab", -1},
        {u"/a", u"/B", -1},
        {u"/A", u"/b", -1},
        {u"/ab", u"/b", -1},
        {u"/a/z", u"/ab", -1}, // '/' sorts before letters
        {std::u16string(1, u'\0'), u"a", -1},
        {u"", std::u16string(1, u'\0'), -1}, // a NUL is a unit like any other
        {u"z", u"\u00E4", -1},
        {u"\u7FFF", u"\u8000", -1}, // units are never negative
        {u"a", u"\uFFFF", -1},
    };

    for (auto const& [first, second, sign] : comparisons) {
        EXPECT_EQ(signOf(opc::caselessCompare(first, second)), sign) << testing::PrintToString(first);
        EXPECT_EQ(signOf(opc::caselessCompare(second, first)), -sign) << testing::PrintToString(first);
    }
}

TEST(CaselessCompare, TellsLettersOutsideAsciiApart) {
    EXPECT_NE(opc::caselessCompare(u"\u00C4", u"\u00E4"), 0); // A and a with diaeresis
    EXPECT_NE(opc::caselessCompare(u"\u03A3", u"\u03C3"), 0); // Greek sigma
    EXPECT_NE(opc::caselessCompare(u"k", u"\u212A"), 0);      // Kelvin sign
    EXPECT_NE(opc::caselessCompare(u"i", u"\u0130"), 0);      // I with a dot
    EXPECT_NE(opc::caselessCompare(u"\uFF21", u"\uFF41"), 0); // full-width A
}

TEST(CaselessCompare, LeavesTheNeighboursOfTheLettersAsTheyAre) {
    EXPECT_NE(opc::caselessCompare(u"@", u"`"), 0);
    EXPECT_NE(opc::caselessCompare(u"[", u"{"), 0);
    EXPECT_LT(opc::caselessCompare(u"@", u"A"), 0);
    EXPECT_LT(opc::caselessCompare(u"[", u"Z"), 0); // letters count as lower case, which stands behind '['
    EXPECT_LT(opc::caselessCompare(u"_", u"A"), 0);
    EXPECT_GT(opc::caselessCompare(u"{", u"Z"), 0);
}

TEST(CaselessCompare, OrdersEveryAsciiCharacterByItsLowerCase) {
    auto const lower = [](char16_t unit) { return unit >= u'A' && unit <= u'Z' ? unit + 32 : unit; };

    for (char16_t first = 0; first < 128; ++first)
        for (char16_t second = 0; second < 128; ++second)
            EXPECT_EQ(signOf(opc::caselessCompare({first}, {second})), signOf(lower(first) - lower(second)))
                << int{first} << " and " << int{second};
}

TEST(CaselessCompare, IsATotalOrder) {
    std::vector<std::u16string> const names = {u"",     u"/",  u"/A",  u"/a",      u"/AB",     u"/a/b",        u"/_",
                                               u"/[x]", u"/Z", u"/zz", u"/\u00C4", u"/\u00E4", {u'/', 0xD800}, u"@"};

    for (auto const& a : names) {
        for (auto const& b : names) {
            EXPECT_EQ(signOf(opc::caselessCompare(a, b)), -signOf(opc::caselessCompare(b, a)));
            for (auto const& c : names) {
                bool const inOrder = opc::caselessCompare(a, b) <= 0 && opc::caselessCompare(b, c) <= 0;

                EXPECT_TRUE(!inOrder || opc::caselessCompare(a, c) <= 0)
                    << testing::PrintToString(a) << testing::PrintToString(b) << testing::PrintToString(c);
            }
        }
    }
}

} // namespace
