#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <tests/support/Base64Lines.hpp>
#include <tests/support/OpctextFixture.hpp>

using testsupport::base64Lines;
using testsupport::ends;
using testsupport::fails;
using testsupport::headerOfLines;
using testsupport::mixedBytes;
using testsupport::openingParts;
using testsupport::packageText;
using testsupport::succeeds;
using testsupport::withCrLf;

namespace {

std::string const Begin = "__ZKOPC_PACKAGE_BEGIN__ V3508k\n";
std::string const ContentTypes = "__ZKOPC_PART_BEGIN__ /[Content_Types].xml\n<Types/>\n";
std::string const End = "__ZKOPC_PACKAGE_END__\n";

class OpctextList : public testsupport::OpctextFixture {
protected:
    nlohmann::json listAsJson() const { return nlohmann::json::parse(run({"list", "--json", "p.txt"}).output); }
};

TEST_F(OpctextList, ShowsNameFormAndSizeOfEachPartInColumns) {
    writePackage({{"/b.bin", base64Lines("bytes"), true}});

    EXPECT_THAT(run({"list", "p.txt"}), succeeds("/[Content_Types].xml  text     8\n"
                                                 "/_rels/.rels          text    16\n"
                                                 "/a.xml                text     4\n"
                                                 "/b.bin                binary   5\n"));
}

TEST_F(OpctextList, KeepsTheOrderOfTheFile) {
    folder.write("p.txt", packageText({{"/z", "z"}, {"/[Content_Types].xml", "<Types/>"}, {"/a", "a"}}));

    EXPECT_THAT(run({"list", "-1", "p.txt"}), succeeds("/z\n/[Content_Types].xml\n/a\n"));
}

TEST_F(OpctextList, CountsTheCharactersOfNamesForTheColumnsAndTheBytesOfContents) {
    folder.write("p.txt", packageText({{"/[Content_Types].xml", "<Types/>"}, {"/größe/размер.xml", "ä€"}}));

    EXPECT_THAT(run({"list", "p.txt"}), succeeds("/[Content_Types].xml  text    8\n"
                                                 "/größe/размер.xml     text    5\n"));
}

TEST_F(OpctextList, CountsTwoColumnsForAWideCharacter) {
    folder.write("p.txt", packageText({{"/[Content_Types].xml", "<Types/>"}, {"/大小大小大小大小.xml", "x"}}));

    EXPECT_THAT(run({"list", "p.txt"}), succeeds("/[Content_Types].xml   text    8\n"
                                                 "/大小大小大小大小.xml  text    1\n"));
}

TEST_F(OpctextList, LetsNoLongNamePushTheOtherSizesOutOfSight) {
    auto const longName = "/" + std::string(200, 'n');
    folder.write("p.txt", packageText({{"/short", "text"}, {longName, "text"}}));

    EXPECT_THAT(run({"list", "p.txt"}),
                succeeds("/short" + std::string(74, ' ') + "  text    4\n" + longName + "  text    4\n"));
}

TEST_F(OpctextList, ShowsControlCharactersOfNamesAsNumbers) {
    folder.write("p.txt", packageText({{"/[Content_Types].xml", "<Types/>"}, {"/a\x1B[31m\x7F", "text"}}));

    EXPECT_THAT(run({"list", "p.txt"}), succeeds("/[Content_Types].xml  text    8\n"
                                                 "/a\\x1B[31m\\x7F        text    4\n"));
}

TEST_F(OpctextList, GivesNamesAloneOneALine) {
    writePackage();

    EXPECT_THAT(run({"list", "-1", "p.txt"}), succeeds("/[Content_Types].xml\n/_rels/.rels\n/a.xml\n"));
}

TEST_F(OpctextList, GivesMachinesAnArrayOfObjects) {
    folder.write("p.txt", packageText({{"/\"quoted\"/é", "text\n"}, {"/b.bin", base64Lines("bytes"), true}}));

    auto const result = run({"list", "--json", "p.txt"});

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "");
    EXPECT_EQ(nlohmann::json::parse(result.output),
              nlohmann::json::parse(R"([{"name": "/\"quoted\"/é", "form": "text", "size": 5},
                                        {"name": "/b.bin", "form": "binary", "size": 5}])"));
}

TEST_F(OpctextList, GivesTheSizeOfTheContentInBytes) {
    struct Case {
        std::string content;
        bool isBase64;
        std::uint64_t size;
    };
    std::vector<Case> const cases{
        {"", false, 0},
        {"\n", false, 1},
        {"one", false, 3},
        {"ends in LF\n", false, 11},
        {"ends in CR LF\r\n", false, 15},
        {"two\r\nlines", false, 10},
        {"lone\rCR", false, 7},
        {std::string("NUL\0", 4), false, 4},
        {"", true, 0},
        {"AA==", true, 1},
        {base64Lines(mixedBytes(57)), true, 57},
        {base64Lines(mixedBytes(58)), true, 58},
        {base64Lines(mixedBytes(100000)), true, 100000},
        {withCrLf(base64Lines(mixedBytes(200))), true, 200},
        {"QUJD\nREVG", true, 6},
    };

    for (auto const& [content, isBase64, size] : cases) {
        SCOPED_TRACE(content.substr(0, 80));
        folder.write("p.txt", packageText({{"/part", content, isBase64}, {"/next", "text"}}));

        auto const list = listAsJson();

        EXPECT_EQ(list.at(0).at("size"), size);
        EXPECT_EQ(list.at(1).at("size"), 4);
    }
}

TEST_F(OpctextList, CountsNoLineBreakOfAFileWhoseLinesAllEndInCrLf) {
    folder.write("p.txt", withCrLf(packageText({{"/a", "one line"}, {"/b", base64Lines("bytes"), true}})));

    auto const list = listAsJson();

    EXPECT_EQ(list.at(0).at("size"), 8);
    EXPECT_EQ(list.at(1).at("size"), 5);
}

TEST_F(OpctextList, TakesAPartWithoutAnyLineForEmpty) {
    folder.write("p.txt", Begin + "__ZKOPC_PART_BEGIN__ /none\n" + ContentTypes + End);

    EXPECT_THAT(run({"list", "p.txt"}), succeeds("/none                 text    0\n"
                                                 "/[Content_Types].xml  text    8\n"));
}

TEST_F(OpctextList, GivesNothingForAPackageWithoutParts) {
    folder.write("p.txt", Begin + "\n\n" + End);

    EXPECT_THAT(run({"list", "p.txt"}), succeeds(""));
    EXPECT_THAT(run({"list", "--json", "p.txt"}), succeeds("[]\n"));
}

TEST_F(OpctextList, ReadsNothingAfterTheEndLine) {
    folder.write("p.txt", Begin + ContentTypes + End + "__ZKOPC_PART_BEGIN__ /after\nx\n" + End);

    EXPECT_THAT(run({"list", "-1", "p.txt"}), succeeds("/[Content_Types].xml\n"));
}

TEST_F(OpctextList, ShowsTheCompletePartsOfAFileThatIsCutOffAndNamesTheOther) {
    std::string const message = "opctext: p.txt: the package-end line is missing: the file is cut off in part /a.xml, "
                                "which counts as missing\n";
    auto const whole = packageText(openingParts());
    for (std::string const rest : {"__ZKOPC_PACKAGE_END__\n", "\n__ZKOPC_PACKAGE_END__\n", "GE_END__\n"}) {
        SCOPED_TRACE(rest);
        folder.write("p.txt", whole.substr(0, whole.size() - rest.size()));

        EXPECT_THAT(run({"list", "p.txt"}), ends(3,
                                                 "/[Content_Types].xml  text     8\n"
                                                 "/_rels/.rels          text    16\n",
                                                 message));
        EXPECT_THAT(run({"list", "-1", "p.txt"}), ends(3, "/[Content_Types].xml\n/_rels/.rels\n", message));
        EXPECT_EQ(listAsJson().size(), 2U);
    }
}

TEST_F(OpctextList, SaysThatAFileIsCutOffBeforeItsFirstPart) {
    folder.write("p.txt", "__ZKOPC_PACKAGE_BEGIN__");

    EXPECT_THAT(run({"list", "p.txt"}),
                fails(3, "opctext: p.txt: the package-end line is missing: the file is cut off\n"));
}

TEST_F(OpctextList, NamesTheLineOfWhatIsMalformed) {
    struct Case {
        std::string file;
        std::string message;
    };
    std::vector<Case> const cases{
        {"no marker\n", "line 1: Reached end of file without finding ZKOPC_PACKAGE_BEGIN marker"},
        {headerOfLines(22) + "\n" + Begin, "line 22: Didn't find ZKOPC_PACKAGE_BEGIN marker"},
        {headerOfLines(21) + "\n" + Begin + "no part\n", "line 23: Didn't find ZKOPC_PART_BEGIN marker"},
        {Begin + "\n\nno part\n", "line 4: Didn't find ZKOPC_PART_BEGIN marker"},
        {Begin + ContentTypes + "__ZKOPC_PART_BEGIN__\n" + End, "line 4: a part begins here, but its name is missing"},
        {Begin + ContentTypes + "__ZKOPC_PART_BEGIN__ /\xFF\n" + End,
         "line 4: Ill-formed UTF-8 at byte 1 of \"/\xEF\xBF\xBD\""},
        {Begin + ContentTypes + "__ZKOPC_PART_BEGIN__ /b BASE64\nAAAA\nAA!A\n" + End,
         "line 6: Unable to decode Base64: a character outside the alphabet (byte 2)"},
    };

    for (auto const& [file, message] : cases) {
        SCOPED_TRACE(message);
        folder.write("p.txt", file);

        EXPECT_THAT(run({"list", "p.txt"}), fails(3, "opctext: p.txt: " + message + "\n"));
        EXPECT_THAT(run({"info", "p.txt"}), fails(3, "opctext: p.txt: " + message + "\n"));
    }
}

class OpctextInfo : public testsupport::OpctextFixture {};

TEST_F(OpctextInfo, ShowsHeaderTagCountsSizesAndTheEndLine) {
    writePackage({{"/b.bin", base64Lines("bytes"), true}}, "Generated file.\n\n  Do not edit.");

    EXPECT_THAT(run({"info", "p.txt"}), succeeds("header:      3 lines\n"
                                                 "  | Generated file.\n"
                                                 "  | \n"
                                                 "  |   Do not edit.\n"
                                                 "release tag: V3508k\n"
                                                 "parts:       4 (3 text, 1 binary)\n"
                                                 "content:     33 bytes (28 text, 5 binary)\n"
                                                 "end line:    yes\n"));
}

TEST_F(OpctextInfo, SaysThatTheEndLineIsMissing) {
    folder.write("p.txt", Begin + ContentTypes);

    EXPECT_THAT(run({"info", "p.txt"}), succeeds("header:      0 lines\n"
                                                 "release tag: V3508k\n"
                                                 "parts:       1 (1 text, 0 binary)\n"
                                                 "content:     8 bytes (8 text, 0 binary)\n"
                                                 "end line:    missing: the file is cut off\n"));
}

TEST_F(OpctextInfo, ShowsWhateverTagTheFileHas) {
    struct Case {
        std::string tag;
        std::string shown;
    };
    std::vector<Case> const cases{
        {"", "none"},    {" ", "none"},           {" V1", "V1"}, {" two words", "two words"},
        {" V1\r", "V1"}, {"\x1B[0m", "\\x1B[0m"},
    };

    for (auto const& [tag, shown] : cases) {
        SCOPED_TRACE(shown);
        folder.write("p.txt", "__ZKOPC_PACKAGE_BEGIN__" + tag + "\n" + ContentTypes + End);

        EXPECT_THAT(run({"info", "p.txt"}).output, ::testing::HasSubstr("\nrelease tag: " + shown + "\nparts: "));
    }
}

TEST_F(OpctextInfo, ShowsControlCharactersOfTheHeaderAsNumbers) {
    writePackage({}, "a\x1B[2Jb");

    EXPECT_THAT(run({"info", "p.txt"}).output, ::testing::HasSubstr("  | a\\x1B[2Jb\n"));
}

} // namespace
