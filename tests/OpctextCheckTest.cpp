#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <tests/support/Base64Lines.hpp>
#include <tests/support/OpctextFixture.hpp>

namespace fs = std::filesystem;

using testsupport::base64Lines;
using testsupport::ends;
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

/// A package whose lines 1 to 7 are as they should be; the part lines given begin at line 8.
std::string withParts(std::string const& lines) {
    auto text = packageText(openingParts());
    return text.insert(text.size() - End.size(), lines);
}

/// A package file and what check says to it: each line of `findings` after "p.txt:".
struct Case {
    std::string file;
    std::vector<std::string> findings;
};

class OpctextCheck : public testsupport::OpctextFixture {
protected:
    /// Checks each file, which makes the program exit with `status`, and with `strictStatus` where it is to be strict.
    void expectFindings(std::vector<Case> const& cases, int status, int strictStatus) const {
        for (auto const& [file, findings] : cases) {
            SCOPED_TRACE(file);
            folder.write("p.txt", file);
            std::string output;
            for (auto const& finding : findings)
                output += "p.txt:" + finding + "\n";

            EXPECT_THAT(run({"check", "p.txt"}), ends(status, output, ""));
            EXPECT_THAT(run({"check", "--strict", "p.txt"}), ends(strictStatus, output, ""));
            EXPECT_EQ(package(), file);
        }
    }
};

TEST_F(OpctextCheck, SaysNothingOfWhatIsFine) {
    expectFindings(
        {
            {packageText(openingParts()), {}},
            {packageText(openingParts(), headerOfLines(21)), {}},
            {packageText({{"/[Content_Types].xml", "<Types/>"}}), {}},
            {"__ZKOPC_PACKAGE_BEGIN__\n\n\n" + ContentTypes + "__ZKOPC_PACKAGE_END__", {}},
            {withParts("__ZKOPC_PART_BEGIN__ /crlf\none\r\ntwo\r\n\r\n\n"), {}},
            {withParts("__ZKOPC_PART_BEGIN__ /empty BASE64\n\n"), {}},
            {withParts("__ZKOPC_PART_BEGIN__ /none BASE64\n"), {}},
            {withParts("__ZKOPC_PART_BEGIN__ /b BASE64\n" + base64Lines(mixedBytes(57)) + "\n"), {}},
            {withParts("__ZKOPC_PART_BEGIN__ /b BASE64\n" + base64Lines(mixedBytes(1000)) + "\n"), {}},
            {withParts("__ZKOPC_PART_BEGIN__ /rst\nTitle\n=======\n"), {}},
            {packageText({{"/[Content_Types].xml", "<Types/>"},
                          {"/_rels/.rels", "x"},
                          {"/Metadata/b", "x"},
                          {"/metadata/c", "x"},
                          {"/A", "x"},
                          {"/b", "x"}}),
             {}},
        },
        0, 0);
}

TEST_F(OpctextCheck, FindsThatMarkersAreMissing) {
    expectFindings(
        {
            {"no marker\n", {" error: no package-begin line"}},
            {headerOfLines(22) + "\n" + Begin + ContentTypes + End,
             {"22: error: no package-begin line among the first 22 lines"}},
            {Begin + ContentTypes,
             {" error: no part /[Content_Types].xml",
              "3: error: the package-end line is missing: part /[Content_Types].xml is cut off and counts as missing"}},
            {Begin + "no part\n" + ContentTypes + End,
             {"2: error: this line stands before the first part-begin line; a package with it can't be opened"}},
            {Begin + ContentTypes + "__ZKOPC_PART_BEGIN__\nx\n" + End,
             {"4: error: a part begins here, but its name is missing"}},
        },
        1, 1);
}

TEST_F(OpctextCheck, FindsThatThereIsNoContentTypesPart) {
    expectFindings(
        {
            {packageText({{"/a.xml", "<a/>"}}), {" error: no part /[Content_Types].xml"}},
            {packageText({{"/[content_types].xml", "<Types/>"}}),
             {" error: no part /[Content_Types].xml; /[content_types].xml differs from it in letter case"}},
        },
        1, 1);
}

TEST_F(OpctextCheck, FindsNamesThatAreRepeated) {
    expectFindings(
        {
            {withParts("__ZKOPC_PART_BEGIN__ /a.xml\nagain\n"), {"8: error: part /a.xml was there before, at line 6"}},
            {withParts("__ZKOPC_PART_BEGIN__ /A.XML\nagain\n"),
             {"8: error: part /A.XML was there before, at line 6, in other letter case"}},
        },
        1, 1);
}

TEST_F(OpctextCheck, FindsNamesThatTheFormatOrAFileSystemCanNotHold) {
    struct Name {
        std::string line; // after the marker
        std::string finding;
    };
    std::vector<Name> const names{
        {" b", "part b: a part name begins with \"/\""},
        {" /b c", "the part name ends at its first space, and what follows, \"c\", is not BASE64"},
        {" /b base64", "the part name ends at its first space, and what follows, \"base64\", is not BASE64"},
        {" /b BASE64 ", "the part name ends at its first space, and what follows, \"BASE64 \", is not BASE64"},
        {" /b\rc", "part /b\\x0Dc: a part name must not hold a line break"},
        {" /[trash]/0000.dat",
         "part /[trash]/0000.dat: a part whose name begins with \"/[trash]\" is dropped when a package is read"},
        {" /", "part /: Not a usable part name: \"/\": it is empty"},
        {" /b/", "part /b/: Not a usable part name: \"/b/\": it has an empty segment"},
        {" /b//c", "part /b//c: Not a usable part name: \"/b//c\": it has an empty segment"},
        {" /b/./c", "part /b/./c: Not a usable part name: \"/b/./c\": it has a dot segment"},
        {" /b/../../c", "part /b/../../c: Not a usable part name: \"/b/../../c\": it has a dot segment"},
        {" /b/..", "part /b/..: Not a usable part name: \"/b/..\": it has a dot segment"},
        {" /b\xFF", "part /b\xFF: Ill-formed UTF-8 at byte 2 of \"/b\xEF\xBF\xBD\""},
    };

    for (auto const& [line, finding] : names)
        expectFindings(
            {{Begin + ContentTypes + "__ZKOPC_PART_BEGIN__" + line + "\nx\n" + End, {"4: error: " + finding}}}, 1, 1);
}

TEST_F(OpctextCheck, FindsAPartThatIsTheFolderOfAnother) {
    expectFindings(
        {
            {withParts("__ZKOPC_PART_BEGIN__ /b\nx\n__ZKOPC_PART_BEGIN__ /B/c/d\nx\n"),
             {"10: error: part /B/c/d lies in a folder that is a part itself, /b, at line 8; no file system can hold "
              "both"}},
        },
        1, 1);
}

TEST_F(OpctextCheck, FindsEachPairOfPartsOfWhichOneIsTheFolderOfTheOther) {
    std::string const end = "; no file system can hold both";
    expectFindings(
        {
            {withParts("__ZKOPC_PART_BEGIN__ /b\nx\n__ZKOPC_PART_BEGIN__ /b.c\nx\n__ZKOPC_PART_BEGIN__ /b/c\nx\n"
                       "__ZKOPC_PART_BEGIN__ /b/c/d\nx\n__ZKOPC_PART_BEGIN__ /bc\nx\n"),
             {"12: error: part /b/c lies in a folder that is a part itself, /b, at line 8" + end,
              "14: error: part /b/c/d lies in a folder that is a part itself, /b, at line 8" + end,
              "14: error: part /b/c/d lies in a folder that is a part itself, /b/c, at line 12" + end}},
        },
        1, 1);
}

TEST_F(OpctextCheck, TakesNoPartWithoutANameForTheFolderOfOthers) {
    folder.write("p.txt", withParts("__ZKOPC_PART_BEGIN__  \nx\n"));

    EXPECT_THAT(run({"check", "p.txt"}).output, testing::Not(testing::HasSubstr("lies in a folder")));
}

TEST_F(OpctextCheck, FindsLinesAfterTheEndAndReportsThemOnce) {
    std::string const finding =
        "9: error: there are lines after the package-end line, which nothing reads and an edit would lose";
    auto const text = packageText(openingParts());
    expectFindings({{text + "x", {finding}}, {text + "\n", {finding}}, {text + "x\ny\nz\n", {finding}}}, 1, 1);
    expectFindings({{text + text, {finding}}}, 1, 1);
}

TEST_F(OpctextCheck, FindsBase64ThatDoesNotDecodeOncePerPart) {
    expectFindings(
        {
            {withParts("__ZKOPC_PART_BEGIN__ /b BASE64\nAAAA\nAA!A\nAA!A\n__ZKOPC_PART_BEGIN__ /c BASE64\n-\n"),
             {"10: error: Unable to decode Base64: a character outside the alphabet (byte 2)",
              "13: error: Unable to decode Base64: a character outside the alphabet (byte 0)"}},
        },
        1, 1);
}

TEST_F(OpctextCheck, FindsConflictMarkersThatAMergeLeftBehind) {
    std::string const message = ": error: a conflict marker that a merge left behind";
    std::string const conflict = "<<<<<<< ours\n||||||| base\n=======\n>>>>>>> theirs\n";
    expectFindings(
        {
            {withParts("__ZKOPC_PART_BEGIN__ /b\n" + conflict),
             {"9" + message, "10" + message, "11" + message, "12" + message}},
            {withParts("__ZKOPC_PART_BEGIN__ /b\r\n" + withCrLf("<<<<<<< ours\n=======\n>>>>>>> theirs\n")),
             {"8: warning: marker lines end in CR LF", "9" + message, "10" + message, "11" + message}},
            {conflict + packageText(openingParts()), {"1" + message, "2" + message, "3" + message, "4" + message}},
        },
        1, 1);
}

TEST_F(OpctextCheck, FindsAHeaderThatIsNotInUtf8) {
    expectFindings({{"ok\n\xFF\n" + packageText(openingParts()), {"2: error: the header is not in UTF-8"}}}, 1, 1);
}

TEST_F(OpctextCheck, FindsBase64ThatHidesAMarker) {
    expectFindings({{withParts("__ZKOPC_PART_BEGIN__ /b BASE64\n" + base64Lines("x__ZKOPC_PAx") + "\n"),
                     {"9: error: no package can hand out this Base64 line: it hides a marker"}}},
                   1, 1);
}

TEST_F(OpctextCheck, SaysNothingOfAMarkerThatBase64LinesHideBetweenThemSinceThePartCanBeRead) {
    auto const content = std::string(50, 'x') + "__ZKOPC_PAx"; // begins in the first line, ends in the second
    folder.write("p.txt", withParts("__ZKOPC_PART_BEGIN__ /b BASE64\n" + base64Lines(content) + "\n"));

    EXPECT_THAT(run({"check", "p.txt"}), succeeds());
    EXPECT_THAT(run({"cat", "p.txt", "/b"}), succeeds(content));
}

TEST_F(OpctextCheck, WarnsOfPartsOutOfTheWrittenOrder) {
    auto const finding = [](std::string const& line, std::string const& name) {
        return line + ": warning: part " + name +
               " stands behind parts that a writer puts after it; a reader that stops early may miss it";
    };
    expectFindings(
        {
            {withParts("__ZKOPC_PART_BEGIN__ /A\nx\n"), {finding("8", "/A")}},
            {withParts("__ZKOPC_PART_BEGIN__ /METADATA/x\nx\n"), {finding("8", "/METADATA/x")}},
            {packageText({{"/a.xml", "<a/>"}, {"/_rels/.rels", "x"}, {"/[Content_Types].xml", "<Types/>"}}),
             {finding("4", "/_rels/.rels"), finding("6", "/[Content_Types].xml")}},
        },
        0, 1);
}

TEST_F(OpctextCheck, WarnsOncePerPartOfBase64ThatIsNotCutAt76) {
    std::string const message = ": warning: the Base64 of this part is not cut into lines of 76 characters";
    std::string const line75(72, 'A');
    std::string const line80(80, 'A');
    expectFindings(
        {
            {withParts("__ZKOPC_PART_BEGIN__ /b BASE64\n" + line75 + "\nAAAA\nAAAA\n"), {"10" + message}},
            {withParts("__ZKOPC_PART_BEGIN__ /b BASE64\n" + line80 + "\n" + line80 + "\n"), {"9" + message}},
            {withParts("__ZKOPC_PART_BEGIN__ /b BASE64\nAAAA\n\n"), {"10" + message}},
            {withParts("__ZKOPC_PART_BEGIN__ /b BASE64\n" + line80 + "\n__ZKOPC_PART_BEGIN__ /c BASE64\n" + line80 +
                       "\n"),
             {"9" + message, "11" + message}},
        },
        0, 1);
}

TEST_F(OpctextCheck, WarnsOfCrLfOnMarkerAndBase64Lines) {
    expectFindings(
        {
            {withCrLf(packageText(openingParts())), {"1: warning: marker lines end in CR LF"}},
            {Begin + ContentTypes + "__ZKOPC_PACKAGE_END__\r\n", {"4: warning: marker lines end in CR LF"}},
            {withParts("__ZKOPC_PART_BEGIN__ /b BASE64\n" + withCrLf(base64Lines(mixedBytes(200)) + "\n")),
             {"9: warning: Base64 lines end in CR LF"}},
        },
        0, 1);
}

TEST_F(OpctextCheck, WarnsOfTextThatIsNotInUtf8OncePerPart) {
    expectFindings({{withParts("__ZKOPC_PART_BEGIN__ /b\nok\n\xC3\n\xFF\n"),
                     {"10: warning: the text of part /b is not in UTF-8"}}},
                   0, 1);
}

TEST_F(OpctextCheck, WarnsOfTextThatLooksLikeAMarker) {
    expectFindings({{withParts("__ZKOPC_PART_BEGIN__ /b\n__ZKOPC_PACKAGE_END__ \n"),
                     {"9: warning: this line begins like a marker line, but is none"}}},
                   0, 1);
}

TEST_F(OpctextCheck, ReportsAllThatIsWrongInTheOrderOfTheLines) {
    folder.write("p.txt", withParts("__ZKOPC_PART_BEGIN__ /A/x\n\xFF\n__ZKOPC_PART_BEGIN__ /a\n"
                                    "<<<<<<< ours\n__ZKOPC_PART_BEGIN__ /b BASE64\n!\n"));

    EXPECT_THAT(run({"check", "p.txt"}),
                ends(1,
                     "p.txt:8: error: part /A/x lies in a folder that is a part itself, /a, at line 10; no file system "
                     "can hold both\n"
                     "p.txt:9: warning: the text of part /A/x is not in UTF-8\n"
                     "p.txt:10: warning: part /a stands behind parts that a writer puts after it; a reader that stops "
                     "early may miss it\n"
                     "p.txt:11: error: a conflict marker that a merge left behind\n"
                     "p.txt:13: error: Unable to decode Base64: a character outside the alphabet (byte 0)\n",
                     ""));
}

TEST_F(OpctextCheck, ShowsControlCharactersOfNamesAsNumbers) {
    folder.write("p.txt", withParts("__ZKOPC_PART_BEGIN__ /b\x1B[2J/\nx\n"));

    EXPECT_THAT(run({"check", "p.txt"}).output, ::testing::Not(::testing::HasSubstr("\x1B")));
}

TEST_F(OpctextCheck, GivesMachinesAnArrayOfFindings) {
    folder.write("p.txt", withParts("__ZKOPC_PART_BEGIN__ /b/\n\xFF\n"));
    folder.write("q.txt", packageText({{"/a", "\"quoted\""}}));

    auto const result = run({"check", "--json", "p.txt", "q.txt"});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors, "");
    EXPECT_EQ(nlohmann::json::parse(result.output), nlohmann::json::parse(R"([
        {"file": "p.txt", "line": 8, "severity": "error",
         "message": "part /b/: Not a usable part name: \"/b/\": it has an empty segment"},
        {"file": "p.txt", "line": 9, "severity": "warning", "message": "the text of part /b/ is not in UTF-8"},
        {"file": "q.txt", "line": 0, "severity": "error", "message": "no part /[Content_Types].xml"}])"));
}

TEST_F(OpctextCheck, GivesMachinesWellFormedUtf8WhateverTheFileHolds) {
    folder.write("p.txt", withParts("__ZKOPC_PART_BEGIN__ /b\xFF\nx\n"));

    auto const result = run({"check", "--json", "p.txt"});

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(nlohmann::json::parse(result.output).at(0).at("line"), 8);
}

TEST_F(OpctextCheck, GivesMachinesAnEmptyArrayForWhatIsFine) {
    writePackage();

    EXPECT_THAT(run({"check", "--json", "p.txt"}), succeeds("[]\n"));
    EXPECT_THAT(run({"check", "--json", "--strict", "p.txt"}), succeeds("[]\n"));
}

TEST_F(OpctextCheck, ChecksSeveralFiles) {
    writePackage();
    folder.write("bad.txt", Begin);
    folder.write("worse.txt", "x");

    EXPECT_THAT(run({"check", "worse.txt", "p.txt", "bad.txt"}),
                ends(1,
                     "worse.txt: error: no package-begin line\n"
                     "bad.txt: error: no part /[Content_Types].xml\n"
                     "bad.txt:1: error: the package-end line is missing\n",
                     ""));
}

TEST_F(OpctextCheck, ChecksTheOtherFilesWhereOneCanNotBeRead) {
    folder.write("bad.txt", packageText({{"/a", "x"}}));

    EXPECT_THAT(run({"check", "gone.txt", "bad.txt", "."}), ends(4, "bad.txt: error: no part /[Content_Types].xml\n",
                                                                 "opctext: gone.txt: there is no such file\n"
                                                                 "opctext: .: this is a folder or a device, not a "
                                                                 "file\n"));
}

TEST_F(OpctextCheck, ChecksTheOtherFilesWhereOneIsNoPackage) {
    folder.write("bad.txt", packageText({{"/a", "x"}}));
    folder.write("empty.txt", "");

    EXPECT_THAT(run({"check", "empty.txt", "bad.txt"}),
                ends(3, "bad.txt: error: no part /[Content_Types].xml\n", "opctext: empty.txt: the file is empty\n"));
}

TEST_F(OpctextCheck, TakesAFileNameInBracketsForTheNameThatItIs) {
    folder.write("[p.txt]", packageText(openingParts()));

    EXPECT_THAT(run({"check", "[p.txt]"}), succeeds());
}

class OpctextCheckCorpus : public OpctextCheck, public ::testing::WithParamInterface<fs::path> {};

INSTANTIATE_TEST_SUITE_P(EachPackage, OpctextCheckCorpus, ::testing::ValuesIn(testsupport::corpusPackages()),
                         testsupport::corpusTestName);

TEST_P(OpctextCheckCorpus, FindsNothingInRealPackages) {
    EXPECT_THAT(run({"check", "--strict", GetParam().string()}), succeeds());
}

} // namespace
