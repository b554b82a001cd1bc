#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <tests/support/Base64Lines.hpp>
#include <tests/support/FoldersInMemory.hpp>
#include <tests/support/OpctextFixture.hpp>
#include <tests/support/Permissions.hpp>
#include <tests/support/TracedProgram.hpp>
#include <tests/support/ZipFiles.hpp>

namespace fs = std::filesystem;

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using testsupport::base64Lines;
using testsupport::fails;
using testsupport::headerOfLines;
using testsupport::libraryZipBytes;
using testsupport::limitingFileSize;
using testsupport::mixedBytes;
using testsupport::packageText;
using testsupport::PartText;
using testsupport::ProgramCall;
using testsupport::ProgramResult;
using testsupport::succeeds;
using testsupport::zipBytes;
using testsupport::ZipLayout;
using testsupport::ZipMember;

namespace {

std::string const NoContentTypes =
    "opctext: p.docx: there is no member [Content_Types].xml, so this is no package; --force takes it all the same\n";

ZipMember contentTypes() {
    return {"[Content_Types].xml", "<Types/>"};
}

/// The content types member, and more.
std::vector<ZipMember> withContentTypes(std::vector<ZipMember> const& more) {
    std::vector<ZipMember> members{contentTypes()};
    members.insert(members.end(), more.begin(), more.end());
    return members;
}

/// The text form of a package with the content types part and more.
std::string textWith(std::vector<PartText> const& more, std::string const& header = "") {
    std::vector<PartText> parts{{"/[Content_Types].xml", "<Types/>"}};
    parts.insert(parts.end(), more.begin(), more.end());
    return packageText(parts, header);
}

/// A member with a field that doesn't tell the truth.
template <class Value>
ZipMember lying(std::optional<Value> ZipMember::*field, Value const& value, ZipMember member = {"a.xml", "<a/>"}) {
    member.*field = value;
    return member;
}

/// Tests of `opctext pack`, most of them on one ZIP file, "p.docx".
class OpctextPack : public testsupport::OpctextFixture {
protected:
    void writeZip(std::vector<ZipMember> const& more, ZipLayout const& layout = {}) const {
        folder.write("p.docx", zipBytes(withContentTypes(more), layout));
    }

    ProgramResult pack(std::vector<std::string> const& more = {}) const {
        std::vector<std::string> words{"pack", "p.docx"};
        words.insert(words.end(), more.begin(), more.end());
        return run(words);
    }

    ProgramResult packIn(std::map<std::string, std::string> const& environment) const {
        ProgramCall call;
        call.words = {"pack", "p.docx", "-o", "-"};
        call.environment = environment;
        return run(call);
    }

    std::string packed() const { return folder.read("p.docx.txt"); }

    /// Packs what must be refused, and proves that nothing is made of it and that an earlier result stays.
    void expectRefused(std::string const& zip, int status, std::string const& message,
                       std::vector<std::string> const& more = {}) const {
        SCOPED_TRACE(message);
        folder.write("p.docx", zip);

        EXPECT_THAT(pack(more), fails(status, message));
        EXPECT_THAT(folder.entries(), ElementsAre("p.docx"));

        folder.write("old.txt", "the earlier result");
        auto over = more;
        over.insert(over.end(), {"-f", "-o", "old.txt"});
        EXPECT_EQ(pack(over).status, status);
        EXPECT_THAT(folder.entries(), ElementsAre("old.txt", "p.docx"));
        EXPECT_EQ(folder.read("old.txt"), "the earlier result");
        fs::remove(folder / "old.txt");
    }
};

// real packages

class OpctextPackCorpus : public OpctextPack, public ::testing::WithParamInterface<fs::path> {};

TEST_P(OpctextPackCorpus, MakesATextPackageWithoutFault) {
    EXPECT_THAT(run({"pack", GetParam().string(), "-o", "p.txt"}), succeeds());

    EXPECT_EQ(run({"check", "--strict", "p.txt"}).status, 0);
    auto const expected = GetParam().string() + ".txt";
    if (fs::exists(expected)) {
        EXPECT_TRUE(package() == testsupport::readFile(expected)) << "not the text of " << expected;
    }
    EXPECT_THAT(folder.entries(), ElementsAre("p.txt"));
}

INSTANTIATE_TEST_SUITE_P(Each, OpctextPackCorpus,
                         ::testing::ValuesIn(testsupport::zipFilesIn(TEST_DATA_FOLDER "/corpus")),
                         testsupport::corpusTestName);

// what becomes of the members

TEST_F(OpctextPack, WritesBesideTheInputUnderItsNameWithTxtAdded) {
    writeZip({{"a.xml", "<a/>"}});

    EXPECT_THAT(pack(), succeeds());

    EXPECT_EQ(packed(), "__ZKOPC_PACKAGE_BEGIN__ V3508k\n"
                        "__ZKOPC_PART_BEGIN__ /[Content_Types].xml\n"
                        "<Types/>\n"
                        "__ZKOPC_PART_BEGIN__ /a.xml\n"
                        "<a/>\n"
                        "__ZKOPC_PACKAGE_END__\n");
    EXPECT_THAT(folder.entries(), ElementsAre("p.docx", "p.docx.txt"));
}

TEST_F(OpctextPack, LeavesTheInputAsItWas) {
    writeZip({{"a.xml", "<a/>"}});
    auto const before = folder.read("p.docx");

    EXPECT_THAT(pack(), succeeds());

    EXPECT_EQ(folder.read("p.docx"), before);
}

TEST_F(OpctextPack, StoresAsTextWhatIsTextAndAllElseAsBinary) {
    std::vector<std::string> const texts{
        "",
        "\n",
        "no line break",
        "ends in LF\n",
        "ends in CR LF\r\n",
        "<?xml version=\"1.0\"?>\r\n<a/>",
        "lone\rCR",
        "tab\there",
        "\xEF\xBB\xBF<bom/>",
        "größe, дом, 大, \xF0\x9F\x98\x80",
        "\xEF\xBF\xBF",
        "\xC2\xA0no-break space",
    };
    std::vector<std::string> const binaries{
        "ends in CR\r",
        std::string("NUL\0", 4),
        "BEL\x07",
        "ESC\x1B",
        "form feed\f",
        "DEL\x7F",
        "NEL\xC2\x85",
        "APC\xC2\x9F",
        "\xFF\xFE<\0a\0/\0>\0",
        "Latin-1 gr\xF6\xDF"
        "e",
        "overlong \xC0\xAF",
        "surrogate \xED\xA0\x80",
        "cut off \xE5\xA4",
        mixedBytes(58),
    };
    std::vector<ZipMember> members;
    std::vector<PartText> parts;
    for (auto const& text : texts) {
        members.push_back({"m" + std::to_string(100 + members.size()), text});
        parts.push_back({"/" + members.back().name, text});
    }
    for (auto const& binary : binaries) {
        members.push_back({"m" + std::to_string(100 + members.size()), binary});
        parts.push_back({"/" + members.back().name, base64Lines(binary), true});
    }
    writeZip(members);

    EXPECT_THAT(pack(), succeeds());

    EXPECT_EQ(packed(), textWith(parts));
}

TEST_F(OpctextPack, LooksAtTheBytesAndNotAtNamesOrContentTypes) {
    writeZip({{"picture.png", "text"}, {"document.xml", mixedBytes(40)}});

    EXPECT_THAT(pack(), succeeds());

    EXPECT_EQ(packed(), textWith({{"/document.xml", base64Lines(mixedBytes(40)), true}, {"/picture.png", "text"}}));
}

TEST_F(OpctextPack, EncodesInPartNamesWhatTheyCannotHold) {
    struct Case {
        std::string memberName;
        std::string partName;
    };
    std::vector<Case> const cases{
        {"a b.xml", "/a%20b.xml"},
        {" ", "/%20"},
        {"a\rb", "/a%0Db"},
        {"a\nb", "/a%0Ab"},
        {"a\tb", "/a%09b"},
        {"\x01\x1F", "/%01%1F"},
        {"\x7F", "/%7F"},
        {"\xC2\x85", "/%C2%85"},
        {"gr\xF6\xDF"
         "e",
         "/gr%F6%DFe"},
        {"\xC0\xAF", "/%C0%AF"},
        {"\xED\xA0\x80", "/%ED%A0%80"},
        {"cut\xE5\xA4", "/cut%E5%A4"},
        {"%20", "/%2520"},
        {"%", "/%25"},
        {"%zz", "/%25zz"},
        {"%2", "/%252"},
        {"%2e%2e/x", "/%252e%252e/x"},
        {"größe/дом/大\xF0\x9F\x98\x80.xml", "/größe/дом/大\xF0\x9F\x98\x80.xml"},
        {"a+b&c;d='e'!@#$^(~).xml", "/a+b&c;d='e'!@#$^(~).xml"},
        {"[x]/{y}", "/[x]/{y}"},
        {"__ZKOPC_PART_BEGIN__", "/__ZKOPC_PART_BEGIN__"},
        {"BASE64", "/BASE64"},
        {"x BASE64", "/x%20BASE64"},
    };

    for (auto const& [memberName, partName] : cases) {
        SCOPED_TRACE(partName);
        writeZip({{memberName, "content"}});

        EXPECT_THAT(pack({"-o", "-"}), succeeds(textWith({{partName, "content"}})));
    }
}

TEST_F(OpctextPack, KeepsNamesApartThatWouldBeTheSameOnceDecoded) {
    writeZip({{"a b", "1"}, {"a%20b", "2"}});

    EXPECT_THAT(pack(), succeeds());

    EXPECT_EQ(packed(), textWith({{"/a%20b", "1"}, {"/a%2520b", "2"}}));
}

TEST_F(OpctextPack, WritesThePartsInTheOrderOfTheFormatWhateverThatOfTheZipFile) {
    folder.write("p.docx", zipBytes({{"word/b.xml", "b"},
                                     {"Metadata/z.xml", "z"},
                                     {"_rels/.rels", "<Relationships/>"},
                                     {"a.xml", "a"},
                                     {"metadata/y.xml", "y"},
                                     {"[Content_Types].xml", "<Types/>"}}));

    EXPECT_THAT(pack(), succeeds());

    EXPECT_EQ(packed(), textWith({{"/_rels/.rels", "<Relationships/>"},
                                  {"/metadata/y.xml", "y"},
                                  {"/Metadata/z.xml", "z"},
                                  {"/a.xml", "a"},
                                  {"/word/b.xml", "b"}}));
}

TEST_F(OpctextPack, LeavesOutFolders) {
    writeZip({{"word/", "", testsupport::Stored}, {"word/a.xml", "a"}, {"empty/folder/", "", testsupport::Stored}});

    EXPECT_THAT(pack(), succeeds());

    EXPECT_EQ(packed(), textWith({{"/word/a.xml", "a"}}));
}

TEST_F(OpctextPack, CallsTheContentTypesPartByItsNameAndRemembersHowItWasSpelt) {
    folder.write("p.docx", zipBytes({{"a.xml", "a"}, {"[content_TYPES].xml", "<Types/>"}}));

    EXPECT_THAT(pack(), succeeds());

    EXPECT_EQ(packed(), textWith({{"/a.xml", "a"}},
                                 "opctext: in the ZIP file the content types part is called [content_TYPES].xml"));
}

TEST_F(OpctextPack, MakesTheSameOfEveryWayToWriteTheSameMembers) {
    std::vector<ZipMember> const members{{"a.xml", "<a/>"}, {"b.bin", mixedBytes(300), testsupport::Stored}};
    auto described = members;
    for (auto& member : described) {
        member.flags = testsupport::DescriptorFlag | testsupport::Utf8Flag;
        member.extra = std::string("\x55\x54\5\0\1\0\0\0\0", 9);
    }
    ZipLayout wide;
    wide.is64Bit = true;
    ZipLayout prefixed;
    prefixed.prefix = "#!/bin/sh\n";
    ZipLayout gaping;
    gaping.gap = std::string(100, 'x');
    std::vector<std::string> const zips{
        zipBytes(withContentTypes(members)),         libraryZipBytes(withContentTypes(members)),
        zipBytes(withContentTypes(described)),       zipBytes(withContentTypes(members), wide),
        zipBytes(withContentTypes(members), gaping), zipBytes(withContentTypes(members), prefixed),
    };

    for (std::size_t i = 0; i < zips.size(); ++i) {
        SCOPED_TRACE(i);
        folder.write("p.docx", zips[i]);

        EXPECT_THAT(pack({"-o", "-"}),
                    succeeds(textWith({{"/a.xml", "<a/>"}, {"/b.bin", base64Lines(mixedBytes(300)), true}})));
    }
}

// the comment

TEST_F(OpctextPack, MakesTheCommentTheHeader) {
    for (std::string const comment : {"one line", "two\nlines", "CR LF\r\nlines", "a line break at the end\n", "größe",
                                      " PK not at the beginning", "__ZKOPC_PART_BEGIN__ /x"}) {
        SCOPED_TRACE(comment);
        ZipLayout layout;
        layout.comment = comment;
        writeZip({}, layout);

        EXPECT_THAT(pack({"-o", "-"}), succeeds(textWith({}, comment)));
    }
}

TEST_F(OpctextPack, LeavesOutACommentThatCannotBeAHeaderAndSaysSo) {
    for (auto const& comment :
         {std::string("PK is how ZIP files begin"),
          std::string("Latin-1 gr\xF6\xDF"
                      "e"),
          std::string("a NUL\0 in it", 12), std::string("__ZKOPC_PACKAGE_BEGIN__"), headerOfLines(40)}) {
        SCOPED_TRACE(comment);
        ZipLayout layout;
        layout.comment = comment;
        writeZip({}, layout);

        EXPECT_THAT(pack({"-o", "-"}),
                    testsupport::ends(0, textWith({}),
                                      "opctext: p.docx: the comment of the ZIP file can't be a header and is left "
                                      "out\n"));
    }
}

// determinism

TEST_F(OpctextPack, WritesTheSameInEveryTimeZoneAndLocale) {
    writeZip({{"größe.xml", "größe"}, {"B.xml", "b"}, {"a.xml", "a"}, {"i.xml", "i"}, {"I2.xml", "I"}});
    auto const expected = packIn({});

    EXPECT_EQ(expected.status, 0);
    for (std::map<std::string, std::string> const& environment :
         std::vector<std::map<std::string, std::string>>{{{"TZ", "Asia/Tokyo"}},
                                                         {{"TZ", "America/St_Johns"}},
                                                         {{"LC_ALL", "C"}},
                                                         {{"LC_ALL", "C.UTF-8"}},
                                                         {{"LC_ALL", "tr_TR.UTF-8"}},
                                                         {{"SOURCE_DATE_EPOCH", "1700000000"}}}) {
        SCOPED_TRACE(environment.begin()->second);
        EXPECT_THAT(packIn(environment), succeeds(expected.output));
    }
}

// refusals

TEST_F(OpctextPack, RefusesWhatIsNoZipFile) {
    expectRefused("", 3, "opctext: p.docx: this is not a ZIP file\n");
    expectRefused("P", 3, "opctext: p.docx: this is not a ZIP file\n");
    expectRefused("plain text\n", 3, "opctext: p.docx: this is not a ZIP file\n");
    expectRefused(mixedBytes(100000), 3, "opctext: p.docx: this is not a ZIP file\n");
}

TEST_F(OpctextPack, RefusesATextPackageAndSaysThatItIsOne) {
    expectRefused(textWith({}), 3, "opctext: p.docx: this is a package in text form already\n");
    expectRefused(textWith({}, "a header"), 3, "opctext: p.docx: this is a package in text form already\n");
}

TEST_F(OpctextPack, RefusesAZipFileWithoutMembers) {
    folder.write("p.docx", zipBytes({}));

    EXPECT_THAT(run({"pack", "--force", "p.docx"}), fails(3, "opctext: p.docx: there is no member in it\n"));

    EXPECT_THAT(folder.entries(), ElementsAre("p.docx"));
}

TEST_F(OpctextPack, RefusesAFileThatIsNotThere) {
    auto const result = pack();

    EXPECT_THAT(result, fails(4, "opctext: p.docx: there is no such file\n"));
    EXPECT_THAT(folder.entries(), ElementsAre());
}

TEST_F(OpctextPack, RefusesAFileWithoutItsDirectory) {
    auto const zip = zipBytes(withContentTypes({{"a.xml", "<a/>"}}));

    expectRefused(zip.substr(0, zip.size() - 1), 3,
                  "opctext: p.docx: the ZIP file is cut off: its directory is missing\n");
    expectRefused(zip.substr(0, 60), 3, "opctext: p.docx: the ZIP file is cut off: its directory is missing\n");
}

TEST_F(OpctextPack, LeavesOutBytesBehindTheEndAndSaysSo) {
    auto const zip = zipBytes(withContentTypes({{"a.xml", "<a/>"}}));
    for (auto const& more : {std::string("more"), std::string(1000, '\0')}) {
        folder.write("p.docx", zip + more);

        auto const result = pack({"-f"});

        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.errors,
                  "opctext: p.docx: there are bytes behind the end of the ZIP file, which are left out\n");
        EXPECT_EQ(folder.read("p.docx.txt"), textWith({{"/a.xml", "<a/>"}}));
    }
}

TEST_F(OpctextPack, RefusesADirectoryThatIsNotWhatItsEndRecordSays) {
    ZipLayout one;
    one.count = 1;
    ZipLayout three;
    three.count = 3;
    ZipLayout elsewhere;
    elsewhere.directoryOffset = 10;
    ZipLayout small;
    small.directorySize = 46;
    auto const members = withContentTypes({{"a.xml", "<a/>"}});

    for (auto const& layout : {one, three}) {
        auto const zip = zipBytes(members, layout);
        folder.write("p.docx", zip);
        auto const result = pack();
        EXPECT_EQ(result.status, 3);
        EXPECT_THAT(result.errors, StartsWith("opctext: p.docx: "));
        EXPECT_THAT(folder.entries(), ElementsAre("p.docx"));
    }
    expectRefused(zipBytes(members, elsewhere), 3, "opctext: p.docx: its directory is not where its end record says\n");
    expectRefused(zipBytes(members, small), 3, "opctext: p.docx: its directory is not where its end record says\n");
}

TEST_F(OpctextPack, RefusesAWideDirectoryOfWhichTheNarrowEndRecordSaysOtherwise) {
    auto const members = withContentTypes({{"a.xml", "<a/>"}});
    ZipLayout wide;
    wide.is64Bit = true;
    auto count = wide;
    count.count = 1;
    auto offset = wide;
    offset.directoryOffset = 10;
    auto size = wide;
    size.directorySize = 46;

    for (auto const& layout : {count, offset, size})
        expectRefused(zipBytes(members, layout), 3, "opctext: p.docx: its two end records say different things\n");

    wide.count = 2; // the truth does no harm
    folder.write("p.docx", zipBytes(members, wide));
    EXPECT_THAT(pack(), succeeds());
}

TEST_F(OpctextPack, RefusesUnsafeNames) {
    struct Case {
        std::string name;
        std::string reason;
    };
    std::vector<Case> const cases{
        {"../x", "member ../x: its name has the segment \"..\""},
        {"..", "member ..: its name has the segment \"..\""},
        {"a/../x", "member a/../x: its name has the segment \"..\""},
        {"a/..", "member a/..: its name has the segment \"..\""},
        {"./x", "member ./x: its name has the segment \".\""},
        {"a/./x", "member a/./x: its name has the segment \".\""},
        {"/etc/passwd", "member /etc/passwd: its name is absolute"},
        {"//host/x", "member //host/x: its name is absolute"},
        {"C:/x", "member C:/x: its name is absolute"},
        {"a\\b", "member a\\b: its name holds a backslash"},
        {"..\\x", "member ..\\x: its name holds a backslash"},
        {std::string("a\0.xml", 6), "member a\\x00.xml: its name holds a NUL"},
        {"a//b", "member a//b: its name has an empty segment"},
        {"folder/", "member folder/: its name has an empty segment"},
        {"", "member : its name is empty"},
    };

    for (auto const& [name, reason] : cases)
        expectRefused(zipBytes(withContentTypes({{name, "content"}})), 6, "opctext: p.docx: " + reason + "\n");
}

TEST_F(OpctextPack, RefusesUnsafeNamesOfFoldersToo) {
    expectRefused(zipBytes(withContentTypes({{"../", "", testsupport::Stored}})), 6,
                  "opctext: p.docx: member ../: its name has the segment \"..\"\n");
}

TEST_F(OpctextPack, RefusesNamesThatAreRepeatedWhateverTheCaseOfLetters) {
    expectRefused(zipBytes(withContentTypes({{"a.xml", "1"}, {"a.xml", "2"}})), 3,
                  "opctext: p.docx: member a.xml: there is another of this name, a.xml\n");
    expectRefused(zipBytes(withContentTypes({{"a.xml", "1"}, {"A.XML", "2"}})), 3,
                  "opctext: p.docx: member A.XML: there is another of this name, a.xml\n");
    expectRefused(zipBytes(withContentTypes({{"[content_types].xml", "2"}})), 3,
                  "opctext: p.docx: member [content_types].xml: there is another of this name, [Content_Types].xml\n");
}

TEST_F(OpctextPack, RefusesAMemberThatIsTheFolderOfAnother) {
    expectRefused(zipBytes(withContentTypes({{"a", "1"}, {"a/b", "2"}})), 3,
                  "opctext: p.docx: member a/b: its folder is a member as well, a\n");
    expectRefused(zipBytes(withContentTypes({{"x/A/b/c", "1"}, {"x/a", "2"}})), 3,
                  "opctext: p.docx: member x/A/b/c: its folder is a member as well, x/a\n");
}

TEST_F(OpctextPack, RefusesAPackageWithoutContentTypes) {
    folder.write("p.docx", zipBytes({{"a.xml", "<a/>"}}));

    EXPECT_THAT(pack(), fails(3, NoContentTypes));
    EXPECT_THAT(folder.entries(), ElementsAre("p.docx"));
}

TEST_F(OpctextPack, TakesItWithForceAndWarns) {
    folder.write("p.docx", zipBytes({{"a.xml", "<a/>"}}));

    EXPECT_THAT(pack({"--force"}),
                fails(0, "opctext: p.docx: there is no member [Content_Types].xml, so this is no package\n"));

    EXPECT_EQ(packed(), packageText({{"/[Content_Types].xml", ""}, {"/a.xml", "<a/>"}},
                                    "opctext: in the ZIP file there is no content types part"));
    EXPECT_EQ(run({"check", "--strict", "p.docx.txt"}).status, 0);
}

TEST_F(OpctextPack, RefusesTrash) {
    writeZip({{"[trash]/0000.dat", "gone"}, {"a.xml", "<a/>"}});

    EXPECT_THAT(pack(), fails(3, "opctext: p.docx: member [trash]/0000.dat: a package drops parts whose names begin "
                                 "with \"/[trash]\"; --force leaves it out\n"));
    EXPECT_THAT(folder.entries(), ElementsAre("p.docx"));
}

TEST_F(OpctextPack, LeavesTrashOutWithForceAndWarns) {
    writeZip({{"[trash]/0000.dat", "gone"}, {"[trash]x", "gone"}, {"a.xml", "<a/>"}});

    EXPECT_THAT(pack({"--force"}), fails(0, "opctext: p.docx: member [trash]/0000.dat is left out\n"
                                            "opctext: p.docx: member [trash]x is left out\n"));

    EXPECT_EQ(packed(), textWith({{"/a.xml", "<a/>"}}));
}

TEST_F(OpctextPack, RefusesContentThatNoPackageCanHold) {
    auto const reason = [](std::string const& name, int line) {
        return "opctext: p.docx: member " + name +
               ": the text __ZKOPC_PA, which begins the marker lines of the format, stands in line " +
               std::to_string(line) + " of the content; no package can hold it\n";
    };

    expectRefused(zipBytes(withContentTypes({{"a.xml", "__ZKOPC_PA"}})), 3, reason("a.xml", 1));
    expectRefused(zipBytes(withContentTypes({{"a.xml", "1\n2\n<!-- __ZKOPC_PART_BEGIN__ -->"}})), 3,
                  reason("a.xml", 3));
    expectRefused(zipBytes(withContentTypes({{"b.bin", mixedBytes(300) + "__ZKOPC_PACKAGE_END__"}})), 3,
                  reason("b.bin", 2));
    expectRefused(zipBytes({{"[Content_Types].xml", "__ZKOPC_PA"}}), 3, reason("[Content_Types].xml", 1));
    // over the border of two blocks of 64 KiB
    expectRefused(zipBytes(withContentTypes({{"a.xml", std::string(65531, 'x') + "__ZKOPC_PA"}})), 3,
                  reason("a.xml", 1));
}

TEST_F(OpctextPack, RefusesMembersThatAreNotAsDeclared) {
    struct Case {
        ZipMember member;
        std::string reason;
    };
    ZipMember encrypted{"a.xml", "<a/>"};
    encrypted.flags = testsupport::EncryptedFlag;
    ZipMember strangeMethod{"a.xml", "<a/>"};
    strangeMethod.method = 77;
    std::vector<Case> const cases{
        {encrypted, "it is encrypted"},
        {strangeMethod, "Compression method not supported"},
        {lying(&ZipMember::size, 5U), "it has 4 bytes, not 5 as declared"},
        {lying(&ZipMember::size, 3U), "it has more than the 3 bytes declared"},
        {lying(&ZipMember::size, 0U), "it has more than the 0 bytes declared"},
        {lying(&ZipMember::size, 0xFFFFFFFEU), "its data can't be inflated to the 4294967294 bytes declared"},
        {lying(&ZipMember::checksum, 0xDEADBEEFU), "its checksum is wrong"},
        {lying(&ZipMember::data, std::string("\xFF\xFF\xFF\xFF")), "its data are damaged"},
        {lying(&ZipMember::headerOffset, 0x7FFFFFFFU), "its data are not where the directory says"},
        {lying(&ZipMember::compressedSize, 0x7FFFFFFFU), "its data overlap the directory"},
    };

    for (auto const& [member, reason] : cases)
        expectRefused(zipBytes(withContentTypes({member})), 3, "opctext: p.docx: member a.xml: " + reason + "\n");
    expectRefused(zipBytes({lying(&ZipMember::headerOffset, 7U)}), 3,
                  "opctext: p.docx: member a.xml: its data are not where the directory says\n");
}

TEST_F(OpctextPack, RefusesAStoredMemberOfAnotherLengthThanDeclared) {
    for (std::uint32_t const size : {3U, 5U}) {
        ZipMember member{"a.xml", "<a/>", testsupport::Stored};
        member.size = size;
        folder.write("p.docx", zipBytes(withContentTypes({member})));

        auto const result = pack();

        EXPECT_EQ(result.status, 3);
        EXPECT_THAT(result.errors, StartsWith("opctext: p.docx: member a.xml: "));
        EXPECT_THAT(folder.entries(), ElementsAre("p.docx"));
    }
}

TEST_F(OpctextPack, RefusesDeflatedDataThatEndEarlyOrGoOnBehindTheirEnd) {
    ZipMember member{"a.bin", std::string(1000, 'x') + mixedBytes(500)};
    auto const data = testsupport::deflated(member.content);
    for (auto const& wrong :
         {std::string(), data.substr(0, data.size() / 2), data.substr(0, data.size() - 1), data + "hidden"}) {
        SCOPED_TRACE(std::to_string(wrong.size()) + " bytes, not " + std::to_string(data.size()));
        member.data = wrong;
        folder.write("p.docx", zipBytes(withContentTypes({member})));

        auto const result = pack();

        EXPECT_EQ(result.status, 3);
        EXPECT_THAT(result.errors, StartsWith("opctext: p.docx: member a.bin: "));
        EXPECT_FALSE(fs::remove(folder / "p.docx.txt"));
        EXPECT_THAT(folder.entries(), ElementsAre("p.docx"));
    }
}

TEST_F(OpctextPack, RefusesAFolderThatHasData) {
    ZipMember const emptyFolder{"folder/", "", testsupport::Stored};
    folder.write("p.docx", zipBytes(withContentTypes({lying(&ZipMember::data, std::string("hidden"), emptyFolder)})));

    auto const result = pack();

    EXPECT_NE(result.status, 0);
    EXPECT_THAT(result.errors, StartsWith("opctext: p.docx: member folder/: "));
    EXPECT_THAT(folder.entries(), ElementsAre("p.docx"));
}

TEST_F(OpctextPack, RefusesAMemberWithAnotherNameBeforeItsDataThanInTheDirectory) {
    folder.write("p.docx", zipBytes(withContentTypes({lying(&ZipMember::localName, std::string("b.xml"))})));

    auto const result = pack();

    EXPECT_EQ(result.status, 3);
    EXPECT_THAT(result.errors, StartsWith("opctext: p.docx: member a.xml: "));
    EXPECT_THAT(folder.entries(), ElementsAre("p.docx"));
}

TEST_F(OpctextPack, RefusesMembersThatOverlap) {
    auto const sizeOfFirst = static_cast<std::uint32_t>(zipBytes({contentTypes()}).size() - 22 - 46 - 19);
    ZipMember second{"b.xml", "<a/>"};
    second.headerOffset = sizeOfFirst;

    expectRefused(zipBytes(withContentTypes({{"a.xml", "<a/>"}, second})), 3,
                  "opctext: p.docx: member a.xml: its data overlap member b.xml\n");
    expectRefused(zipBytes(withContentTypes({lying(&ZipMember::compressedSize, 20U), {"b.xml", "<a/>"}})), 3,
                  "opctext: p.docx: member a.xml: its data overlap member b.xml\n");
}

TEST_F(OpctextPack, ShowsControlCharactersOfNamesAsNumbers) {
    ZipMember member{"a\x1B[2J\nb", "x"};
    member.checksum = 0;

    expectRefused(zipBytes(withContentTypes({member})), 3,
                  "opctext: p.docx: member a\\x1B[2J\\x0Ab: its checksum is wrong\n");
}

TEST_F(OpctextPack, KeepsVeryLongNamesOrRefusesThem) {
    for (auto const& name : {std::string(255, 'n'), std::string(256, 'n'), std::string(5000, 'n'),
                             std::string(60000, 'n'), std::string(100, ' ')}) {
        SCOPED_TRACE(name.size());
        writeZip({{name, "content"}});

        auto const result = pack({"-o", "-"});

        if (result.status == 0) {
            EXPECT_THAT(result.output, HasSubstr("\ncontent\n"));
        } else {
            EXPECT_THAT(result.errors, StartsWith("opctext: p.docx: member " + name + ": "));
        }
        EXPECT_THAT(folder.entries(), ElementsAre("p.docx"));
    }
}

// limits

TEST_F(OpctextPack, LimitsTheNumberOfMembers) {
    writeZip({{"a.xml", "a"}, {"b.xml", "b"}});

    expectRefused(folder.read("p.docx"), 5,
                  "opctext: p.docx: it has 3 members, more than the limit of 2 (--max-parts)\n", {"--max-parts", "2"});
    EXPECT_THAT(pack({"--max-parts", "3"}), succeeds());
}

TEST_F(OpctextPack, LimitsTheSizeOfOneMember) {
    writeZip({{"a.xml", std::string(100, 'a')}});

    expectRefused(folder.read("p.docx"), 5,
                  "opctext: p.docx: member a.xml: it is larger than the limit of 99 bytes (--max-part-size)\n",
                  {"--max-part-size", "99"});
    EXPECT_THAT(pack({"--max-part-size", "100"}), succeeds());
}

TEST_F(OpctextPack, LimitsTheSizeOfAllMembersTogether) {
    writeZip({{"a.xml", std::string(100, 'a')}, {"b.xml", std::string(100, 'b')}});

    expectRefused(folder.read("p.docx"), 5,
                  "opctext: p.docx: member b.xml: with it the content is larger than the limit of 207 bytes "
                  "(--max-size)\n",
                  {"--max-size", "207"});
    EXPECT_THAT(pack({"--max-size", "208"}), succeeds());
}

TEST_F(OpctextPack, RefusesABomb) {
    writeZip({{"bomb.xml", std::string(std::size_t{10} << 20, '\0')}});

    expectRefused(folder.read("p.docx"), 5,
                  "opctext: p.docx: member bomb.xml: it inflates to 600 times its size or more, the limit "
                  "(--max-ratio)\n");
}

TEST_F(OpctextPack, RefusesABombBeforeItIsInflated) {
    ZipMember bomb{"bomb.xml", std::string(std::size_t{10} << 20, '\0')};
    bomb.data = std::string(testsupport::deflated(bomb.content).size(), '\xFF'); // can't be inflated

    expectRefused(zipBytes(withContentTypes({bomb})), 5,
                  "opctext: p.docx: member bomb.xml: it inflates to 600 times its size or more, the limit "
                  "(--max-ratio)\n");
}

TEST_F(OpctextPack, LimitsTheRatioOfMembersBeyondEightMebibytesOnly) {
    writeZip({{"just.xml", std::string(std::size_t{8} << 20, '0')}});
    EXPECT_THAT(pack({"--max-ratio", "2"}), succeeds());

    writeZip({{"over.xml", std::string((std::size_t{8} << 20) + 1, '0')}});
    EXPECT_THAT(pack({"-o", "-", "--max-ratio", "100"}),
                fails(5, "opctext: p.docx: member over.xml: it inflates to 100 times its size or more, the limit "
                         "(--max-ratio)\n"));
    EXPECT_THAT(pack({"-f", "--max-ratio", "2000"}), succeeds());
}

TEST_F(OpctextPack, IsNotFooledByABombThatDeclaresAnotherSize) {
    for (std::uint32_t const size : {10U, 0xFFFFFFFEU}) {
        ZipMember bomb{"bomb.xml", std::string(std::size_t{10} << 20, '\0')};
        bomb.size = size;
        folder.write("p.docx", zipBytes(withContentTypes({bomb})));

        auto const result = pack();

        EXPECT_THAT(result.status, ::testing::AnyOf(3, 5));
        EXPECT_THAT(result.errors, StartsWith("opctext: p.docx: member bomb.xml: "));
        EXPECT_THAT(folder.entries(), ElementsAre("p.docx"));
    }
}

TEST_F(OpctextPack, TakesNoMemoryForWhatIsOnlyDeclared) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "AddressSanitizer needs more memory than the limit leaves";
#endif
    ProgramCall call;
    call.words = {"pack", "p.docx"};
    call.inChild = [] {
        struct rlimit limit {};
        limit.rlim_cur = limit.rlim_max = rlim_t{256} << 20;
        ::setrlimit(RLIMIT_AS, &limit);
    };
    folder.write("p.docx", zipBytes(withContentTypes({lying(&ZipMember::size, 0xFFFFFFF0U)})));

    EXPECT_THAT(
        run(call),
        fails(3, "opctext: p.docx: member a.xml: its data can't be inflated to the 4294967280 bytes declared\n"));
}

// the output

TEST_F(OpctextPack, OverwritesNothingUnlessForced) {
    writeZip({{"a.xml", "<a/>"}});
    folder.write("p.docx.txt", "precious");

    EXPECT_THAT(pack(), fails(4, "opctext: p.docx.txt: exists already; -f overwrites it\n"));
    EXPECT_EQ(packed(), "precious");
    EXPECT_THAT(folder.entries(), ElementsAre("p.docx", "p.docx.txt"));

    EXPECT_THAT(pack({"-f"}), succeeds());
    EXPECT_EQ(packed(), textWith({{"/a.xml", "<a/>"}}));
    EXPECT_THAT(folder.entries(), ElementsAre("p.docx", "p.docx.txt"));
}

TEST_F(OpctextPack, WritesWhereItIsTold) {
    writeZip({});
    fs::create_directory(folder / "sub");

    EXPECT_THAT(pack({"-o", "sub/named.txt"}), succeeds());

    EXPECT_EQ(folder.read("sub/named.txt"), textWith({}));
    EXPECT_THAT(folder.entries(), ElementsAre("p.docx", "sub"));
}

TEST_F(OpctextPack, RefusesAnOutputInAFolderThatIsNotThere) {
    writeZip({});

    auto const result = pack({"-o", "gone/named.txt"});

    EXPECT_EQ(result.status, 4);
    EXPECT_THAT(result.errors, AllOf(StartsWith("opctext: "), HasSubstr("No such file or directory")));
    EXPECT_THAT(folder.entries(), ElementsAre("p.docx"));
}

TEST_F(OpctextPack, RefusesAFolderAsOutput) {
    writeZip({});
    fs::create_directory(folder / "sub");

    EXPECT_THAT(pack({"-o", "sub"}), fails(4, "opctext: sub: exists already; -f overwrites it\n"));
    EXPECT_EQ(pack({"-f", "-o", "sub"}).status, 4);
    EXPECT_TRUE(fs::is_directory(folder / "sub"));
    EXPECT_THAT(folder.entries(), ElementsAre("p.docx", "sub"));
}

TEST_F(OpctextPack, GivesTheOutputThePermissionsOfANewFile) {
    writeZip({});
    testsupport::Umask const mask(027);

    EXPECT_THAT(pack(), succeeds());

    EXPECT_EQ(testsupport::permissionsOf(folder / "p.docx.txt"), 0640U);
}

TEST_F(OpctextPack, KeepsThePermissionsOfAFileThatItOverwrites) {
    writeZip({});
    folder.write("p.docx.txt", "old");
    fs::permissions(folder / "p.docx.txt", fs::perms{0604});

    EXPECT_THAT(pack({"-f"}), succeeds());

    EXPECT_EQ(testsupport::permissionsOf(folder / "p.docx.txt"), 0604U);
}

TEST_F(OpctextPack, ReadsAndWritesStandardStreams) {
    auto const zip = zipBytes(withContentTypes({{"a.xml", "<a/>"}}));

    EXPECT_THAT(run({"pack", "-"}, zip), succeeds(textWith({{"/a.xml", "<a/>"}})));
    EXPECT_THAT(run({"pack", "-", "-o", "-"}, zip), succeeds(textWith({{"/a.xml", "<a/>"}})));
    EXPECT_THAT(folder.entries(), ElementsAre());

    EXPECT_THAT(run({"pack", "-", "-o", "p.txt"}, zip), succeeds());
    EXPECT_EQ(package(), textWith({{"/a.xml", "<a/>"}}));
}

TEST_F(OpctextPack, WritesNothingToStandardOutputOfWhatItRefuses) {
    auto const zip = zipBytes(withContentTypes({{"a.xml", "<a/>"}, lying(&ZipMember::checksum, 1U)}));

    EXPECT_THAT(run({"pack", "-"}, ""), fails(3, "opctext: -: this is not a ZIP file\n"));
    EXPECT_THAT(run({"pack", "-"}, zip.substr(0, 100)),
                fails(3, "opctext: -: the ZIP file is cut off: its directory is missing\n"));
    EXPECT_EQ(run({"pack", "-"}, zip).output, "");
    EXPECT_EQ(run({"pack", "-"}, zip).status, 3);
}

TEST_F(OpctextPack, SyncsTheResultBeforeItTakesItsPlace) {
    auto const why = testsupport::whyNotTraced();
    if (!why.empty())
        GTEST_SKIP() << why;
    writeZip({{"a.xml", "<a/>"}});
    auto const output = (folder / "p.docx.txt").string();

    auto const end = testsupport::runTraced({OPCTEXT_PROGRAM, "pack", (folder / "p.docx").string()},
                                            "fsync,fdatasync,rename,renameat,renameat2", {});

    EXPECT_EQ(end.exitCode, 0);
    auto const rename = end.calls.find("\"" + output + "\"");
    ASSERT_NE(rename, std::string::npos) << end.calls;
    EXPECT_THAT(end.calls.substr(0, rename), HasSubstr("sync(")) << end.calls;
}

TEST_F(OpctextPack, LeavesNothingWhereTheSyncFails) {
    auto const why = testsupport::whyNotTraced();
    if (!why.empty())
        GTEST_SKIP() << why;
    writeZip({{"a.xml", "<a/>"}});

    auto const end = testsupport::runTraced({OPCTEXT_PROGRAM, "pack", (folder / "p.docx").string()}, "fsync",
                                            {"fsync:error=EIO:when=1"});

    EXPECT_EQ(end.exitCode, 4);
    EXPECT_THAT(end.output, HasSubstr("Input/output error"));
    EXPECT_THAT(folder.entries(), ElementsAre("p.docx"));
}

TEST_F(OpctextPack, NoticesWhatTheDiskHasChanged) {
    auto const why = testsupport::whyNotTraced();
    if (!why.empty())
        GTEST_SKIP() << why;
    writeZip({{"a.xml", "<a/>"}});

    testsupport::RunningProgram program(delayed("fsync", 200000, {"pack", "p.docx"}));
    ASSERT_TRUE(testsupport::spoilHiddenFile(folder.path(), "__ZKOPC_PACKAGE_END__\n", "<a/>"));
    auto const result = program.wait();

    EXPECT_NE(result.status, 0);
    EXPECT_EQ(result.errors, "opctext: p.docx: part /a.xml does not come back as it was\n");
    EXPECT_THAT(folder.entries(), ElementsAre("p.docx"));
}

TEST_F(OpctextPack, DoesNotLookWhatTheDiskHasChangedWhereItIsToldNotToVerify) {
    auto const why = testsupport::whyNotTraced();
    if (!why.empty())
        GTEST_SKIP() << why;
    writeZip({{"a.xml", "<a/>"}});

    testsupport::RunningProgram program(delayed("fsync", 200000, {"pack", "p.docx", "--no-verify"}));
    ASSERT_TRUE(testsupport::spoilHiddenFile(folder.path(), "__ZKOPC_PACKAGE_END__\n", "<a/>"));

    EXPECT_THAT(program.wait(), succeeds());
    EXPECT_EQ(packed(), textWith({{"/a.xml", "Xa/>"}}));
}

TEST_F(OpctextPack, GivesTheSameWithoutVerifying) {
    writeZip({{"a.xml", "<a/>"}, {"b.bin", mixedBytes(100)}});

    EXPECT_THAT(pack({"--no-verify"}), succeeds());

    EXPECT_EQ(packed(), textWith({{"/a.xml", "<a/>"}, {"/b.bin", base64Lines(mixedBytes(100)), true}}));
}

TEST_F(OpctextPack, LeavesNothingOnAFullDisk) {
    writeZip({{"a.xml", std::string(3000, 'a')}, {"b.bin", mixedBytes(4000)}});
    EXPECT_THAT(pack(), succeeds());
    auto const size = packed().size();
    folder.write("p.docx.txt", "the earlier result");

    for (std::size_t const bytes :
         {std::size_t{0}, std::size_t{1}, std::size_t{100}, std::size_t{2999}, size / 2, size - 1}) {
        SCOPED_TRACE(bytes);
        ProgramCall call;
        call.words = {"pack", "p.docx", "-f"};
        call.inChild = limitingFileSize(bytes);

        auto const result = run(call);

        EXPECT_EQ(result.status, 4);
        EXPECT_THAT(result.errors, StartsWith("opctext: p.docx: "));
        EXPECT_THAT(folder.entries(), ElementsAre("p.docx", "p.docx.txt"));
        EXPECT_EQ(packed(), "the earlier result");
    }
}

TEST_F(OpctextPack, SaysThatStandardOutputIsFull) {
    writeZip({});

    auto const end = testsupport::runTraced(
        {"/bin/sh", "-c", "exec \"$0\" pack \"$1\" -o - >/dev/full", OPCTEXT_PROGRAM, (folder / "p.docx").string()},
        "fsync", {});

    EXPECT_EQ(end.exitCode, 4);
    EXPECT_EQ(end.output, "opctext: standard output: No space left on device\n");
}

// many at once

TEST_F(OpctextPack, PacksSeveralFilesAndCountsThem) {
    for (auto const* const name : {"a.docx", "b.xlsx", "c.3mf"})
        folder.write(name, zipBytes(withContentTypes({{name, name}})));

    EXPECT_THAT(run({"pack", "a.docx", "b.xlsx", "c.3mf"}), fails(0, "opctext: packed 3 of 3 files\n"));

    EXPECT_THAT(folder.entries(), ElementsAre("a.docx", "a.docx.txt", "b.xlsx", "b.xlsx.txt", "c.3mf", "c.3mf.txt"));
    EXPECT_EQ(folder.read("b.xlsx.txt"), textWith({{"/b.xlsx", "b.xlsx"}}));
}

TEST_F(OpctextPack, GoesOnAfterAFileThatItRefuses) {
    folder.write("a.docx", zipBytes(withContentTypes({})));
    folder.write("bad.docx", "no ZIP file");
    folder.write("c.docx", zipBytes(withContentTypes({})));

    EXPECT_THAT(run({"pack", "a.docx", "bad.docx", "c.docx"}), fails(3, "opctext: bad.docx: this is not a ZIP file\n"
                                                                        "opctext: packed 2 of 3 files\n"));

    EXPECT_THAT(folder.entries(), ElementsAre("a.docx", "a.docx.txt", "bad.docx", "c.docx", "c.docx.txt"));
}

TEST_F(OpctextPack, ExitsWithTheHighestStatusOfAllFiles) {
    folder.write("bad.docx", "no ZIP file");
    folder.write("unsafe.docx", zipBytes(withContentTypes({{"../x", "x"}})));

    EXPECT_EQ(run({"pack", "unsafe.docx", "bad.docx"}).status, 6);
    EXPECT_EQ(run({"pack", "bad.docx", "gone.docx"}).status, 4);
    EXPECT_THAT(folder.entries(), ElementsAre("bad.docx", "unsafe.docx"));
}

TEST_F(OpctextPack, PacksTheZipFilesInAFolderAndInTheFoldersInIt) {
    folder.write("docs/a.docx", zipBytes(withContentTypes({})));
    folder.write("docs/deep/er/b.docx", zipBytes(withContentTypes({})));
    folder.write("docs/notes.md", "no ZIP file");
    folder.write("docs/empty", "");
    fs::create_symlink("..", folder / "docs/deep/loop");

    EXPECT_THAT(run({"pack", "-r", "docs"}), fails(0, "opctext: packed 2 of 2 files\n"));

    EXPECT_EQ(folder.read("docs/a.docx.txt"), textWith({}));
    EXPECT_EQ(folder.read("docs/deep/er/b.docx.txt"), textWith({}));
    EXPECT_FALSE(fs::exists(folder / "docs/notes.md.txt"));
}

TEST_F(OpctextPack, CountsNothingInAFolderWithoutZipFiles) {
    fs::create_directory(folder / "docs");

    EXPECT_THAT(run({"pack", "-r", "docs"}), fails(0, "opctext: packed 0 of 0 files\n"));
}

TEST_F(OpctextPack, RefusesAFolderWithoutR) {
    folder.write("a.docx", zipBytes(withContentTypes({})));
    folder.write("docs/b.docx", zipBytes(withContentTypes({})));

    EXPECT_THAT(run({"pack", "a.docx", "docs"}),
                fails(2, "opctext: docs: this is a folder; -r converts what is in it\n"));

    EXPECT_THAT(folder.entries(), ElementsAre("a.docx", "docs"));
    EXPECT_FALSE(fs::exists(folder / "docs/b.docx.txt"));
}

TEST_F(OpctextPack, RefusesOneOutputForSeveralFiles) {
    folder.write("a.docx", zipBytes(withContentTypes({})));
    folder.write("b.docx", zipBytes(withContentTypes({})));

    EXPECT_THAT(run({"pack", "a.docx", "b.docx", "-o", "c.txt"}),
                fails(2, "opctext: -o names the output of one file, not of several\n"));
    EXPECT_THAT(run({"pack", "-r", ".", "-o", "c.txt"}),
                fails(2, "opctext: -o names the output of one file, not of several\n"));

    EXPECT_THAT(folder.entries(), ElementsAre("a.docx", "b.docx"));
}

TEST_F(OpctextPack, PacksSeveralFilesAtATime) {
    for (int i = 10; i < 40; ++i)
        folder.write("docs/" + std::to_string(i) + ".docx",
                     i % 10 == 0 ? "no ZIP file" : zipBytes(withContentTypes({{"a.xml", std::to_string(i)}})));
    std::vector<std::string> words{"pack", "-j", "4"};
    for (int i = 10; i < 40; ++i)
        words.push_back("docs/" + std::to_string(i) + ".docx");

    auto const result = run(words);

    EXPECT_EQ(result.status, 3);
    EXPECT_THAT(result.errors, EndsWith("opctext: packed 27 of 30 files\n"));
    EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 4);
    for (int i = 10; i < 40; ++i) {
        auto const output = "docs/" + std::to_string(i) + ".docx.txt";
        if (i % 10 == 0) {
            EXPECT_FALSE(fs::exists(folder / output));
        } else {
            EXPECT_EQ(folder.read(output), textWith({{"/a.xml", std::to_string(i)}}));
        }
    }
}

// damage everywhere

/// Tests that damage one small ZIP file in many places, and pack all the results in one run.
class OpctextPackDamaged : private testsupport::FoldersInMemory, public OpctextPack {
protected:
    std::string const whole = zipBytes(withContentTypes(
        {{"word/document.xml", std::string(60, 'd') + "<w/>\r\n"}, {"b.bin", mixedBytes(40), testsupport::Stored}}));
    std::string const text = textWith(
        {{"/b.bin", base64Lines(mixedBytes(40)), true}, {"/word/document.xml", std::string(60, 'd') + "<w/>\r\n"}});

    /// Packs the ZIP files; returns which of them were packed.
    std::vector<std::size_t> packAll(std::vector<std::string> const& zips) const {
        std::vector<std::string> words{"pack", "-j", "2"};
        for (std::size_t i = 0; i < zips.size(); ++i) {
            words.push_back("d" + std::to_string(i));
            folder.write(words.back(), zips[i]);
        }
        auto const result = run(words);
        EXPECT_EQ(result.signal, 0) << result;
        std::vector<std::size_t> found;
        for (std::size_t i = 0; i < zips.size(); ++i) {
            if (fs::exists(folder / ("d" + std::to_string(i) + ".txt")))
                found.push_back(i);
        }
        EXPECT_THAT(result.errors, EndsWith("opctext: packed " + std::to_string(found.size()) + " of " +
                                            std::to_string(zips.size()) + " files\n"));
        EXPECT_EQ(folder.entries().size(), zips.size() + found.size());
        return found;
    }
};

TEST_F(OpctextPackDamaged, IsPackedWhereItIsWhole) {
    EXPECT_THAT(packAll({whole, whole}), ElementsAre(0, 1));

    EXPECT_EQ(folder.read("d0.txt"), text);
}

TEST_F(OpctextPackDamaged, IsRefusedWhereverItIsCutOff) {
    std::vector<std::string> zips;
    for (std::size_t size = 0; size < whole.size(); ++size)
        zips.push_back(whole.substr(0, size));

    EXPECT_THAT(packAll(zips), ElementsAre());
}

/// The parameter holds the bits that are wrong.
class OpctextPackDamagedByte : public OpctextPackDamaged, public ::testing::WithParamInterface<int> {};

TEST_P(OpctextPackDamagedByte, IsRefusedOrPackedRight) {
    std::vector<std::string> zips;
    for (std::size_t at = 0; at < whole.size(); ++at) {
        zips.push_back(whole);
        zips.back()[at] = static_cast<char>(zips.back()[at] ^ GetParam());
    }

    std::vector<std::string> wrong;
    for (auto const at : packAll(zips)) {
        if (folder.read("d" + std::to_string(at) + ".txt") != text)
            wrong.push_back("byte " + std::to_string(at));
    }
    EXPECT_THAT(wrong, ElementsAre());
}

INSTANTIATE_TEST_SUITE_P(Each, OpctextPackDamagedByte, ::testing::Values(0xFF, 0x01),
                         [](auto const& bits) { return bits.param == 0x01 ? "OneBit" : "AllBits"; });

} // namespace
