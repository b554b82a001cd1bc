#include <string>
#include <vector>

#include <gmock/gmock.h>

#include <tests/support/Base64Lines.hpp>
#include <tests/support/OpctextFixture.hpp>

using testsupport::base64Lines;
using testsupport::ends;
using testsupport::fails;
using testsupport::mixedBytes;
using testsupport::packageText;
using testsupport::succeeds;
using testsupport::withCrLf;

namespace {

std::string const Begin = "__ZKOPC_PACKAGE_BEGIN__ V3508k\n";
std::string const ContentTypes = "__ZKOPC_PART_BEGIN__ /[Content_Types].xml\n<Types/>\n";
std::string const End = "__ZKOPC_PACKAGE_END__\n";

class OpctextCat : public testsupport::OpctextFixture {};

/// What both ways to read parts promise; the parameter holds the words that ask for one of them.
class OpctextCatBothWays : public OpctextCat, public ::testing::WithParamInterface<std::vector<std::string>> {
protected:
    /// Runs cat, in the way that the test is about, on the parts of these names.
    testsupport::ProgramResult cat(std::vector<std::string> const& names) const {
        std::vector<std::string> words{"cat", "p.txt"};
        words.insert(words.end(), GetParam().begin(), GetParam().end());
        words.insert(words.end(), names.begin(), names.end());
        return run(words);
    }
};

INSTANTIATE_TEST_SUITE_P(EachWay, OpctextCatBothWays,
                         ::testing::Values(std::vector<std::string>{}, std::vector<std::string>{"--light"}),
                         [](auto const& way) { return way.param.empty() ? "Exact" : "Light"; });

TEST_P(OpctextCatBothWays, WritesTheContentAndNothingElse) {
    struct Case {
        std::string stored;
        bool isBase64;
        std::string content;
    };
    std::vector<Case> const cases{
        {"", false, ""},
        {"\n", false, "\n"},
        {"no line break", false, "no line break"},
        {"ends in LF\n", false, "ends in LF\n"},
        {"ends in two\n\n", false, "ends in two\n\n"},
        {"two\nlines", false, "two\nlines"},
        {"lone\rCR", false, "lone\rCR"},
        {std::string("NUL\0in text", 11), false, std::string("NUL\0in text", 11)},
        {"\xEF\xBB\xBF<bom/>", false, "\xEF\xBB\xBF<bom/>"},
        {"not UTF-8: \xFF", false, "not UTF-8: \xFF"},
        {"", true, ""},
        {"AAECAwQ=", true, std::string("\0\1\2\3\4", 5)},
        {"DQo=", true, "\r\n"},
        {base64Lines(mixedBytes(57)), true, mixedBytes(57)},
        {base64Lines(mixedBytes(58)), true, mixedBytes(58)},
        {base64Lines(mixedBytes(600000)), true, mixedBytes(600000)},
        {withCrLf(base64Lines(mixedBytes(200))), true, mixedBytes(200)},
    };

    for (auto const& [stored, isBase64, content] : cases) {
        SCOPED_TRACE(stored.substr(0, 80));
        writePackage({{"/part", stored, isBase64}, {"/z", "z"}});

        EXPECT_THAT(cat({"/part"}), succeeds(content));
    }
}

TEST_P(OpctextCatBothWays, WritesSeveralPartsOneAfterTheOtherAsAskedFor) {
    writePackage({{"/b", "b\n"}, {"/c.bin", "AAE=", true}});

    EXPECT_THAT(cat({"/c.bin", "/a.xml", "/b"}), succeeds(std::string("\0\1<a/>b\n", 8)));
}

TEST_P(OpctextCatBothWays, WritesAPartAsOftenAsItIsNamed) {
    writePackage({{"/c.bin", "Yw==", true}});

    EXPECT_THAT(cat({"/a.xml", "/c.bin", "/A.XML", "/c.bin"}), succeeds("<a/>c<a/>c"));
}

TEST_P(OpctextCatBothWays, FindsPartsWhateverTheCaseOfLetters) {
    writePackage({{"/Word/Document.XML", "text"}});

    EXPECT_THAT(cat({"/wORD/document.xml"}), succeeds("text"));
    EXPECT_THAT(cat({"/[CONTENT_types].xml"}), succeeds("<Types/>"));
}

TEST_P(OpctextCatBothWays, FindsPartsWithNonAsciiNames) {
    writePackage({{"/größe/дом/大\xF0\x9F\x98\x80.xml", "text"}});

    EXPECT_THAT(cat({"/größe/дом/大\xF0\x9F\x98\x80.xml"}), succeeds("text"));
}

TEST_P(OpctextCatBothWays, FindsPartsInAFileWhosePartsAreInAnotherOrder) {
    folder.write("p.txt", packageText({{"/z", "z"},
                                       {"/m.bin", "bQ==", true},
                                       {"/metadata/x", "x"},
                                       {"/a", "a"},
                                       {"/_rels/.rels", "<Relationships/>"},
                                       {"/[Content_Types].xml", "<Types/>"}}));

    EXPECT_THAT(cat({"/a"}), succeeds("a"));
    EXPECT_THAT(cat({"/[Content_Types].xml"}), succeeds("<Types/>"));
    EXPECT_THAT(cat({"/_rels/.rels", "/metadata/x", "/m.bin", "/z"}), succeeds("<Relationships/>xmz"));
}

TEST_P(OpctextCatBothWays, NamesAPartThatIsMissingAndWritesNothingOfTheOthers) {
    writePackage();

    EXPECT_THAT(cat({"/a.xml", "/gone/away.bin"}), fails(4, "opctext: p.txt: there is no part /gone/away.bin\n"));
}

TEST_P(OpctextCatBothWays, SaysWhichPartsMayHaveBeenMeant) {
    writePackage({{"/word/document.xml", "x"}, {"/s1", "x"}, {"/s2", "x"}, {"/s3", "x"}, {"/s4", "x"}});
    struct Case {
        std::string asked;
        std::string meant;
    };
    std::vector<Case> const cases{
        {"/a.xlm", "/a.xml"},      {"document.xml", "/word/document.xml"}, {"/WORD/Dokument.xml", "/word/document.xml"},
        {"/s", "/s1, /s2 or /s3"}, {"_rels/.rels", "/_rels/.rels"},
    };

    for (auto const& [asked, meant] : cases)
        EXPECT_THAT(cat({asked}),
                    fails(4, "opctext: p.txt: there is no part " + asked + "; did you mean " + meant + "?\n"));
}

TEST_P(OpctextCatBothWays, ShowsControlCharactersOfAMissingNameAsNumbers) {
    writePackage();

    EXPECT_THAT(cat({"/x\x1B[31m\n"}), fails(4, "opctext: p.txt: there is no part /x\\x1B[31m\\x0A\n"));
}

TEST_P(OpctextCatBothWays, SaysThatAPartIsMissingBecauseTheFileIsCutOffInIt) {
    folder.write("p.txt", Begin + ContentTypes + "__ZKOPC_PART_BEGIN__ /a.xml\n<a/>\n");

    EXPECT_THAT(cat({"/a.xml"}),
                fails(3,
                      "opctext: p.txt: there is no part /a.xml: the package-end line is missing, and the file is cut "
                      "off in part /a.xml\n"));
    EXPECT_THAT(cat({"/[Content_Types].xml"}), succeeds("<Types/>"));
}

TEST_P(OpctextCatBothWays, NamesTheLineOfBase64ThatDoesNotDecode) {
    writePackage({{"/b.bin", "AAAA\nAA!A", true}});

    EXPECT_THAT(cat({"/b.bin"}),
                fails(3, "opctext: p.txt: line 10: Unable to decode Base64: a character outside the alphabet "
                         "(byte 2)\n"));
}

TEST_P(OpctextCatBothWays, NamesTheLineOfAPartWithoutAName) {
    folder.write("p.txt", Begin + ContentTypes + "__ZKOPC_PART_BEGIN__\nx\n" + End);

    EXPECT_THAT(cat({"/a.xml"}), fails(3, "opctext: p.txt: line 4: a part begins here, but its name is missing\n"));
}

TEST_P(OpctextCatBothWays, NamesTheLineBeforeTheFirstPartThatIsNone) {
    folder.write("p.txt", "header\n" + Begin + "no part\n" + ContentTypes + End);

    EXPECT_THAT(cat({"/a.xml"}), fails(3, "opctext: p.txt: line 3: Didn't find ZKOPC_PART_BEGIN marker\n"));
}

TEST_F(OpctextCat, WritesTheLastOfPartsWithTheSameName) {
    writePackage({{"/same", "first"}, {"/same", "last"}});

    EXPECT_THAT(run({"cat", "p.txt", "/same"}), succeeds("last"));
}

TEST_F(OpctextCat, KeepsCrLfInsideText) {
    writePackage({{"/crlf", "one\r\ntwo\r\n\r\n"}, {"/z", "z"}});

    EXPECT_THAT(run({"cat", "p.txt", "/crlf"}), succeeds("one\r\ntwo\r\n\r\n"));
}

TEST_F(OpctextCat, WritesCrLfInsideTextAsLfWhereItIsToBeLight) {
    writePackage({{"/crlf", "one\r\ntwo\r\r\nlone\rCR\r\n\r\n"}, {"/z", "z"}});

    EXPECT_THAT(run({"cat", "--light", "p.txt", "/crlf"}), succeeds("one\ntwo\r\nlone\rCR\n\n"));
}

TEST_F(OpctextCat, SuggestsNoPartThatItJustSaidIsNotThere) {
    writePackage({{"/[trash]/0000.dat", "x"}});

    auto const result = run({"cat", "p.txt", "/[trash]/0000.dat"});

    EXPECT_EQ(result.status, 4);
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.errors, ::testing::StartsWith("opctext: p.txt: there is no part /[trash]/0000.dat"));
    EXPECT_THAT(result.errors, ::testing::Not(::testing::HasSubstr("did you mean /[trash]/0000.dat")));
}

TEST_F(OpctextCat, TakesANameInBracketsForTheNameThatItIs) {
    writePackage();

    EXPECT_THAT(run({"cat", "p.txt", "[/a.xml]"}).status, 4);
    EXPECT_THAT(run({"cat", "p.txt", "[/a.xml,/_rels/.rels]"}).output, "");
}

} // namespace
