#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <tests/support/Base64Lines.hpp>
#include <tests/support/OpctextFixture.hpp>
#include <tests/support/PackageFixture.hpp>
#include <tests/support/Permissions.hpp>
#include <tests/support/TracedProgram.hpp>

namespace fs = std::filesystem;

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using testsupport::base64Lines;
using testsupport::fails;
using testsupport::headerOfLines;
using testsupport::limitingFileSize;
using testsupport::mixedBytes;
using testsupport::openingParts;
using testsupport::packageText;
using testsupport::PartText;
using testsupport::ProgramCall;
using testsupport::ProgramResult;
using testsupport::succeeds;

namespace {

std::string const Begin = "__ZKOPC_PACKAGE_BEGIN__ V3508k\n";
std::string const ContentTypes = "__ZKOPC_PART_BEGIN__ /[Content_Types].xml\n<Types/>\n";
std::string const End = "__ZKOPC_PACKAGE_END__\n";

class OpctextEdit : public testsupport::OpctextFixture {
protected:
    /// Gives a part the content, with further words on the command line.
    ProgramResult set(std::string const& part, std::string const& content,
                      std::vector<std::string> const& more = {}) const {
        std::vector<std::string> words{"set", "p.txt", part};
        words.insert(words.end(), more.begin(), more.end());
        return run(words, content);
    }

    /// Does something that must be refused, and proves that it leaves the package file, and nothing else.
    template <class Action>
    void expectRefused(Action action, int status, std::string const& message) const {
        SCOPED_TRACE(message);
        auto const before = package();
        auto const entries = folder.entries();

        EXPECT_THAT(action(), fails(status, message));

        EXPECT_EQ(package(), before);
        EXPECT_EQ(folder.entries(), entries);
    }
};

// create

using OpctextCreate = OpctextEdit;

TEST_F(OpctextCreate, MakesAPackageWithNothingButAnEmptyListOfContentTypes) {
    EXPECT_THAT(run({"create", "p.txt"}), succeeds());

    EXPECT_EQ(package(), "__ZKOPC_PACKAGE_BEGIN__ V3508k\n"
                         "__ZKOPC_PART_BEGIN__ /[Content_Types].xml\n"
                         "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\n"
                         "<Types xmlns=\"http://schemas.openxmlformats.org/package/2006/content-types\"/>\n"
                         "\n"
                         "__ZKOPC_PACKAGE_END__\n");
    EXPECT_THAT(folder.entries(), ElementsAre("p.txt"));
    EXPECT_THAT(run({"check", "--strict", "p.txt"}), succeeds());
}

TEST_F(OpctextCreate, OverwritesNothingUnlessAskedTo) {
    folder.write("p.txt", "something else");

    expectRefused([&] { return run({"create", "p.txt"}); }, 4, "opctext: p.txt: exists already; -f overwrites it\n");

    EXPECT_THAT(run({"create", "-f", "p.txt"}), succeeds());
    EXPECT_THAT(package(), StartsWith(Begin));
}

TEST_F(OpctextCreate, KeepsTheFileThatItOverwritesWhereAskedTo) {
    folder.write("p.txt", "something else");

    EXPECT_THAT(run({"create", "--force", "--backup", "p.txt"}), succeeds());

    EXPECT_THAT(package(), StartsWith(Begin));
    EXPECT_EQ(folder.read("p.txt.bak"), "something else");
}

TEST_F(OpctextCreate, ReplacesNoFolder) {
    fs::create_directory(folder / "out");

    auto const result = run({"create", "-f", "out"});

    EXPECT_THAT(result, fails(4, "opctext: out: this is a folder or a device, not a file\n"));
    EXPECT_TRUE(fs::is_directory(folder / "out"));
}

TEST_F(OpctextCreate, SaysThatTheFolderIsMissing) {
    auto const result = run({"create", "not/there.txt"});

    EXPECT_EQ(result.status, 4);
    EXPECT_THAT(result.errors, StartsWith("opctext: not/there.txt: "));
    EXPECT_THAT(result.errors, HasSubstr("No such file or directory"));
    EXPECT_THAT(folder.entries(), ElementsAre());
}

TEST_F(OpctextCreate, GivesTheFileThePermissionsThatTheUmaskLeaves) {
    ProgramCall call;
    call.words = {"create", "p.txt"};
    call.inChild = [] { ::umask(027); };

    EXPECT_THAT(run(call), succeeds());

    EXPECT_EQ(testsupport::permissionsOf(folder / "p.txt"), 0640U);
}

// set

using OpctextSet = OpctextEdit;

TEST_F(OpctextSet, AddsATextPartInItsPlace) {
    writePackage({{"/z", "z"}}, "A header.");

    EXPECT_THAT(set("/new.xml", "<new>\r\n</new>\n"), succeeds());

    EXPECT_EQ(package(), "A header.\n"
                         "__ZKOPC_PACKAGE_BEGIN__ V3508k\n"
                         "__ZKOPC_PART_BEGIN__ /[Content_Types].xml\n"
                         "<Types/>\n"
                         "__ZKOPC_PART_BEGIN__ /_rels/.rels\n"
                         "<Relationships/>\n"
                         "__ZKOPC_PART_BEGIN__ /a.xml\n"
                         "<a/>\n"
                         "__ZKOPC_PART_BEGIN__ /new.xml\n"
                         "<new>\r\n"
                         "</new>\n"
                         "\n"
                         "__ZKOPC_PART_BEGIN__ /z\n"
                         "z\n"
                         "__ZKOPC_PACKAGE_END__\n");
}

TEST_F(OpctextSet, AddsABinaryPartAsBase64) {
    writePackage();

    EXPECT_THAT(set("/new.bin", std::string("\0\1\2\3\4", 5)), succeeds());

    EXPECT_EQ(package(), packageText(openingParts({{"/new.bin", "AAECAwQ=", true}})));
}

TEST_F(OpctextSet, TakesTheContentFromAFileOrFromStandardInput) {
    writePackage();
    folder.write("content", "from a file");

    EXPECT_THAT(run({"set", "p.txt", "/f", "--from", "content"}, "ignored"), succeeds());
    EXPECT_THAT(run({"set", "p.txt", "/s", "--from", "-"}, "from standard input"), succeeds());

    EXPECT_EQ(package(), packageText(openingParts({{"/f", "from a file"}, {"/s", "from standard input"}})));
}

TEST_F(OpctextSet, LetsTheContentDecideBetweenTextAndBinary) {
    struct Case {
        std::string content;
        bool isText;
    };
    std::vector<Case> const cases{
        {"", true},
        {"plain", true},
        {"tab\tLF\nCR LF\r\nlone CR\rx", true},
        {"ends in LF\n", true},
        {"ends in CR LF\r\n", true},
        {"\xEF\xBB\xBF<bom/>", true},
        {"größe дом 大 \xF0\x9F\x98\x80", true},
        {"\xEF\xBF\xBF U+FFFF", true},
        {"ends in CR\r", false},
        {"\r", false},
        {std::string("NUL\0", 4), false},
        {"\x01", false},
        {"\b", false},
        {"\v", false},
        {"\f", false},
        {"\x1B[0m", false},
        {"\x1F", false},
        {"\x7F", false},
        {"\xC2\x85 next line", false},
        {"\xFF", false},
        {"\xC3", false},
        {"overlong \xC0\x80", false},
        {"surrogate \xED\xA0\x80", false},
        {"beyond \xF4\x90\x80\x80", false},
        {std::string("U\0T\0", 4), false},
    };

    for (auto const& [content, isText] : cases) {
        SCOPED_TRACE(content);
        writePackage();

        EXPECT_THAT(set("/part", content), succeeds());

        EXPECT_EQ(package(), packageText(openingParts({{"/part", isText ? content : base64Lines(content), !isText}})));
    }
}

TEST_F(OpctextSet, StoresAsAskedFor) {
    std::string const bytes("NUL\0\xFF\x1B", 6);
    writePackage();

    EXPECT_THAT(set("/binary", "text", {"--binary"}), succeeds());
    EXPECT_THAT(set("/empty", "", {"--binary"}), succeeds());
    EXPECT_THAT(set("/text", bytes, {"--text"}), succeeds());

    EXPECT_EQ(package(),
              packageText(openingParts({{"/binary", "dGV4dA==", true}, {"/empty", "", true}, {"/text", bytes}})));
    EXPECT_THAT(run({"cat", "p.txt", "/empty", "/text", "/binary"}), succeeds(bytes + "text"));
}

TEST_F(OpctextSet, CutsBase64IntoLinesOf76Characters) {
    for (std::size_t const count : {56U, 57U, 58U, 152U, 1000U}) {
        SCOPED_TRACE(count);
        writePackage();

        EXPECT_THAT(set("/b", mixedBytes(count), {"--binary"}), succeeds());

        EXPECT_EQ(package(), packageText(openingParts({{"/b", base64Lines(mixedBytes(count)), true}})));
    }
}

TEST_F(OpctextSet, ReplacesTheContentOfAPartAndKeepsTheSpellingOfItsName) {
    writePackage({{"/Word/Document.xml", "older and longer"}, {"/z", "z"}});

    EXPECT_THAT(set("/wORD/document.XML", "new"), succeeds());

    EXPECT_EQ(package(), packageText(openingParts({{"/Word/Document.xml", "new"}, {"/z", "z"}})));
}

TEST_F(OpctextSet, TurnsATextPartIntoABinaryOneAndBack) {
    writePackage({{"/z", "z"}});
    auto const before = package();

    EXPECT_THAT(set("/a.xml", "<a/>", {"--binary"}), succeeds());

    EXPECT_EQ(package(), packageText({{"/[Content_Types].xml", "<Types/>"},
                                      {"/_rels/.rels", "<Relationships/>"},
                                      {"/a.xml", "PGEvPg==", true},
                                      {"/z", "z"}}));
    EXPECT_THAT(set("/A.XML", "<a/>"), succeeds());
    EXPECT_EQ(package(), before);
}

TEST_F(OpctextSet, ReplacesTheContentTypesPart) {
    writePackage();

    EXPECT_THAT(set("/[content_types].XML", "<Types>new</Types>"), succeeds());

    EXPECT_EQ(package(), packageText({{"/[Content_Types].xml", "<Types>new</Types>"},
                                      {"/_rels/.rels", "<Relationships/>"},
                                      {"/a.xml", "<a/>"}}));
}

TEST_F(OpctextSet, WritesPartsInTheOrderOfTheFormat) {
    folder.write("p.txt", packageText({{"/[Content_Types].xml", "<Types/>"}, {"/B", "B"}}));

    for (std::string const name : {"/c", "/_rels/.rels", "/Metadata/z", "/metadata/a", "/a"})
        EXPECT_THAT(set(name, name), succeeds());

    EXPECT_THAT(run({"list", "-1", "p.txt"}), succeeds("/[Content_Types].xml\n/_rels/.rels\n/metadata/a\n/Metadata/z\n"
                                                       "/a\n/B\n/c\n"));
}

TEST_F(OpctextSet, LeavesEveryByteOfTheOtherPartsAlone) {
    std::vector<PartText> const parts{{"/crlf", "one\r\ntwo\r\n\n\r\n"},
                                      {"/damaged.bin", "not Base64 at all!", true},
                                      {"/empty", ""},
                                      {"/lines.bin", "AAAA\nAAAA\nAA==", true},
                                      {"/nul", std::string("\0\xFF\x1B", 3)}};
    auto const with = [&](std::string const& content) {
        auto all = parts;
        all.push_back({"/z", content});
        return packageText(openingParts(all), "Header\r\n\n  text ");
    };
    folder.write("p.txt", with("old"));

    EXPECT_THAT(set("/z", "new"), succeeds());

    EXPECT_EQ(package(), with("new"));
}

TEST_F(OpctextSet, RefusesTextThatBeginsAMarkerInAnyForm) {
    writePackage();
    std::string const reason = "the text __ZKOPC_PA, which begins the marker lines of the format, stands in line ";
    struct Case {
        std::string content;
        std::string line;
    };
    std::vector<Case> const cases{
        {"__ZKOPC_PA", "1"}, {"x\nyy__ZKOPC_PART_BEGIN__\n", "2"}, {std::string("\0\n\n__ZKOPC_PA", 13), "3"}};

    for (auto const& [content, line] : cases) {
        for (auto const& form : {std::vector<std::string>{}, {"--text"}, {"--binary"}})
            expectRefused([&, &text = content] { return set("/a.xml", text, form); }, 2,
                          "opctext: p.txt: part /a.xml: " + reason + line +
                              " of the content; no package can hold it\n");
    }
    EXPECT_THAT(set("/a.xml", "__ZKOPC_P and _ZKOPC_PA"), succeeds());
}

TEST_F(OpctextSet, RefusesTextThatEndsInCr) {
    writePackage();

    expectRefused([&] { return set("/a.xml", "text\r", {"--text"}); }, 2,
                  "opctext: p.txt: part /a.xml: the content ends in CR, which would be lost in a text part; store it "
                  "with --binary\n");
}

TEST_F(OpctextSet, RefusesNamesThatTheFormatCanNotHold) {
    writePackage();
    struct Case {
        std::string name;
        std::string message;
    };
    std::vector<Case> const cases{
        {"", "part : a part name begins with \"/\""},
        {"b", "part b: a part name begins with \"/\""},
        {"./b", "part ./b: a part name begins with \"/\""},
        {"/b c", "part /b c: a part name must not hold a space"},
        {"/b ", "part /b : a part name must not hold a space"},
        {"/b\nc", "part /b\\x0Ac: a part name must not hold a line break"},
        {"/b\rc", "part /b\\x0Dc: a part name must not hold a line break"},
        {"/", "part /: Not a usable part name: \"/\": it is empty"},
        {"/b/", "part /b/: Not a usable part name: \"/b/\": it has an empty segment"},
        {"//b", "part //b: Not a usable part name: \"//b\": it has an empty segment"},
        {"/b//c", "part /b//c: Not a usable part name: \"/b//c\": it has an empty segment"},
        {"/.", "part /.: Not a usable part name: \"/.\": it has a dot segment"},
        {"/..", "part /..: Not a usable part name: \"/..\": it has a dot segment"},
        {"/b/../c", "part /b/../c: Not a usable part name: \"/b/../c\": it has a dot segment"},
        {"/b/./c", "part /b/./c: Not a usable part name: \"/b/./c\": it has a dot segment"},
        {"/[trash]/0000.dat",
         "part /[trash]/0000.dat: a part whose name begins with \"/[trash]\" is dropped when a package is read"},
        {"/b\xFF", "part /b\xFF: Ill-formed UTF-8 at byte 2 of \"/b\xEF\xBF\xBD\""},
        {"/a.xml/b", "part /a.xml/b: no file system could hold it beside part /a.xml"},
        {"/A.XML/b/c", "part /A.XML/b/c: no file system could hold it beside part /a.xml"},
        {"/_rels", "part /_rels: no file system could hold it beside part /_rels/.rels"},
    };

    for (auto const& [name, message] : cases)
        expectRefused([&, &part = name] { return set(part, "content"); }, 2, "opctext: p.txt: " + message + "\n");
}

TEST_F(OpctextSet, ShowsNoControlCharacterOfANameThatItRefuses) {
    writePackage();

    auto const result = set("/b\x1B[2J/", "content");

    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.errors, ::testing::Not(HasSubstr("\x1B")));
}

TEST_F(OpctextSet, TakesNamesThatLookOddButAreFine) {
    writePackage();

    for (std::string const name :
         {"/...", "/.b", "/b.", "/größe/大\xF0\x9F\x98\x80", "/[b]", "/b%20c", "/-", "/b\\c"}) {
        SCOPED_TRACE(name);
        EXPECT_THAT(set(name, name), succeeds());
        EXPECT_THAT(run({"cat", "p.txt", name}), succeeds(name));
    }
    EXPECT_THAT(run({"check", "--strict", "p.txt"}), succeeds());
}

TEST_F(OpctextSet, TakesNamesThatAreTooLongForAFileSystem) {
    writePackage();
    std::string const name = "/" + std::string(300, 'n') + "/" + std::string(300, 'm');

    EXPECT_THAT(set(name, "text"), succeeds());

    EXPECT_EQ(package(), packageText(openingParts({{name, "text"}})));
}

TEST_F(OpctextSet, RefusesContentThatCanNotBeRead) {
    writePackage();

    expectRefused(
        [&] {
            return run({"set", "p.txt", "/a.xml", "--from", "gone"});
        },
        4, "opctext: gone: Could not open \"gone\": No such file or directory\n");
    expectRefused(
        [&] {
            return run({"set", "p.txt", "/a.xml", "--from", "."});
        },
        4, "opctext: .: Could not open \".\": Is a directory\n");
    expectRefused(
        [&] {
            return run({"set", "p.txt", "/a.xml", "--from", "/proc/self/mem"});
        },
        4, "opctext: /proc/self/mem: Could not read \"/proc/self/mem\": Input/output error\n");
}

TEST_F(OpctextSet, RefusesStandardInputThatCanNotBeRead) {
    ProgramCall call;
    call.words = {"set", "p.txt", "/a.xml"};
    std::vector<std::pair<std::function<void()>, std::string>> const unreadable{
        {[] { ::dup2(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC), STDIN_FILENO); }, "Is a directory"},
        {[] { ::close(STDIN_FILENO); }, "Bad file descriptor"},
        {[] { ::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), STDIN_FILENO); }, "Bad file descriptor"},
    };

    for (auto const& [make, reason] : unreadable) {
        writePackage();
        call.inChild = make;

        expectRefused([&] { return run(call); }, 4, "opctext: standard input: " + reason + "\n");
    }
}

TEST_F(OpctextSet, MakesNoPackageWhereThereIsNone) {
    EXPECT_THAT(set("/a.xml", "text"), fails(4, "opctext: p.txt: there is no such file\n"));

    EXPECT_THAT(folder.entries(), ElementsAre());
}

TEST_F(OpctextSet, LeavesAFileThatIsNoPackageAlone) {
    folder.write("p.txt", "no package\n");

    expectRefused([&] { return set("/a.xml", "text"); }, 3,
                  "opctext: p.txt: line 1: Reached end of file without finding ZKOPC_PACKAGE_BEGIN marker\n");
}

// rm

using OpctextRemove = OpctextEdit;

TEST_F(OpctextRemove, RemovesPartsWhateverTheCaseOfLetters) {
    writePackage({{"/b.bin", "AAA=", true}, {"/c", "c"}}, "A header.");

    EXPECT_THAT(run({"rm", "p.txt", "/A.XML", "/b.bin"}), succeeds());

    EXPECT_EQ(package(),
              packageText({{"/[Content_Types].xml", "<Types/>"}, {"/_rels/.rels", "<Relationships/>"}, {"/c", "c"}},
                          "A header."));
}

TEST_F(OpctextRemove, RemovesAPartThatIsNamedTwiceOnce) {
    writePackage();

    EXPECT_THAT(run({"rm", "p.txt", "/a.xml", "/A.xml"}), succeeds());

    EXPECT_THAT(run({"list", "-1", "p.txt"}), succeeds("/[Content_Types].xml\n/_rels/.rels\n"));
}

TEST_F(OpctextRemove, RemovesNothingWhereOneOfThePartsIsMissing) {
    writePackage();

    expectRefused(
        [&] {
            return run({"rm", "p.txt", "/a.xml", "/a.xlm"});
        },
        4, "opctext: p.txt: there is no part /a.xlm; did you mean /a.xml?\n");
}

TEST_F(OpctextRemove, NeverRemovesTheContentTypesPart) {
    writePackage();

    for (std::string const name : {"/[Content_Types].xml", "/[CONTENT_types].xml"})
        expectRefused(
            [&] {
                return run({"rm", "p.txt", "/a.xml", name});
            },
            2, "opctext: p.txt: part /[Content_Types].xml stays: no package can be opened without it\n");
}

TEST_F(OpctextRemove, TakesANameInBracketsForTheNameThatItIs) {
    writePackage();
    auto const before = package();

    EXPECT_EQ(run({"rm", "p.txt", "[/a.xml,/_rels/.rels]"}).status, 4);

    EXPECT_EQ(package(), before);
}

// header

using OpctextHeader = OpctextEdit;

TEST_F(OpctextHeader, ShowsTheLinesAboveThePackage) {
    writePackage({}, "First line\n\n  third line");
    auto const before = package();

    EXPECT_THAT(run({"header", "p.txt"}), succeeds("First line\n\n  third line\n"));

    EXPECT_EQ(package(), before);
}

TEST_F(OpctextHeader, SetsReplacesAndClearsTheText) {
    std::vector<PartText> const parts{{"/b.bin", "AAA=", true}, {"/c", "one\r\ntwo\n"}};
    auto const with = [&](std::string const& header) { return packageText(openingParts(parts), header); };
    writePackage(parts);

    EXPECT_THAT(run({"header", "p.txt", "--set", "größer\nand better"}), succeeds());
    EXPECT_EQ(package(), with("größer\nand better"));
    EXPECT_THAT(run({"header", "p.txt", "--set", "another"}), succeeds());
    EXPECT_EQ(package(), with("another"));
    EXPECT_THAT(run({"header", "p.txt", "--clear"}), succeeds());
    EXPECT_EQ(package(), with(""));
    EXPECT_THAT(run({"header", "p.txt"}), succeeds(""));
    EXPECT_THAT(run({"header", "p.txt", "--set", "again"}), succeeds());
    EXPECT_THAT(run({"header", "p.txt", "--set", ""}), succeeds());
    EXPECT_EQ(package(), with(""));
}

TEST_F(OpctextHeader, TakesTheTextFromAFileOrFromStandardInput) {
    writePackage();
    folder.write("text", "from\na file\n");

    EXPECT_THAT(run({"header", "p.txt", "--from", "text"}), succeeds());
    EXPECT_EQ(package(), packageText(openingParts(), "from\na file"));
    EXPECT_THAT(run({"header", "p.txt", "--from", "-"}, "without a line break"), succeeds());
    EXPECT_EQ(package(), packageText(openingParts(), "without a line break"));
}

TEST_F(OpctextHeader, SurvivesBeingShownAndSetAgain) {
    for (std::string const header : {"one", "CR LF\r\nlines\r", "\n\n", " spaces ", "\ttab"}) {
        SCOPED_TRACE(header);
        writePackage({}, header);
        auto const before = package();
        auto const shown = run({"header", "p.txt"}).output;
        ASSERT_THAT(run({"header", "p.txt", "--clear"}), succeeds());

        EXPECT_THAT(run({"header", "p.txt", "--from", "-"}, shown), succeeds());

        EXPECT_EQ(package(), before);
    }
}

TEST_F(OpctextHeader, TakesTwentyLineBreaks) {
    writePackage();

    EXPECT_THAT(run({"header", "p.txt", "--set", headerOfLines(21)}), succeeds());

    EXPECT_EQ(package(), packageText(openingParts(), headerOfLines(21)));
    EXPECT_THAT(run({"check", "--strict", "p.txt"}), succeeds());
}

TEST_F(OpctextHeader, RefusesTextThatNoFileCanHold) {
    writePackage({}, "A header.");
    struct Case {
        std::string text;
        std::string message;
    };
    std::vector<Case> const cases{
        {headerOfLines(22), "Header must not have more than 20 lines"},
        {"PK", "Header must not start with the characters 'PK'"},
        {"x\ny __ZKOPC_PACKAGE_BEGIN__", "Header must not contain the __ZKOPC_PACKAGE_BEGIN__ marker"},
        {"x\xFF", "Ill-formed UTF-8 at byte 1 of \"x\xEF\xBF\xBD\""},
    };

    for (auto const& [text, message] : cases)
        expectRefused(
            [&, &header = text] {
                return run({"header", "p.txt", "--set", header});
            },
            2, "opctext: p.txt: " + message + "\n");
}

TEST_F(OpctextHeader, RefusesTextThatCanNotBeRead) {
    writePackage({}, "A header.");

    expectRefused(
        [&] {
            return run({"header", "p.txt", "--from", "gone"});
        },
        4, "opctext: gone: Could not open \"gone\": No such file or directory\n");
}

TEST_F(OpctextHeader, RefusesStandardInputThatCanNotBeRead) {
    writePackage({}, "A header.");
    ProgramCall call;
    call.words = {"header", "p.txt", "--from", "-"};
    call.inChild = [] { ::dup2(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC), STDIN_FILENO); };

    expectRefused([&] { return run(call); }, 4, "opctext: standard input: Is a directory\n");
}

// What all edits promise; the parameter holds the words of one that would change the package.

class OpctextEachEdit : public OpctextEdit, public ::testing::WithParamInterface<std::vector<std::string>> {
protected:
    ProgramResult edit(std::vector<std::string> const& more = {}) const {
        auto words = GetParam();
        words.insert(words.end(), more.begin(), more.end());
        return run(words, "content");
    }
};

INSTANTIATE_TEST_SUITE_P(EachCommand, OpctextEachEdit,
                         ::testing::Values(std::vector<std::string>{"set", "p.txt", "/new.xml"},
                                           std::vector<std::string>{"rm", "p.txt", "/a.xml"},
                                           std::vector<std::string>{"header", "p.txt", "--set", "new"}),
                         [](auto const& edit) { return edit.param.front(); });

TEST_P(OpctextEachEdit, KeepsThePermissions) {
    for (auto const permissions : {0640, 0666, 0600, 0755}) {
        SCOPED_TRACE(permissions);
        writePackage();
        fs::permissions(folder / "p.txt", static_cast<fs::perms>(permissions));

        EXPECT_THAT(edit(), succeeds());

        EXPECT_EQ(testsupport::permissionsOf(folder / "p.txt"), static_cast<unsigned>(permissions));
    }
}

TEST_P(OpctextEachEdit, LeavesNothingBesideThePackage) {
    writePackage();

    EXPECT_THAT(edit(), succeeds());

    EXPECT_THAT(folder.entries(), ElementsAre("p.txt"));
}

TEST_P(OpctextEachEdit, KeepsTheOldFileWhereAskedTo) {
    writePackage();
    folder.write("p.txt.bak", "an older backup");
    auto const before = package();

    EXPECT_THAT(edit({"--backup"}), succeeds());

    EXPECT_NE(package(), before);
    EXPECT_EQ(folder.read("p.txt.bak"), before);
    EXPECT_THAT(folder.entries(), ElementsAre("p.txt", "p.txt.bak"));
}

TEST_P(OpctextEachEdit, ChangesTheFileBehindALinkAndKeepsTheLink) {
    writePackage();
    fs::create_directory(folder / "real");
    fs::rename(folder / "p.txt", folder / "real" / "q.txt");
    fs::create_symlink("real/q.txt", folder / "p.txt");
    auto const before = package();

    EXPECT_THAT(edit(), succeeds());

    EXPECT_EQ(fs::read_symlink(folder / "p.txt"), "real/q.txt");
    EXPECT_NE(folder.read("real/q.txt"), before);
    EXPECT_THAT(run({"check", "p.txt"}), succeeds());
}

TEST_P(OpctextEachEdit, IsRefusedWhereItWouldLoseSomething) {
    auto const whole = packageText(openingParts());
    auto const withPart = [&](std::string const& lines) {
        auto text = whole;
        return text.insert(text.size() - End.size(), lines);
    };
    struct Case {
        std::string file;
        std::string finding;
    };
    std::vector<Case> const cases{
        {whole.substr(0, whole.size() - End.size()),
         "p.txt:7: error: the package-end line is missing: part /a.xml is cut off and counts as missing"},
        {whole + "\n",
         "p.txt:9: error: there are lines after the package-end line, which nothing reads and an edit would lose"},
        {withPart("__ZKOPC_PART_BEGIN__ /a.xml\nagain\n"), "p.txt:8: error: part /a.xml was there before, at line 6"},
        {withPart("__ZKOPC_PART_BEGIN__ /[trash]/0000.dat\nx\n"),
         "p.txt:8: error: part /[trash]/0000.dat: a part whose name begins with \"/[trash]\" is dropped when a package "
         "is read"},
        {withPart("__ZKOPC_PART_BEGIN__ /b c\nx\n"),
         "p.txt:8: error: the part name ends at its first space, and what follows, \"c\", is not BASE64"},
        {withPart("__ZKOPC_PART_BEGIN__ /b/../c\nx\n"),
         "p.txt:8: error: part /b/../c: Not a usable part name: \"/b/../c\": it has a dot segment"},
        {withPart("__ZKOPC_PART_BEGIN__\nx\n"), "p.txt:8: error: a part begins here, but its name is missing"},
    };

    for (auto const& [file, finding] : cases) {
        folder.write("p.txt", file);

        expectRefused([&] { return edit(); }, 3,
                      "opctext: " + finding +
                          "\nopctext: p.txt: not changed, since an edit would make this worse; see opctext check\n");
    }
}

TEST_P(OpctextEachEdit, LeavesTheFileOfSomebodyElseWhoChangedItInTheMeantime) {
    if (auto const reason = testsupport::whyNotTraced(); !reason.empty())
        GTEST_SKIP() << reason;
    writePackage();
    auto const theirs = packageText(openingParts({{"/theirs", "theirs"}}));
    testsupport::RunningProgram program(delayed("fsync", 500000, GetParam(), "content"));
    // Until the new file stands beside the old one; it then waits for its fsync.
    for (int tries = 0; folder.entries().size() < 2 && tries < 5000; ++tries)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));

    folder.write("p.txt", theirs);

    auto const result = program.wait();
    EXPECT_NE(result.status, 0);
    EXPECT_EQ(result.errors, "opctext: p.txt: somebody else changed the file in the meantime; theirs is left, and your "
                             "change is not in it\n");
    EXPECT_EQ(package(), theirs);
    EXPECT_THAT(folder.entries(), ElementsAre("p.txt"));
}

TEST_P(OpctextEachEdit, LeavesTheOldFileOrTheNewOneWhereFilesMayNotGrow) {
    std::vector<PartText> const parts{{"/b.bin", base64Lines(mixedBytes(3000)), true}, {"/c", std::string(9000, 'c')}};
    writePackage(parts);
    auto const before = package();
    ASSERT_THAT(edit(), succeeds());
    auto const after = package();
    ProgramCall call;
    call.words = GetParam();
    call.input = "content";

    for (::rlim_t const bytes : {0UL, 1UL, 100UL, 4096UL, 8192UL, before.size() - 1, before.size(), after.size() - 1,
                                 after.size(), after.size() + 1}) {
        SCOPED_TRACE(bytes);
        writePackage(parts);
        call.inChild = limitingFileSize(bytes);

        auto const result = run(call);

        bool const fits = bytes >= before.size() && bytes >= after.size();
        EXPECT_EQ(result.status, fits ? 0 : 4) << result;
        EXPECT_EQ(package(), fits ? after : before);
        EXPECT_THAT(result.errors, StartsWith(fits ? "" : "opctext: p.txt: "));
        EXPECT_THAT(folder.entries(), ElementsAre("p.txt"));
    }
}

TEST_P(OpctextEachEdit, LeavesAPackageInAFolderThatItMayNotWriteTo) {
    if (testsupport::runsAsRoot())
        GTEST_SKIP() << "root may write everywhere";
    writePackage();
    fs::permissions(folder.path(), fs::perms::owner_read | fs::perms::owner_exec);

    auto const before = package();
    auto const result = edit();

    fs::permissions(folder.path(), fs::perms::owner_all);
    EXPECT_EQ(result.status, 4);
    EXPECT_THAT(result.errors, StartsWith("opctext: p.txt: "));
    EXPECT_THAT(result.errors, HasSubstr("Permission denied"));
    EXPECT_EQ(package(), before);
}

class OpctextEditCorpus : public OpctextEdit, public ::testing::WithParamInterface<fs::path> {};

INSTANTIATE_TEST_SUITE_P(EachPackage, OpctextEditCorpus, ::testing::ValuesIn(testsupport::corpusPackages()),
                         testsupport::corpusTestName);

TEST_P(OpctextEditCorpus, LeavesEveryByteOfRealPackagesAloneButWhatItChanges) {
    auto const before = testsupport::readFile(GetParam());
    folder.write("p.txt", before);
    std::string const last = "/\xEF\xBF\xBD"; // sorts after all other names

    EXPECT_THAT(set(last, "new\r\n"), succeeds());
    EXPECT_EQ(package(),
              before.substr(0, before.size() - End.size()) + "__ZKOPC_PART_BEGIN__ " + last + "\nnew\r\n\n" + End);
    EXPECT_THAT(run({"rm", "p.txt", last}), succeeds());
    EXPECT_EQ(package(), before);
    EXPECT_THAT(run({"header", "p.txt", "--set", "A header."}), succeeds());
    EXPECT_EQ(package(), "A header.\n" + before.substr(before.find(Begin)));
}

} // namespace
