#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include <tests/support/Base64Lines.hpp>
#include <tests/support/FoldersInMemory.hpp>
#include <tests/support/OpctextFixture.hpp>
#include <tests/support/Permissions.hpp>
#include <tests/support/TracedProgram.hpp>
#include <tests/support/ZipFiles.hpp>

namespace fs = std::filesystem;

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Pair;
using ::testing::StartsWith;
using testsupport::base64Lines;
using testsupport::Deflated;
using testsupport::fails;
using testsupport::headerOfLines;
using testsupport::limitingFileSize;
using testsupport::limitingOpenFiles;
using testsupport::mixedBytes;
using testsupport::packageText;
using testsupport::PartText;
using testsupport::ProgramCall;
using testsupport::ProgramResult;
using testsupport::readZip;
using testsupport::Stored;
using testsupport::succeeds;
using testsupport::withCrLf;
using testsupport::zipBytes;
using testsupport::ZipLayout;
using testsupport::ZipMember;

namespace {

constexpr std::uint16_t FirstDate = 1 << 5 | 1; // 1980-01-01

std::string textWith(std::vector<PartText> const& more, std::string const& header = "") {
    std::vector<PartText> parts{{"/[Content_Types].xml", "<Types/>"}};
    parts.insert(parts.end(), more.begin(), more.end());
    return packageText(parts, header);
}

/// Tests of `opctext unpack`, most of them on one text package, "p.docx.txt".
class OpctextUnpack : public testsupport::OpctextFixture {
protected:
    void writeText(std::string const& text) const { folder.write("p.docx.txt", text); }

    ProgramResult unpack(std::vector<std::string> const& more = {}) const {
        std::vector<std::string> words{"unpack", "p.docx.txt"};
        words.insert(words.end(), more.begin(), more.end());
        return run(words);
    }

    ProgramResult unpackIn(std::map<std::string, std::string> const& environment) const {
        ProgramCall call;
        call.words = {"unpack", "p.docx.txt", "-o", "-"};
        call.environment = environment;
        return run(call);
    }

    testsupport::StoredZip unpacked() const { return readZip(folder.read("p.docx")); }

    /// Unpacks the text and packs the result; the text must come back.
    void expectTextComesBack(std::string const& text) const {
        writeText(text);

        auto const zip = unpack({"-o", "-"});
        EXPECT_THAT(zip, succeeds(zip.output));

        EXPECT_THAT(run({"pack", "-"}, zip.output), succeeds(text));
    }

    /// Packs the ZIP file and unpacks the result, neither with a word; returns the result.
    testsupport::StoredZip thereAndBack(std::string const& zip) const {
        auto const text = run({"pack", "-"}, zip);
        EXPECT_THAT(text, succeeds(text.output));
        auto const result = run({"unpack", "-"}, text.output);
        EXPECT_THAT(result, succeeds(result.output));
        return result.status == 0 ? readZip(result.output) : testsupport::StoredZip();
    }

    /// Unpacks what must be refused, and proves that nothing is made of it and that an earlier result stays.
    void expectRefused(std::string const& text, int status, std::string const& message) const {
        SCOPED_TRACE(message);
        writeText(text);

        EXPECT_THAT(unpack(), fails(status, message));
        EXPECT_THAT(folder.entries(), ElementsAre("p.docx.txt"));

        folder.write("p.docx", "the earlier result");
        EXPECT_THAT(unpack({"-f"}), fails(status, message));
        EXPECT_THAT(folder.entries(), ElementsAre("p.docx", "p.docx.txt"));
        EXPECT_EQ(folder.read("p.docx"), "the earlier result");
        fs::remove(folder / "p.docx");
    }
};

/// The same for tests of many runs.
class OpctextUnpackInMemory : private testsupport::FoldersInMemory, public OpctextUnpack {};

// real packages

class OpctextUnpackCorpus : public OpctextUnpack, public ::testing::WithParamInterface<fs::path> {};

TEST_P(OpctextUnpackCorpus, GivesBackEveryMember) {
    EXPECT_THAT(run({"pack", GetParam().string(), "-o", "p.docx.txt"}), succeeds());

    EXPECT_THAT(unpack(), succeeds());

    auto const zip = folder.read("p.docx");
    auto const original = readZip(testsupport::readFile(GetParam()));
    EXPECT_EQ(testsupport::faultOfZip(zip), "");
    EXPECT_TRUE(readZip(zip).contents() == original.contents()) << "not the members of the original";
    EXPECT_EQ(readZip(zip).members.size(), original.contents().size());
    EXPECT_EQ(readZip(zip).comment, original.comment);
}

TEST_P(OpctextUnpackCorpus, MakesAZipFileThatPacksToTheSameText) {
    EXPECT_THAT(run({"pack", GetParam().string(), "-o", "p.docx.txt"}), succeeds());
    EXPECT_THAT(unpack(), succeeds());

    EXPECT_THAT(run({"pack", "p.docx", "-o", "again.txt"}), succeeds());

    EXPECT_TRUE(folder.read("again.txt") == folder.read("p.docx.txt")) << "another text";
}

INSTANTIATE_TEST_SUITE_P(Each, OpctextUnpackCorpus,
                         ::testing::ValuesIn(testsupport::zipFilesIn(TEST_DATA_FOLDER "/corpus")),
                         testsupport::corpusTestName);

TEST_F(OpctextUnpack, GivesBackTheTextOfEveryRealPackageInTextForm) {
    for (auto const& file : testsupport::corpusPackages()) {
        SCOPED_TRACE(file);
        EXPECT_THAT(run({"unpack", file.string(), "-f", "-o", "p.docx"}), succeeds());

        EXPECT_THAT(run({"pack", "p.docx", "-f", "-o", "p.txt"}), succeeds());

        EXPECT_TRUE(package() == testsupport::readFile(file)) << "another text";
    }
}

// what becomes of the parts

TEST_F(OpctextUnpack, WritesBesideTheInputUnderItsNameWithoutTxt) {
    writeText(textWith({{"/a.xml", "<a/>"}}));

    EXPECT_THAT(unpack(), succeeds());

    EXPECT_THAT(unpacked().contents(), ElementsAre(Pair("[Content_Types].xml", "<Types/>"), Pair("a.xml", "<a/>")));
    EXPECT_THAT(folder.entries(), ElementsAre("p.docx", "p.docx.txt"));
}

TEST_F(OpctextUnpack, LeavesTheInputAsItWas) {
    writeText(textWith({{"/a.xml", "<a/>"}}));

    EXPECT_THAT(unpack(), succeeds());

    EXPECT_EQ(folder.read("p.docx.txt"), textWith({{"/a.xml", "<a/>"}}));
}

TEST_F(OpctextUnpack, AsksForTheNameOfTheOutputWhereTheInputDoesNotTell) {
    folder.write("package", textWith({}));
    folder.write(".txt", textWith({}));

    EXPECT_THAT(run({"unpack", "package"}),
                fails(2, "opctext: package: its name does not end in .txt; -o names the output\n"));
    EXPECT_THAT(run({"unpack", ".txt"}),
                fails(2, "opctext: .txt: its name does not end in .txt; -o names the output\n"));
    EXPECT_THAT(folder.entries(), ElementsAre(".txt", "package"));

    EXPECT_THAT(run({"unpack", "package", "-o", "p.zip"}), succeeds());
    EXPECT_THAT(folder.entries(), ElementsAre(".txt", "p.zip", "package"));
}

TEST_F(OpctextUnpack, GivesBackEveryByteOfThePackedContents) {
    std::vector<std::string> const contents{
        "",
        "\n",
        "\r",
        "\r\n",
        "\n\n",
        "no line break",
        "ends in LF\n",
        "ends in CR LF\r\n",
        "ends in CR\r",
        "<?xml version=\"1.0\"?>\r\n<a/>",
        "lone\rCR",
        "\xEF\xBB\xBF<bom/>",
        "größe, дом, 大, \xF0\x9F\x98\x80",
        std::string("\xFF\xFE<\0a\0/\0>\0", 10),
        std::string("\xFE\xFF\0<\0a\0/\0>", 10),
        std::string(1, '\0'),
        mixedBytes(57),
        mixedBytes(58),
        mixedBytes(300000),
        std::string(300000, 'x'),
    };
    std::vector<ZipMember> members{{"[Content_Types].xml", "<Types/>"}};
    for (auto const& content : contents)
        members.push_back({"m" + std::to_string(100 + members.size()), content});

    auto const zip = thereAndBack(zipBytes(members));

    EXPECT_TRUE(zip.contents() == readZip(zipBytes(members)).contents());
}

TEST_F(OpctextUnpackInMemory, GivesBackTheNamesOfPackedMembers) {
    std::vector<std::string> const names{
        "a b.xml",
        "a\rb",
        "a\nb",
        "\x01\x1F",
        "\x7F",
        "\xC2\x85",
        "gr\xF6\xDF"
        "e",
        "\xC0\xAF",
        "\xED\xA0\x80",
        "cut\xE5\xA4",
        "%20",
        "%zz",
        "%2",
        "%2e%2e/x",
        "%00",
        "größe/дом/大\xF0\x9F\x98\x80.xml",
        "a+b&c;d='e'!@#$^(~).xml",
        "__ZKOPC_PART_BEGIN__",
    };
    for (auto const& name : names) {
        SCOPED_TRACE(name);
        auto const zip = thereAndBack(zipBytes({{"[Content_Types].xml", "<Types/>"}, {name, "content"}}));

        EXPECT_THAT(zip.names(), ElementsAre("[Content_Types].xml", name));
    }
}

TEST_F(OpctextUnpack, FlagsNamesAsUtf8WhereTheyAre) {
    writeText(textWith({{"/a.xml", "1"}, {"/größe.xml", "2"}, {"/gr%F6%DFe.xml", "3"}}));

    EXPECT_THAT(unpack(), succeeds());

    std::map<std::string, bool> isUtf8;
    for (auto const& member : unpacked().members)
        isUtf8[member.name] = (member.flags & testsupport::Utf8Flag) != 0;
    EXPECT_TRUE(isUtf8.at("größe.xml"));
    EXPECT_FALSE(isUtf8.at("gr\xF6\xDF"
                           "e.xml"));
}

TEST_F(OpctextUnpack, PutsContentTypesFirstAndTheRestInTheOrderOfTheText) {
    writeText(packageText({{"/z.xml", "z"},
                           {"/_rels/.rels", "<Relationships/>"},
                           {"/[Content_Types].xml", "<Types/>"},
                           {"/a.xml", "a"}}));

    EXPECT_THAT(unpack(), succeeds());

    EXPECT_THAT(unpacked().names(), ElementsAre("[Content_Types].xml", "z.xml", "_rels/.rels", "a.xml"));
}

TEST_F(OpctextUnpack, DeflatesTextAndWhatShrinks) {
    writeText(textWith({{"/binary-that-shrinks", base64Lines(std::string(1000, '\0')), true},
                        {"/binary-without-pattern", base64Lines(testsupport::deflated(mixedBytes(900))), true},
                        {"/empty-binary", "", true},
                        {"/empty-text", ""},
                        {"/text", std::string(1000, 'x')},
                        {"/text-of-one-byte", "x"}}));

    EXPECT_THAT(unpack(), succeeds());

    std::map<std::string, std::uint16_t> methods;
    for (auto const& member : unpacked().members)
        methods[member.name] = member.method;
    EXPECT_THAT(methods,
                ElementsAre(Pair("[Content_Types].xml", Deflated), Pair("binary-that-shrinks", Deflated),
                            Pair("binary-without-pattern", Stored), Pair("empty-binary", Stored),
                            Pair("empty-text", Stored), Pair("text", Deflated), Pair("text-of-one-byte", Deflated)));
}

TEST_F(OpctextUnpack, TakesMoreBinaryPartsThanAProcessMayHaveFilesOpen) {
    std::vector<PartText> parts;
    for (int i = 0; i < 100; ++i)
        parts.push_back({"/" + std::to_string(i) + ".bin", base64Lines("bytes\xFF"), true});
    writeText(textWith(parts));
    ProgramCall call;
    call.words = {"unpack", "p.docx.txt"};
    call.inChild = limitingOpenFiles(50);

    EXPECT_THAT(run(call), succeeds());
    EXPECT_EQ(readZip(folder.read("p.docx")).members.size(), 101U);
}

TEST_F(OpctextUnpack, WritesNoExtraFieldsNoCommentsNoFoldersAndTheFirstDate) {
    writeText(textWith({{"/größe/tief/a.xml", "1"}, {"/b.bin", base64Lines(mixedBytes(100)), true}}));

    EXPECT_THAT(unpack(), succeeds());

    EXPECT_EQ(unpacked().members.size(), 3U);
    for (auto const& member : unpacked().members) {
        SCOPED_TRACE(member.name);
        EXPECT_EQ(member.date, FirstDate);
        EXPECT_EQ(member.time, 0);
        EXPECT_EQ(member.extra, "");
        EXPECT_EQ(member.localExtra, "");
        EXPECT_EQ(member.comment, "");
    }
    EXPECT_EQ(testsupport::faultOfZip(folder.read("p.docx")), "");
}

TEST_F(OpctextUnpack, SpellsTheContentTypesPartAsTheZipFileDid) {
    std::vector<ZipMember> const members{{"[content_types].XML", "<Types/>"}, {"a.xml", "a"}};

    auto const zip = thereAndBack(zipBytes(members));

    EXPECT_THAT(zip.names(), ElementsAre("[content_types].XML", "a.xml"));
    EXPECT_EQ(zip.comment, "");
}

TEST_F(OpctextUnpack, LeavesOutContentTypesThatTheZipFileHadNone) {
    ZipLayout layout;
    layout.comment = "a comment";
    folder.write("p.docx", zipBytes({{"a.xml", "a"}}, layout));
    EXPECT_EQ(run({"pack", "--force", "p.docx"}).status, 0);

    EXPECT_THAT(unpack({"-f"}), succeeds());

    EXPECT_THAT(unpacked().names(), ElementsAre("a.xml"));
    EXPECT_EQ(unpacked().comment, "a comment");
}

TEST_F(OpctextUnpack, WritesContentTypesThatSomebodyHasWrittenSince) {
    writeText(packageText({{"/[Content_Types].xml", "<Types/>"}, {"/a.xml", "a"}},
                          "opctext: in the ZIP file there is no content types part"));

    EXPECT_THAT(unpack(), succeeds());

    EXPECT_THAT(unpacked().names(), ElementsAre("[Content_Types].xml", "a.xml"));
}

TEST_F(OpctextUnpack, ReadsTextPackagesWithCrLfLineBreaks) {
    writeText(withCrLf(textWith({{"/a.xml", "1\n2"}, {"/b.bin", base64Lines(mixedBytes(100)), true}})));

    EXPECT_THAT(unpack(), succeeds());

    EXPECT_THAT(unpacked().contents(), ElementsAre(Pair("[Content_Types].xml", "<Types/>"), Pair("a.xml", "1\r\n2"),
                                                   Pair("b.bin", mixedBytes(100))));
}

// the header

TEST_F(OpctextUnpack, MakesTheHeaderTheComment) {
    writeText(textWith({}, "größe\nand more"));

    EXPECT_THAT(unpack(), succeeds());

    EXPECT_EQ(unpacked().comment, "größe\nand more");
}

TEST_F(OpctextUnpack, GivesBackTheCommentOfAZipFile) {
    for (std::string const comment :
         {"one line", "two\nlines", "CR LF\r\nlines", "ends in LF\n", "ends in two\n\n", " ", "größe",
          "control \x01\f\x7F characters", "opctext: in the ZIP file there is no content types part",
          "opctext: in the ZIP file the content types part is called word/document.xml", "a\nopctext: of mine"}) {
        SCOPED_TRACE(comment);
        ZipLayout layout;
        layout.comment = comment;

        auto const zip = thereAndBack(zipBytes({{"[Content_Types].xml", "<Types/>"}, {"a.xml", "a"}}, layout));

        EXPECT_EQ(zip.comment, comment);
        EXPECT_THAT(zip.names(), ElementsAre("[Content_Types].xml", "a.xml"));
    }
}

TEST_F(OpctextUnpack, GivesBackACommentWithoutContentTypesOrWithOthersInCase) {
    ZipLayout layout;
    layout.comment = "a\ncomment\n";

    auto const zip = thereAndBack(zipBytes({{"[CONTENT_TYPES].xml", "<Types/>"}}, layout));

    EXPECT_EQ(zip.comment, layout.comment);
    EXPECT_THAT(zip.names(), ElementsAre("[CONTENT_TYPES].xml"));
}

TEST_F(OpctextUnpack, KeepsTheHeaderOfATextPackageForTheWayBack) {
    for (auto const& header : {std::string("one line"), std::string("two\nlines"), std::string("an empty line\n"),
                               std::string("CR LF\r\nlines"), headerOfLines(19), headerOfLines(20)})
        expectTextComesBack(textWith({{"/a.xml", "a"}}, header));
}

TEST_F(OpctextUnpack, KeepsAHeaderThatBeginsWithAnEmptyLine) {
    expectTextComesBack(textWith({}, "\nsecond line"));
    expectTextComesBack(textWith({}, "\n\nthird line"));
}

TEST_F(OpctextUnpack, KeepsTheLongestHeaderThatAPackageMayHave) {
    expectTextComesBack(textWith({}, headerOfLines(21)));
}

TEST_F(OpctextUnpack, LeavesOutAHeaderThatIsTooLongForACommentAndSaysSo) {
    writeText(textWith({}, std::string(65536, 'x')));

    EXPECT_THAT(unpack(), fails(0, "opctext: p.docx.txt: the header is too long for the comment of a ZIP file and is "
                                   "left out\n"));

    EXPECT_EQ(unpacked().comment, "");

    writeText(textWith({}, std::string(65535, 'x')));
    EXPECT_THAT(unpack({"-f"}), succeeds());
    EXPECT_EQ(unpacked().comment, std::string(65535, 'x'));
}

// names that stand in the text package itself

TEST_F(OpctextUnpack, KeepsNamesWithPercentSignsForTheWayBack) {
    for (auto const* const name : {"/a%20b", "/a%2520b", "/100%25", "/%25zz", "/gr%F6%DFe.xml"})
        expectTextComesBack(textWith({{name, "content"}}));
}

TEST_F(OpctextUnpack, KeepsOrRefusesNamesThatPackWouldWriteOtherwise) {
    for (auto const* const name : {"/caf%C3%A9.xml", "/gr%f6%dfe.xml", "/%41.xml", "/50%.xml", "/%zz"}) {
        SCOPED_TRACE(name);
        auto const text = textWith({{name, "content"}});
        writeText(text);

        auto const zip = unpack({"-o", "-"});

        if (zip.status == 0) {
            EXPECT_THAT(run({"pack", "-"}, zip.output), succeeds(text));
        } else {
            EXPECT_THAT(zip.errors, StartsWith(std::string("opctext: p.docx.txt: part ") + name + ": "));
        }
    }
}

TEST_F(OpctextUnpack, RefusesNamesThatAreUnsafeOnceDecoded) {
    struct Case {
        std::string name;
        std::string reason;
    };
    std::vector<Case> const cases{
        {"/%2E%2E/x", "its name has the segment \"..\""},
        {"/a/%2e%2e/x", "its name has the segment \"..\""},
        {"/%2E/x", "its name has the segment \".\""},
        {"/%2Fetc/passwd", "its name is absolute"},
        {"/C%3A/x", "its name is absolute"},
        {"/a%5Cb", "its name holds a backslash"},
        {"/a%00.xml", "its name holds a NUL"},
        {"/a%2F%2Fb", "its name has an empty segment"},
        {"/a%2F", "its name has an empty segment"},
        {"/a%2F..%2Fx", "its name has the segment \"..\""},
    };

    for (auto const& [name, reason] : cases)
        expectRefused(textWith({{name, "content"}}), 6,
                      "opctext: p.docx.txt: part " + name + ": as a member of a ZIP file " + reason + "\n");
}

TEST_F(OpctextUnpack, RefusesNamesThatAreTheSameOnceDecoded) {
    expectRefused(textWith({{"/a", "1"}, {"/%61", "2"}}), 3,
                  "opctext: p.docx.txt: part /%61: in a ZIP file it would have the same name as part /a\n");
    expectRefused(textWith({{"/a", "1"}, {"/%41", "2"}}), 3,
                  "opctext: p.docx.txt: part /%41: in a ZIP file it would have the same name as part /a\n");
    expectRefused(textWith({{"/%5BContent_Types%5D.xml", "2"}}), 3,
                  "opctext: p.docx.txt: part /%5BContent_Types%5D.xml: in a ZIP file it would have the same name as "
                  "part /[Content_Types].xml\n");
}

TEST_F(OpctextUnpack, RefusesAPartThatIsTheFolderOfAnotherOnceDecoded) {
    for (auto const& text : {textWith({{"/%61", "1"}, {"/a/b", "2"}}), textWith({{"/a", "1"}, {"/a%2Fb", "2"}})}) {
        writeText(text);

        auto const result = unpack();

        EXPECT_EQ(result.status, 3);
        EXPECT_THAT(result.errors, StartsWith("opctext: p.docx.txt: part /"));
        EXPECT_FALSE(fs::remove(folder / "p.docx"));
        EXPECT_THAT(folder.entries(), ElementsAre("p.docx.txt"));
    }
}

// determinism

TEST_F(OpctextUnpack, WritesTheSameInEveryTimeZoneAndLocaleAndInEveryRun) {
    writeText(textWith({{"/größe.xml", "größe"}, {"/b.bin", base64Lines(mixedBytes(100)), true}}, "header"));
    auto const expected = unpackIn({});

    EXPECT_EQ(expected.status, 0);
    for (std::map<std::string, std::string> const& environment :
         std::vector<std::map<std::string, std::string>>{{},
                                                         {{"TZ", "Asia/Tokyo"}},
                                                         {{"TZ", "America/St_Johns"}},
                                                         {{"LC_ALL", "C"}},
                                                         {{"LC_ALL", "C.UTF-8"}},
                                                         {{"LC_ALL", "tr_TR.UTF-8"}},
                                                         {{"SOURCE_DATE_EPOCH", ""}}})
        EXPECT_TRUE(unpackIn(environment).output == expected.output)
            << (environment.empty() ? "" : environment.begin()->second);
}

TEST_F(OpctextUnpack, DatesMembersAsSourceDateEpochSaysInUtc) {
    struct Case {
        std::string epoch;
        std::uint16_t date;
        std::uint16_t time;
    };
    std::vector<Case> const cases{
        {"1700000001", (2023 - 1980) << 9 | 11 << 5 | 14, 22 << 11 | 13 << 5 | 20 / 2}, // 2023-11-14 22:13:21
        {"315532800", FirstDate, 0},                                                    // 1980-01-01 00:00:00
        {"315532799", FirstDate, 0},                                                    // too early for the format
        {"0", FirstDate, 0},
        {"4354819199", (2107 - 1980) << 9 | 12 << 5 | 31, 23 << 11 | 59 << 5 | 58 / 2}, // the last that it knows
        {"4354819200", FirstDate, 0},
    };
    writeText(textWith({{"/a.xml", "a"}}));

    for (auto const& [epoch, date, time] : cases) {
        SCOPED_TRACE(epoch);
        for (auto const* const zone : {"UTC", "Asia/Tokyo", "America/St_Johns"}) {
            auto const zip = unpackIn({{"SOURCE_DATE_EPOCH", epoch}, {"TZ", zone}});
            ASSERT_EQ(zip.status, 0) << zip;
            for (auto const& member : readZip(zip.output).members) {
                EXPECT_EQ(member.date, date);
                EXPECT_EQ(member.time, time);
            }
        }
    }
}

TEST_F(OpctextUnpack, RefusesASourceDateEpochThatIsNoNumber) {
    writeText(textWith({}));

    for (std::string const epoch : {"yesterday", "1e9", "12 ", "99999999999999999999999", " "}) {
        EXPECT_THAT(unpackIn({{"SOURCE_DATE_EPOCH", epoch}}),
                    fails(2, "opctext: SOURCE_DATE_EPOCH is no number of seconds: " + epoch + "\n"));
    }
    EXPECT_THAT(folder.entries(), ElementsAre("p.docx.txt"));
}

// refusals

TEST_F(OpctextUnpack, RefusesAZipFileAndSaysThatItIsOne) {
    expectRefused(zipBytes({{"[Content_Types].xml", "<Types/>"}}), 3,
                  "opctext: p.docx.txt: this is a ZIP file, not a package in text form\n");
}

TEST_F(OpctextUnpack, RefusesWhatIsNoPackage) {
    expectRefused("", 3, "opctext: p.docx.txt: the file is empty\n");
    expectRefused("plain text\n", 3,
                  "opctext: p.docx.txt: line 1: Reached end of file without finding ZKOPC_PACKAGE_BEGIN marker\n");
}

TEST_F(OpctextUnpack, RefusesAFileThatIsNotThere) {
    auto const result = unpack();

    EXPECT_EQ(result.status, 4);
    EXPECT_THAT(result.errors, StartsWith("opctext: p.docx.txt: "));
    EXPECT_THAT(folder.entries(), ElementsAre());
}

TEST_F(OpctextUnpack, RefusesDamagedTextPackages) {
    auto const whole = textWith({{"/a.xml", "<a/>"}});
    auto const begin = whole.substr(0, whole.find("__ZKOPC_PART_BEGIN__"));
    auto const withoutEnd = whole.substr(0, whole.find("__ZKOPC_PACKAGE_END__"));
    struct Case {
        std::string text;
        std::string message;
    };
    std::vector<Case> const cases{
        {withoutEnd,
         "p.docx.txt:5: error: the package-end line is missing: part /a.xml is cut off and counts as missing"},
        {withoutEnd + "__ZKOPC_PACKAGE_EN",
         "p.docx.txt:6: error: the package-end line is missing: part /a.xml is cut off and counts as missing"},
        {whole + "more\n", "p.docx.txt:7: error: there are lines after the package-end line, which nothing reads and "
                           "an edit would lose"},
        {whole + whole, "p.docx.txt:7: error: there are lines after the package-end line, which nothing reads and an "
                        "edit would lose"},
        {textWith({{"/a.xml", "1"}, {"/a.xml", "2"}}), "p.docx.txt:6: error: part /a.xml was there before, at line 4"},
        {textWith({{"/a", "1"}, {"/a/b", "2"}}), "p.docx.txt:6: error: part /a/b lies in a folder that is a part "
                                                 "itself, /a, at line 4; no file system can hold both"},
        {textWith({{"/a b.xml", "1"}}), "p.docx.txt:4: error: the part name ends at its first space, and what "
                                        "follows, \"b.xml\", is not BASE64"},
        {textWith({{"/[trash]/a.xml", "1"}}), "p.docx.txt:4: error: part /[trash]/a.xml: a part whose name begins "
                                              "with \"/[trash]\" is dropped when a package is read"},
    };

    for (auto const& [text, message] : cases)
        expectRefused(text, 3, "opctext: " + message + "\n");
    expectRefused(begin + "__ZKOPC_PACKAGE_END__\n", 3, "opctext: p.docx.txt: Content types stream does not exist\n");
    expectRefused(packageText({{"/a.xml", "<a/>"}}), 3, "opctext: p.docx.txt: Content types stream does not exist\n");
}

TEST_F(OpctextUnpack, RefusesNamesThatDifferInCaseOnly) {
    expectRefused(textWith({{"/a.xml", "1"}, {"/A.xml", "2"}}), 3,
                  "opctext: p.docx.txt: part /A.xml: in a ZIP file it would have the same name as part /a.xml\n");
}

TEST_F(OpctextUnpack, RefusesBadBase64) {
    for (auto const* const base64 : {"AAE", "AA*=", "A===", "AAE=AAE="}) {
        SCOPED_TRACE(base64);
        writeText(textWith({{"/b.bin", base64, true}}));

        auto const result = unpack();

        EXPECT_EQ(result.status, 3);
        EXPECT_THAT(result.errors, StartsWith("opctext: p.docx.txt: line 5: "));
        EXPECT_THAT(folder.entries(), ElementsAre("p.docx.txt"));
    }
}

// the output

TEST_F(OpctextUnpack, OverwritesNothingUnlessForced) {
    writeText(textWith({{"/a.xml", "<a/>"}}));
    folder.write("p.docx", "precious");

    EXPECT_THAT(unpack(), fails(4, "opctext: p.docx: exists already; -f overwrites it\n"));
    EXPECT_EQ(folder.read("p.docx"), "precious");
    EXPECT_THAT(folder.entries(), ElementsAre("p.docx", "p.docx.txt"));

    EXPECT_THAT(unpack({"-f"}), succeeds());
    EXPECT_THAT(unpacked().names(), ElementsAre("[Content_Types].xml", "a.xml"));
    EXPECT_THAT(folder.entries(), ElementsAre("p.docx", "p.docx.txt"));
}

TEST_F(OpctextUnpack, ReadsAndWritesStandardStreams) {
    auto const text = textWith({{"/a.xml", "<a/>"}});

    auto const zip = run({"unpack", "-"}, text);
    EXPECT_THAT(readZip(zip.output).contents(),
                ElementsAre(Pair("[Content_Types].xml", "<Types/>"), Pair("a.xml", "<a/>")));
    EXPECT_THAT(run({"unpack", "-", "-o", "-"}, text), succeeds(zip.output));
    EXPECT_THAT(folder.entries(), ElementsAre());

    EXPECT_THAT(run({"unpack", "-", "-o", "p.zip"}, text), succeeds());
    EXPECT_TRUE(folder.read("p.zip") == zip.output);
}

TEST_F(OpctextUnpack, WritesNothingToStandardOutputOfWhatItRefuses) {
    EXPECT_THAT(run({"unpack", "-"}, ""), fails(3, "opctext: -: the file is empty\n"));
    EXPECT_THAT(run({"unpack", "-"}, textWith({{"/a", "1"}, {"/%61", "2"}})),
                fails(3, "opctext: -: part /%61: in a ZIP file it would have the same name as part /a\n"));
}

TEST_F(OpctextUnpack, GivesTheOutputThePermissionsOfANewFile) {
    writeText(textWith({}));
    testsupport::Umask const mask(027);

    EXPECT_THAT(unpack(), succeeds());

    EXPECT_EQ(testsupport::permissionsOf(folder / "p.docx"), 0640U);
}

TEST_F(OpctextUnpack, NoticesWhatTheDiskHasChanged) {
    auto const why = testsupport::whyNotTraced();
    if (!why.empty())
        GTEST_SKIP() << why;
    writeText(textWith({{"/a.xml", "<a/>"}}, "the end"));

    testsupport::RunningProgram program(delayed("rename", 200000, {"unpack", "p.docx.txt"}));
    ASSERT_TRUE(testsupport::spoilHiddenFile(folder.path(), "the end", "PK\x03\x04"));
    auto const result = program.wait();

    EXPECT_NE(result.status, 0);
    EXPECT_EQ(result.errors, "opctext: p.docx.txt: member a.xml: its data are not where the directory says\n");
    EXPECT_THAT(folder.entries(), ElementsAre("p.docx.txt"));
}

TEST_F(OpctextUnpack, DoesNotLookWhatTheDiskHasChangedWhereItIsToldNotToVerify) {
    auto const why = testsupport::whyNotTraced();
    if (!why.empty())
        GTEST_SKIP() << why;
    writeText(textWith({{"/a.xml", "<a/>"}}, "the end"));

    testsupport::RunningProgram program(delayed("rename", 200000, {"unpack", "p.docx.txt", "--no-verify"}));
    ASSERT_TRUE(testsupport::spoilHiddenFile(folder.path(), "the end", "PK\x03\x04"));

    EXPECT_THAT(program.wait(), succeeds());
    EXPECT_NE(testsupport::faultOfZip(folder.read("p.docx")), "");
}

TEST_F(OpctextUnpack, GivesTheSameWithoutVerifying) {
    writeText(textWith({{"/a.xml", "<a/>"}}, "header"));
    EXPECT_THAT(unpack(), succeeds());
    auto const verified = folder.read("p.docx");

    EXPECT_THAT(unpack({"-f", "--no-verify"}), succeeds());

    EXPECT_TRUE(folder.read("p.docx") == verified);
}

TEST_F(OpctextUnpack, SyncsTheResultBeforeItTakesItsPlace) {
    auto const why = testsupport::whyNotTraced();
    if (!why.empty())
        GTEST_SKIP() << why;
    writeText(textWith({}));
    auto const output = (folder / "p.docx").string();

    auto const end = testsupport::runTraced({OPCTEXT_PROGRAM, "unpack", output + ".txt"},
                                            "fsync,fdatasync,rename,renameat,renameat2", {});

    EXPECT_EQ(end.exitCode, 0);
    auto const place = end.calls.find(", \"" + output + "\"");
    ASSERT_NE(place, std::string::npos) << end.calls;
    EXPECT_THAT(end.calls.substr(0, place), HasSubstr("sync(")) << end.calls;
}

TEST_F(OpctextUnpack, LeavesNothingOnAFullDisk) {
    writeText(textWith({{"/a.xml", base64Lines(mixedBytes(3000))}, {"/b.bin", base64Lines(mixedBytes(4000)), true}}));
    EXPECT_THAT(unpack(), succeeds());
    auto const size = folder.read("p.docx").size();
    folder.write("p.docx", "the earlier result");

    for (std::size_t const bytes : {std::size_t{0}, std::size_t{1}, std::size_t{100}, size / 2, size - 1}) {
        SCOPED_TRACE(bytes);
        ProgramCall call;
        call.words = {"unpack", "p.docx.txt", "-f"};
        call.inChild = limitingFileSize(bytes);

        auto const result = run(call);

        EXPECT_EQ(result.status, 4);
        EXPECT_THAT(result.errors, StartsWith("opctext: p.docx.txt: "));
        EXPECT_THAT(folder.entries(), ElementsAre("p.docx", "p.docx.txt"));
        EXPECT_EQ(folder.read("p.docx"), "the earlier result");
    }
}

// many at once

TEST_F(OpctextUnpack, UnpacksSeveralFilesAndGoesOnAfterOneThatItRefuses) {
    folder.write("a.docx.txt", textWith({}));
    folder.write("bad.docx.txt", "no package\n");
    folder.write("c.xlsx.txt", textWith({}));

    EXPECT_THAT(run({"unpack", "a.docx.txt", "bad.docx.txt", "c.xlsx.txt"}),
                fails(3, "opctext: bad.docx.txt: line 1: Reached end of file without finding ZKOPC_PACKAGE_BEGIN "
                         "marker\n"
                         "opctext: unpacked 2 of 3 files\n"));

    EXPECT_THAT(folder.entries(), ElementsAre("a.docx", "a.docx.txt", "bad.docx.txt", "c.xlsx", "c.xlsx.txt"));
}

TEST_F(OpctextUnpack, UnpacksTheTextPackagesInAFolderAndInTheFoldersInIt) {
    folder.write("docs/a.docx.txt", textWith({}));
    folder.write("docs/deep/er/b.docx.txt", textWith({}));
    folder.write("docs/notes.txt", "no package");
    folder.write("docs/c.docx", zipBytes({{"[Content_Types].xml", "<Types/>"}}));

    EXPECT_THAT(run({"unpack", "-r", "-j", "3", "docs"}), fails(0, "opctext: unpacked 2 of 2 files\n"));

    EXPECT_THAT(readZip(folder.read("docs/a.docx")).names(), ElementsAre("[Content_Types].xml"));
    EXPECT_THAT(readZip(folder.read("docs/deep/er/b.docx")).names(), ElementsAre("[Content_Types].xml"));
}

TEST_F(OpctextUnpack, SaysWhichFilesInAFolderCouldNotBeRead) {
    folder.write("docs/a.docx.txt", textWith({}));
    folder.write("docs/b.docx.txt", textWith({}));
    fs::permissions(folder / "docs/a.docx.txt", fs::perms::none);
    ProgramCall call;
    call.words = {"unpack", "-r", "docs"};
    call.inChild = testsupport::obeyPermissions;

    EXPECT_THAT(run(call),
                fails(4, "opctext: docs/a.docx.txt: Could not open \"" + (folder / "docs/a.docx.txt").string() +
                             "\": Permission denied\n"
                             "opctext: unpacked 1 of 2 files\n"));

    EXPECT_TRUE(fs::exists(folder / "docs/b.docx"));
}

TEST_F(OpctextUnpack, RefusesAFolderWithoutR) {
    folder.write("docs/a.docx.txt", textWith({}));

    EXPECT_THAT(run({"unpack", "docs"}), fails(2, "opctext: docs: this is a folder; -r converts what is in it\n"));

    EXPECT_FALSE(fs::exists(folder / "docs/a.docx"));
}

// damage everywhere

/// Tests that damage one small text package in many places, and unpack all the results in one run.
class OpctextUnpackDamaged : private testsupport::FoldersInMemory, public OpctextUnpack {};

TEST_F(OpctextUnpackDamaged, IsRefusedWhereverItIsCutOff) {
    auto const whole =
        textWith({{"/a.xml", "<a/>"}, {"/b.bin", base64Lines(mixedBytes(100)), true}}, "a header of one line");
    std::vector<std::string> words{"unpack", "-j", "2"};
    for (std::size_t size = 0; size < whole.size() - 1; ++size) { // the last line break may be missing
        words.push_back("d" + std::to_string(size) + ".txt");
        folder.write(words.back(), whole.substr(0, size));
    }

    auto const result = run(words);

    EXPECT_EQ(result.status, 3);
    EXPECT_THAT(result.errors, EndsWith("opctext: unpacked 0 of " + std::to_string(whole.size() - 1) + " files\n"));
    EXPECT_EQ(folder.entries().size(), whole.size() - 1);
}

TEST_F(OpctextUnpackDamaged, MakesAWholeZipFileOrNoneWhicheverByteIsWrong) {
    auto const whole = textWith({{"/a.xml", "<a/>"}, {"/b.bin", base64Lines(mixedBytes(100)), true}}, "header");
    std::vector<std::string> words{"unpack", "-j", "2"};
    for (std::size_t at = 0; at < whole.size(); ++at) {
        auto wrong = whole;
        wrong[at] = static_cast<char>(~wrong[at]);
        words.push_back("d" + std::to_string(at) + ".txt");
        folder.write(words.back(), wrong);
    }

    auto const result = run(words);

    EXPECT_EQ(result.signal, 0) << result;
    for (auto const& name : folder.entries()) {
        if (name.find('.') == std::string::npos) {
            EXPECT_EQ(testsupport::faultOfZip(folder.read(name)), "") << name;
        }
    }
}

} // namespace
