#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>

#include <gmock/gmock.h>

#include <opccore/Base64.hpp>
#include <opccore/CommitOptions.hpp>
#include <opccore/Exception.hpp>
#include <opccore/IPhysicalInputStream.hpp>
#include <opccore/IPhysicalOutputStream.hpp>
#include <tests/support/Base64Lines.hpp>
#include <tests/support/FailingAllocations.hpp>
#include <tests/support/PackageFixture.hpp>
#include <tests/support/Permissions.hpp>
#include <tests/support/Throws.hpp>
#include <textpackage/FilePart.hpp>
#include <textpackage/FilePartInfo.hpp>
#include <textpackage/TextFilePhysicalPackage.hpp>

namespace fs = std::filesystem;

using opc::CommitOptions;
using opc::interfaces::OpenMode;
using opc::textpackage::FilePart;
using opc::textpackage::FilePartInfo;
using opc::textpackage::TextFilePhysicalPackage;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using ::testing::StrEq;
using ::testing::ThrowsMessage;
using testsupport::addPart;
using testsupport::attemptWithout;
using testsupport::base64Lines;
using testsupport::contentOf;
using testsupport::headerOfLines;
using testsupport::namesIn;
using testsupport::openingParts;
using testsupport::packageText;
using testsupport::partOf;
using testsupport::PartText;
using testsupport::permissionsOf;
using testsupport::readAll;
using testsupport::readFile;
using testsupport::throwsPackageError;
using testsupport::toUtf8;
using testsupport::Umask;
using testsupport::withCrLf;
using testsupport::writeInto;

namespace {

/// Tells one state of a file from another: a file that was written anew has another inode or time stamp.
auto stampOf(fs::path const& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return std::make_tuple(status.st_ino, status.st_mtim.tv_sec, status.st_mtim.tv_nsec, status.st_size);
}

void setModificationTime(fs::path const& path, std::time_t seconds) {
    struct timespec const times[] = {{seconds, 123456789}, {seconds, 123456789}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

/// The part blocks of a package file, found by their markers alone: name to all that stands from the begin line on.
std::map<std::string, std::string> blocksOf(std::string const& file) {
    std::string const mark = "__ZKOPC_PART_BEGIN__ ";
    std::map<std::string, std::string> blocks;
    for (auto begin = file.find(mark); begin != std::string::npos;) {
        auto const next = file.find('\n' + mark, begin);
        auto const end = next != std::string::npos ? next : file.rfind("\n__ZKOPC_PACKAGE_END__\n");
        auto const nameAt = begin + mark.size();
        blocks[file.substr(nameAt, file.find_first_of(" \r\n", nameAt) - nameAt)] = file.substr(begin, end + 1 - begin);
        begin = next != std::string::npos ? next + 1 : next;
    }
    return blocks;
}

class Commit : public testsupport::PackageFixture {
protected:
    /// Opens the package of the folder, changes one part and commits.
    void commitAChange(CommitOptions const& options = {}) {
        TextFilePhysicalPackage package(folder.corePath("package.txt"));
        package.setCommitOptions(options);
        package.open(OpenMode::ReadWrite);
        writeInto(partOf(package, u"/a.xml"), "<changed/>");
        package.close(false);
    }

    /// Expects that closing fails, that the file is still this one, and that the package is closed.
    void expectRefused(TextFilePhysicalPackage& package, std::string const& message, std::string const& before) {
        EXPECT_THAT([&] { package.close(false); }, throwsPackageError(message));

        EXPECT_EQ(packageFile(), before);
        EXPECT_FALSE(package.isOpen());
        EXPECT_EQ(package.getExtractedPackageRoot(), u"");
        EXPECT_EQ(package.getModifiedPackageRoot(), u"");
        EXPECT_THAT(temporaryArea.entries(), IsEmpty());
    }

    std::string const changedText = packageText(
        {{"/[Content_Types].xml", "<Types/>"}, {"/_rels/.rels", "<Relationships/>"}, {"/a.xml", "<changed/>"}});
};

// --- When a commit is made

TEST_F(Commit, IsMadeOnlyOfAModifiedPackageThatIsOpenForWritingAndNotDiscarded) {
    struct Case {
        OpenMode mode;
        bool modify;
        bool discard;
        bool isCommitted;
    };
    std::vector<Case> const cases = {
        {OpenMode::Read, false, false, false},      {OpenMode::Read, false, true, false},
        {OpenMode::Read, true, false, false},       {OpenMode::Read, true, true, false},
        {OpenMode::ReadWrite, false, false, false}, {OpenMode::ReadWrite, false, true, false},
        {OpenMode::ReadWrite, true, false, true},   {OpenMode::ReadWrite, true, true, false},
        {OpenMode::Create, false, false, true}, // its content types part is new
        {OpenMode::Create, false, true, false},     {OpenMode::Create, true, false, true},
        {OpenMode::Create, true, true, false},
    };
    for (auto const& [mode, modify, discard, isCommitted] : cases) {
        SCOPED_TRACE("mode " + std::to_string(static_cast<int>(mode)) + (modify ? ", modified" : "") +
                     (discard ? ", discarded" : ""));
        auto const path = writePackage();
        auto const before = stampOf(folder / "package.txt");
        TextFilePhysicalPackage package(path);
        package.open(mode);
        if (modify)
            addPart(package, u"/new.xml", u"", "new");

        package.close(discard);

        EXPECT_EQ(stampOf(folder / "package.txt") != before, isCommitted);
        EXPECT_FALSE(package.isOpen());
        EXPECT_THAT(temporaryArea.entries(), IsEmpty());
    }
}

TEST_F(Commit, NeverWritesBackAPackageOpenedForReading) {
    auto const path = writePackage({{"/b.bin", "YWJj", true}});
    auto const before = packageFile();
    TextFilePhysicalPackage package(path);
    package.open(OpenMode::Read);
    writeInto(partOf(package, u"/a.xml"), "changed");
    writeInto(*package.getContentTypesPart(), "changed");
    addPart(package, u"/new.xml", u"", "new");
    package.deletePart(u"/b.bin");

    package.close(false);

    EXPECT_EQ(packageFile(), before);
}

TEST_F(Commit, LeavesTheFileAndItsTimeAloneWhereNothingWasModified) {
    auto const path = writePackage({{"/b.bin", "YWJj", true}}, "header");
    setModificationTime(folder / "package.txt", 1000000000);
    auto const before = stampOf(folder / "package.txt");
    TextFilePhysicalPackage package(path);
    package.open(OpenMode::ReadWrite);
    EXPECT_EQ(contentOf(package, u"/a.xml"), "<a/>");
    EXPECT_EQ(contentOf(package, u"/b.bin"), "abc"); // decoded: the part counts as changed, the package does not
    EXPECT_THROW(package.deletePart(u"/b.bin"), opc::Exception);
    EXPECT_THROW(package.deletePart(u"/none"), opc::Exception);

    package.close(false);

    EXPECT_EQ(stampOf(folder / "package.txt"), before);
}

TEST_F(Commit, IsMadeForEachKindOfChange) {
    std::vector<std::pair<char const*, std::function<void(TextFilePhysicalPackage&)>>> const changes = {
        {"a part created", [](auto& package) { package.createPart(u"/new", u"", FilePartInfo()); }},
        {"a part deleted", [](auto& package) { package.deletePart(u"/a.xml"); }},
        {"a part opened for writing", [](auto& package) { partOf(package, u"/a.xml").getOutputStream(); }},
        {"the content types part opened", [](auto& package) { package.getContentTypeOutputStream(); }},
    };
    for (auto const& change : changes) {
        TextFilePhysicalPackage package(writePackage());
        auto const before = packageFile();
        package.open(OpenMode::ReadWrite);
        change.second(package);

        package.close(false);

        EXPECT_NE(packageFile(), before) << change.first;
    }
}

TEST_F(Commit, IsNotMadeOnceTheChangesWereDiscarded) {
    TextFilePhysicalPackage package(writePackage());
    auto const before = stampOf(folder / "package.txt");
    package.open(OpenMode::ReadWrite);
    writeInto(partOf(package, u"/a.xml"), "changed");
    package.close(true);
    package.open(OpenMode::ReadWrite);

    package.close(false);

    EXPECT_EQ(stampOf(folder / "package.txt"), before);
}

TEST_F(Commit, IsNotMadeByTheDestructor) {
    auto const path = writePackage();
    auto const before = stampOf(folder / "package.txt");
    {
        TextFilePhysicalPackage package(path);
        package.open(OpenMode::ReadWrite);
        writeInto(partOf(package, u"/a.xml"), "changed");
        addPart(package, u"/new.xml", u"", "new");
    }

    EXPECT_EQ(stampOf(folder / "package.txt"), before);
    EXPECT_THAT(temporaryArea.entries(), IsEmpty());
}

TEST_F(Commit, FailsWithTheOldFileInPlaceOrSucceedsWithTheNewOneWhereMemoryFails) {
    writePackage({{"/b.bin", "AAECAwQ=", true}});
    auto const before = packageFile();
    commitAChange();
    auto const after = packageFile();
    for (std::size_t number = 0;; ++number) {
        TextFilePhysicalPackage package(writePackage({{"/b.bin", "AAECAwQ=", true}}));
        package.open(OpenMode::ReadWrite);
        writeInto(partOf(package, u"/a.xml"), "<changed/>");

        auto const attempt = attemptWithout(number, [&] { package.close(false); });

        EXPECT_EQ(packageFile(), attempt.failed ? before : after) << number;
        EXPECT_THAT(folder.entries(), ElementsAre("package.txt")) << number;
        EXPECT_THAT(temporaryPaths(), IsEmpty()) << number;
        if (!attempt.ranOutOfMemory)
            break;
    }
}

TEST_F(Commit, IsNotMadeByClosingAClosedPackage) {
    TextFilePhysicalPackage package(writePackage());
    auto const before = stampOf(folder / "package.txt");

    EXPECT_NO_THROW(package.close(false)); // never opened
    package.createPart(u"/new.xml", u"", FilePartInfo());
    EXPECT_NO_THROW(package.close(false));
    package.open(OpenMode::Read);
    package.close(true);
    EXPECT_NO_THROW(package.close(false));

    EXPECT_EQ(stampOf(folder / "package.txt"), before);
}

TEST_F(Commit, IsStillMadeAfterRevertChangesWhichOnlyClosesStreams) {
    TextFilePhysicalPackage package(writePackage({{"/b.bin", "YWJj", true}}));
    package.open(OpenMode::ReadWrite);
    auto& part = partOf(package, u"/a.xml");
    writeInto(part, "<changed/>");
    auto const names = namesIn(package);

    package.revertChanges();

    EXPECT_EQ(namesIn(package), names);
    EXPECT_TRUE(part.isModified());
    package.close(false);
    EXPECT_EQ(packageFile(), packageText({{"/[Content_Types].xml", "<Types/>"},
                                          {"/_rels/.rels", "<Relationships/>"},
                                          {"/a.xml", "<changed/>"},
                                          {"/b.bin", "YWJj", true}}));
}

TEST_F(Commit, TakesWhatIsWrittenAfterTheStreamsWereClosed) {
    for (auto const closeStreams : {&TextFilePhysicalPackage::closeParts, &TextFilePhysicalPackage::revertChanges}) {
        TextFilePhysicalPackage package(writePackage());
        package.open(OpenMode::ReadWrite);
        writeInto(partOf(package, u"/a.xml"), "what was written first, and is longer");

        (package.*closeStreams)();
        writeInto(partOf(package, u"/a.xml"), "<changed/>");
        package.close(false);

        EXPECT_EQ(packageFile(), changedText);
    }
}

// --- What a commit writes

TEST_F(Commit, WritesTheChangedAndTheStoredParts) {
    TextFilePhysicalPackage package(writePackage({{"/b.bin", "YWJj", true}, {"/c.xml", "stored"}}, "the header"));
    package.open(OpenMode::ReadWrite);
    writeInto(partOf(package, u"/a.xml"), "<changed/>");
    writeInto(partOf(package, u"/b.bin"), "changed");
    writeInto(*package.getContentTypesPart(), "<Types>more</Types>");
    addPart(package, u"/d.xml", u"text/xml", "new");
    addPart(package, u"/e.png", u"image/png", "new");

    package.close(false);

    EXPECT_EQ(packageFile(), packageText({{"/[Content_Types].xml", "<Types>more</Types>"},
                                          {"/_rels/.rels", "<Relationships/>"},
                                          {"/a.xml", "<changed/>"},
                                          {"/b.bin", "Y2hhbmdlZA==", true},
                                          {"/c.xml", "stored"},
                                          {"/d.xml", "new"},
                                          {"/e.png", "bmV3", true}},
                                         "the header"));
    EXPECT_THAT(folder.entries(), ElementsAre("package.txt"));
}

TEST_F(Commit, WritesTheContentTypesPartThroughThePackagesOwnStream) {
    TextFilePhysicalPackage package(writePackage());
    package.open(OpenMode::ReadWrite);
    package.getContentTypeOutputStream()->write("<new/>", 6);

    package.close(false);

    package.open(OpenMode::Read);
    EXPECT_EQ(readAll(*package.getContentTypeInputStream()), "<new/>");
}

TEST_F(Commit, WritesANewPackageOfItsContentTypesPartAlone) {
    TextFilePhysicalPackage package(folder.corePath("package.txt"));
    package.open(OpenMode::Create);

    package.close(false);

    EXPECT_EQ(packageFile(), packageText({{"/[Content_Types].xml", ""}}));
}

TEST_F(Commit, WritesANewPackageWithTheHeaderThatWasSet) {
    TextFilePhysicalPackage package(folder.corePath("package.txt"));
    package.setTextFileHeader(u"a header");
    package.open(OpenMode::Create);

    package.close(false);

    EXPECT_EQ(packageFile(), packageText({{"/[Content_Types].xml", ""}}, "a header"));
}

TEST_F(Commit, WritesNothingOfANewPackageThatIsDiscarded) {
    TextFilePhysicalPackage package(folder.corePath("package.txt"));
    package.open(OpenMode::Create);
    addPart(package, u"/new.xml", u"", "new");

    package.close(true);

    EXPECT_THAT(folder.entries(), IsEmpty());
}

TEST_F(Commit, ReplacesAnExistingPackageByTheNewOneAlone) {
    TextFilePhysicalPackage package(writePackage({{"/old.xml", "old"}}, "the old header"));
    package.open(OpenMode::Create);
    addPart(package, u"/new.xml", u"", "new");

    package.close(false);

    EXPECT_EQ(packageFile(), packageText({{"/[Content_Types].xml", ""}, {"/new.xml", "new"}}));
}

TEST_F(Commit, LeavesOutDeletedParts) {
    TextFilePhysicalPackage package(writePackage({{"/b.bin", "YWJj", true}}));
    package.open(OpenMode::ReadWrite);
    package.deletePart(u"/a.xml");
    package.deletePart(u"/_rels/.rels");

    package.close(false);

    EXPECT_EQ(packageFile(), packageText({{"/[Content_Types].xml", "<Types/>"}, {"/b.bin", "YWJj", true}}));
}

TEST_F(Commit, LeavesOutPartsOfTheTrash) {
    TextFilePhysicalPackage package(
        writePackage({{"/[trash]/0000.dat", "gone"}, {"/[trash]", "gone"}, {"/x/[trash]/kept", "kept"}}));
    package.open(OpenMode::ReadWrite);
    writeInto(partOf(package, u"/a.xml"), "<changed/>");

    package.close(false);

    EXPECT_EQ(packageFile(), packageText({{"/[Content_Types].xml", "<Types/>"},
                                          {"/_rels/.rels", "<Relationships/>"},
                                          {"/a.xml", "<changed/>"},
                                          {"/x/[trash]/kept", "kept"}}));
}

TEST_F(Commit, WritesTheLastOfSeveralPartsOfOneName) {
    TextFilePhysicalPackage package(writePackage({{"/twice", "first"}, {"/twice", "YWJj", true}}));
    package.open(OpenMode::ReadWrite);
    writeInto(partOf(package, u"/a.xml"), "<changed/>");

    package.close(false);

    EXPECT_EQ(packageFile(), packageText({{"/[Content_Types].xml", "<Types/>"},
                                          {"/_rels/.rels", "<Relationships/>"},
                                          {"/a.xml", "<changed/>"},
                                          {"/twice", "YWJj", true}}));
}

TEST_F(Commit, LeavesOutALastPartThatNoMarkerEnds) {
    auto text = packageText(openingParts({{"/last.xml", "unfinished"}}));
    text.resize(text.size() - std::string("__ZKOPC_PACKAGE_END__\n").size());
    TextFilePhysicalPackage package(writeText(text));
    package.open(OpenMode::ReadWrite);
    writeInto(partOf(package, u"/a.xml"), "<changed/>");

    package.close(false);

    EXPECT_EQ(packageFile(), changedText);
}

TEST_F(Commit, TakesAnEndLineWithoutALineBreakForTheEnd) {
    auto text = packageText(openingParts({{"/last.xml", "kept"}}));
    text.pop_back();
    TextFilePhysicalPackage package(writeText(text));
    package.open(OpenMode::ReadWrite);
    package.deletePart(u"/_rels/.rels");

    package.close(false);

    EXPECT_EQ(packageFile(),
              packageText({{"/[Content_Types].xml", "<Types/>"}, {"/a.xml", "<a/>"}, {"/last.xml", "kept"}}));
}

TEST_F(Commit, WritesAnEmptyPartForOneThatWasCreatedAndNeverWritten) {
    TextFilePhysicalPackage package(writePackage());
    package.open(OpenMode::ReadWrite);
    package.createPart(u"/b.xml", u"", FilePartInfo());
    package.createPart(u"/c.png", u"image/png", FilePartInfo());

    package.close(false);

    EXPECT_EQ(packageFile(), packageText(openingParts({{"/b.xml", ""}, {"/c.png", "", true}})));
}

TEST_F(Commit, WritesACreatedPartInThePlaceOfTheStoredOneOfItsName) {
    for (bool const isWritten : {false, true}) {
        TextFilePhysicalPackage package(writePackage({{"/b.xml", "old"}}));
        package.open(OpenMode::ReadWrite);
        auto* const part = package.createPart(u"/b.xml", u"image/png", FilePartInfo());
        if (isWritten)
            writeInto(*part, "new");

        package.close(false);

        EXPECT_EQ(packageFile(), packageText(openingParts({{"/b.xml", isWritten ? "bmV3" : "", true}})));
    }
}

TEST_F(Commit, WritesTheSecondOfTwoPartsCreatedUnderOneName) {
    TextFilePhysicalPackage package(writePackage());
    package.open(OpenMode::ReadWrite);
    addPart(package, u"/b.xml", u"", "what was written first, and is longer");
    addPart(package, u"/b.xml", u"image/png", "new");

    package.close(false);

    EXPECT_EQ(packageFile(), packageText(openingParts({{"/b.xml", "bmV3", true}})));
}

TEST_F(Commit, WritesWhatIsStillInTheBuffersOfOpenStreams) {
    TextFilePhysicalPackage package(writePackage());
    package.open(OpenMode::ReadWrite);
    auto* const stream = partOf(package, u"/a.xml").getOutputStream();
    EXPECT_EQ(stream->write("<changed", 8), 8);
    EXPECT_EQ(stream->write("/>", 2), 2); // neither flushed nor closed

    package.close(false);

    EXPECT_EQ(packageFile(), changedText);
}

TEST_F(Commit, IsNotDisturbedByInputStreamsThatAreOpen) {
    TextFilePhysicalPackage package(writePackage({{"/b.bin", "YWJj", true}}));
    package.open(OpenMode::ReadWrite);
    char byte = 0;
    EXPECT_EQ(partOf(package, u"/a.xml").getInputStream()->read(&byte, 1), 1);
    EXPECT_EQ(partOf(package, u"/b.bin").getInputStream()->read(&byte, 1), 1);
    addPart(package, u"/c.xml", u"", "new");

    package.close(false);

    EXPECT_EQ(packageFile(), packageText(openingParts({{"/b.bin", "YWJj", true}, {"/c.xml", "new"}})));
}

TEST_F(Commit, EmptiesAPartThatWasOpenedForWritingAndNotWritten) {
    TextFilePhysicalPackage package(writePackage());
    package.open(OpenMode::ReadWrite);
    partOf(package, u"/a.xml").getOutputStream();

    package.close(false);

    EXPECT_EQ(
        packageFile(),
        packageText({{"/[Content_Types].xml", "<Types/>"}, {"/_rels/.rels", "<Relationships/>"}, {"/a.xml", ""}}));
}

TEST_F(Commit, KeepsStoredContentByteForByte) {
    std::string const allBytes = testsupport::mixedBytes(5000) + "x";
    std::vector<PartText> const parts = {
        {"/b01", ""},
        {"/b02", "\n"},
        {"/b03", "\n\n"},
        {"/b04", "CR LF\r\nand LF\nand CR\rwithin"},
        {"/b05", "ends in LF\n"},
        {"/b06", "ends in CR LF\r\n"},
        {"/b07", " leading and trailing blanks \t"},
        {"/b08", std::string("a NUL \0 within", 14)},
        {"/b09", "\xEF\xBB\xBFwith a byte order mark"},
        {"/b10", "\xFF\xFE"
                 "ill-formed UTF-8 \xC0\x80"},
        {"/b11", "__ZKOPC_P"},
        {"/b12", "__ZKOPC_PACKAGE_END__ with more behind it"},
        {"/b13", "text before __ZKOPC_PART_BEGIN__ /x"},
        {"/b14", "__zkopc_part_begin__ /x"},
        {"/b15", std::string(300000, 'x')},
        {"/c01", "", true},
        {"/c02", "YWJj", true},
        {"/c03", "YWJj\nYWJj\r\nZA==", true},
        {"/c04", "this is no Base64!", true},
        {"/c05", base64Lines(allBytes), true},
        {"/c06", "\n\nYWJj\n", true},
        {"/c07", std::string(152, 'A'), true},
        {"/x/y/z/deep", "deep"},
        {"/Gr\xC3\xBC\xC3\x9F"
         "e \xE4\xB8\xAD",
         "the name ends at the blank"},
        {"/\xF0\x9D\x84\x9E.xml", "beyond the BMP"},
        {"/" + std::string(300, 'n'), "a long name"},
    };
    writePackage(parts, "a header\r\n\n");
    auto const before = blocksOf(packageFile());
    ASSERT_EQ(before.size(), parts.size() + 3);

    commitAChange();

    auto after = blocksOf(packageFile());
    EXPECT_EQ(after["/a.xml"], "__ZKOPC_PART_BEGIN__ /a.xml\n<changed/>\n");
    after["/a.xml"] = "__ZKOPC_PART_BEGIN__ /a.xml\n<a/>\n";
    for (auto const& [name, block] : before)
        EXPECT_EQ(after[name].substr(after[name].find('\n')), block.substr(block.find('\n'))) << name;
    EXPECT_EQ(after.size(), before.size());
    EXPECT_THAT(packageFile(), StartsWith("a header\r\n\n\n__ZKOPC_PACKAGE_BEGIN__ V3508k\n"));
    auto const first = packageFile();
    commitAChange();
    EXPECT_EQ(packageFile(), first);
}

TEST_F(Commit, KeepsTheCrLfInsidePartsAndWritesItsOwnLinesWithLf) {
    TextFilePhysicalPackage package(
        writeText(withCrLf(packageText(openingParts({{"/b.xml", "two\nlines"}, {"/c.bin", "YWJj\nZA==", true}})))));
    package.open(OpenMode::ReadWrite);
    writeInto(partOf(package, u"/a.xml"), "<changed/>");

    package.close(false);

    EXPECT_EQ(packageFile(), packageText({{"/[Content_Types].xml", "<Types/>"},
                                          {"/_rels/.rels", "<Relationships/>"},
                                          {"/a.xml", "<changed/>"},
                                          {"/b.xml", "two\r\nlines"},
                                          {"/c.bin", "YWJj\r\nZA==", true}}));
}

TEST_F(Commit, WritesEmptySlicesAsEmptyLines) {
    for (std::string const lineBreak : {"\n", "\r\n"}) {
        TextFilePhysicalPackage package(writeText(
            "__ZKOPC_PACKAGE_BEGIN__" + lineBreak + //
            "__ZKOPC_PART_BEGIN__ /[Content_Types].xml" + lineBreak + "__ZKOPC_PART_BEGIN__ /a.xml" + lineBreak +
            "__ZKOPC_PART_BEGIN__ /b.bin BASE64" + lineBreak + "__ZKOPC_PART_BEGIN__ /c.xml" + lineBreak + lineBreak +
            "__ZKOPC_PART_BEGIN__ /d.xml" + lineBreak + lineBreak + lineBreak + "__ZKOPC_PACKAGE_END__" + lineBreak));
        package.open(OpenMode::ReadWrite);
        writeInto(partOf(package, u"/a.xml"), "<changed/>");

        package.close(false);

        EXPECT_EQ(packageFile(), packageText({{"/[Content_Types].xml", ""},
                                              {"/a.xml", "<changed/>"},
                                              {"/b.bin", "", true},
                                              {"/c.xml", ""},
                                              {"/d.xml", lineBreak}}));
    }
}

TEST_F(Commit, KeepsTheStoredLinesOfAPartThatCouldNotBeDecoded) {
    TextFilePhysicalPackage package(writePackage({{"/b.bin", "this is\r\nno Base64!", true}}));
    package.open(OpenMode::ReadWrite);
    EXPECT_THROW(partOf(package, u"/b.bin").getInputStream(), foundation::crypto::utils::Exception);
    addPart(package, u"/c.xml", u"", "new");

    package.close(false);

    EXPECT_EQ(packageFile(), packageText(openingParts({{"/b.bin", "this is\r\nno Base64!", true}, {"/c.xml", "new"}})));
}

TEST_F(Commit, WritesADecodedPartInLinesOf76Characters) {
    TextFilePhysicalPackage package(writePackage({{"/b.bin", "YWJj\r\n\r\nYWJj", true}}));
    package.open(OpenMode::ReadWrite);
    EXPECT_EQ(contentOf(package, u"/b.bin"), "abcabc");
    addPart(package, u"/c.xml", u"", "new");

    package.close(false);

    EXPECT_EQ(packageFile(), packageText(openingParts({{"/b.bin", "YWJjYWJj", true}, {"/c.xml", "new"}})));
}

TEST_F(Commit, WritesWhatWasWrittenIntoAPartThatWasReadBefore) {
    TextFilePhysicalPackage package(writePackage({{"/b.bin", "YWJj", true}}));
    package.open(OpenMode::ReadWrite);
    EXPECT_EQ(contentOf(package, u"/b.bin"), "abc");
    EXPECT_EQ(contentOf(package, u"/a.xml"), "<a/>");
    writeInto(partOf(package, u"/b.bin"), "changed");
    writeInto(partOf(package, u"/a.xml"), "<changed/>");
    EXPECT_EQ(contentOf(package, u"/a.xml"), "<a/>"); // what is written is not read back

    package.close(false);

    package.open(OpenMode::Read);
    EXPECT_EQ(contentOf(package, u"/b.bin"), "changed");
    EXPECT_EQ(contentOf(package, u"/a.xml"), "<changed/>");
}

TEST_F(Commit, WritesTheCopyThatWasOpenedWhateverBecameOfTheFile) {
    std::vector<std::pair<char const*, std::function<void(fs::path const&)>>> const events = {
        {"removed", [](auto const& file) { fs::remove(file); }},
        {"emptied", [](auto const& file) { fs::resize_file(file, 0); }},
        {"overwritten", [](auto const& file) { std::ofstream(file) << "something else"; }},
    };
    for (auto const& event : events) {
        TextFilePhysicalPackage package(writePackage());
        package.open(OpenMode::ReadWrite);
        writeInto(partOf(package, u"/a.xml"), "<changed/>");
        event.second(folder / "package.txt");

        package.close(false);

        EXPECT_EQ(packageFile(), changedText) << event.first;
    }
}

TEST_F(Commit, LeavesAnObjectThatCanBeOpenedAndCommittedAgain) {
    TextFilePhysicalPackage package(writePackage());
    for (std::string const content : {"first", "second", "<changed/>"}) {
        package.open(OpenMode::ReadWrite);
        writeInto(partOf(package, u"/a.xml"), content);
        package.close(false);

        package.open(OpenMode::Read);
        EXPECT_EQ(contentOf(package, u"/a.xml"), content);
        package.close(false);
    }

    EXPECT_EQ(packageFile(), changedText);
}

// --- Pointers that the host may still hold

TEST_F(Commit, LeavesOutADeletedPartThatTheHostStillHoldsAndWritesTo) {
    TextFilePhysicalPackage package(writePackage({{"/b.xml", "old"}}));
    package.open(OpenMode::ReadWrite);
    auto& deleted = partOf(package, u"/b.xml");
    package.deletePart(u"/b.xml");

    EXPECT_EQ(deleted.getName(), u"/b.xml");
    EXPECT_EQ(readAll(*deleted.getInputStream()), "old");
    writeInto(deleted, "late");
    package.close(false);

    EXPECT_EQ(packageFile(), packageText(openingParts()));
}

TEST_F(Commit, IsNotSpoiltByADisplacedPartThatTheHostStillWritesTo) {
    TextFilePhysicalPackage package(writePackage());
    package.open(OpenMode::ReadWrite);
    auto& displaced = addPart(package, u"/b.xml", u"", "what was written first, and is longer");
    addPart(package, u"/b.xml", u"", "new");

    writeInto(displaced, "late");
    package.close(false);

    EXPECT_EQ(packageFile(), packageText(openingParts({{"/b.xml", "new"}})));
}

TEST_F(Commit, IsNotSpoiltByADeletedPartThatTheHostWritesToAfterItsNameWasUsedAgain) {
    TextFilePhysicalPackage package(writePackage({{"/b.xml", "old"}}));
    package.open(OpenMode::ReadWrite);
    auto& deleted = partOf(package, u"/b.xml");
    package.deletePart(u"/b.xml");
    addPart(package, u"/b.xml", u"", "new");

    writeInto(deleted, "late");
    package.close(false);

    EXPECT_EQ(packageFile(), packageText(openingParts({{"/b.xml", "new"}})));
}

// --- Refusals

TEST_F(Commit, FailsWithoutATemporaryAreaAndLeavesTheFileAsItWas) {
    auto const path = writePackage();
    auto const before = packageFile();
    TextFilePhysicalPackage package(path);
    package.open(OpenMode::ReadWrite);
    writeInto(partOf(package, u"/a.xml"), "<changed/>");
    auto const area = temporaryArea.folder().path().string();
    ::setenv("TMPDIR", "/nonexistent/area", 1);

    EXPECT_THAT([&] { package.close(false); },
                ThrowsMessage<opc::Exception>(StartsWith("Could not create temporary file \"/nonexistent/area/")));

    ::setenv("TMPDIR", area.c_str(), 1);
    EXPECT_EQ(packageFile(), before);
    EXPECT_FALSE(package.isOpen());
    EXPECT_THAT(temporaryArea.entries(), IsEmpty());
    EXPECT_THAT(folder.entries(), ElementsAre("package.txt"));
}

TEST_F(Commit, FailsOfANewPackageWhoseFolderIsMissingAndMakesNone) {
    TextFilePhysicalPackage package(folder.corePath("missing/package.txt"));
    package.open(OpenMode::Create);

    EXPECT_THAT([&] { package.close(false); }, throwsPackageError("Could not open \"" + (folder / "missing").string() +
                                                                  "\": No such file or directory"));

    EXPECT_FALSE(package.isOpen());
    EXPECT_THAT(folder.entries(), IsEmpty());
}

TEST_F(Commit, FailsWhereTheFileHasBecomeAFolder) {
    TextFilePhysicalPackage package(writePackage());
    package.open(OpenMode::ReadWrite);
    writeInto(partOf(package, u"/a.xml"), "<changed/>");
    fs::remove(folder / "package.txt");
    fs::create_directory(folder / "package.txt");

    EXPECT_THAT(
        [&] { package.close(false); },
        throwsPackageError("Could not replace \"" + (folder / "package.txt").string() + "\": it is no regular file"));

    EXPECT_TRUE(fs::is_directory(folder / "package.txt"));
    EXPECT_THAT(folder.entries(), ElementsAre("package.txt"));
}

TEST_F(Commit, IsWithoutEffectOnTheObjectAfterAFailure) {
    TextFilePhysicalPackage package(writePackage());
    CommitOptions refusing;
    refusing.beforeReplace = [](std::u16string const&) { throw std::runtime_error("not now"); };
    package.setCommitOptions(refusing);
    package.open(OpenMode::ReadWrite);
    writeInto(partOf(package, u"/a.xml"), "lost");
    EXPECT_THROW(package.close(false), std::runtime_error);
    package.setCommitOptions({});

    package.open(OpenMode::ReadWrite);
    EXPECT_EQ(contentOf(package, u"/a.xml"), "<a/>");
    writeInto(partOf(package, u"/a.xml"), "<changed/>");
    package.close(false);

    EXPECT_EQ(packageFile(), changedText);
}

TEST_F(Commit, RefusesAHeaderThatHasGrownOverTheLimitByOpeningAgain) {
    TextFilePhysicalPackage package(writePackage({}, headerOfLines(7)));
    auto const before = packageFile();
    for (int times = 1; times <= 3; ++times) {
        package.open(OpenMode::Read);
        package.close(true);
    }
    package.open(OpenMode::ReadWrite); // 28 lines now
    writeInto(partOf(package, u"/a.xml"), "<changed/>");

    expectRefused(package, "Header must not have more than 20 lines", before);
}

TEST_F(Commit, AcceptsAHeaderThatHasGrownToTheLimitByOpeningAgain) {
    auto const path = writePackage({}, headerOfLines(7));
    TextFilePhysicalPackage package(path);
    package.open(OpenMode::Read);
    package.close(true);
    package.open(OpenMode::Read);
    package.close(true);
    package.open(OpenMode::ReadWrite); // 21 lines, 20 line breaks
    writeInto(partOf(package, u"/a.xml"), "<changed/>");

    package.close(false);

    auto const three = headerOfLines(7) + "\n" + headerOfLines(7) + "\n" + headerOfLines(7);
    EXPECT_THAT(packageFile(), StartsWith(three + "\n__ZKOPC_PACKAGE_BEGIN__ V3508k\n"));
    TextFilePhysicalPackage readBack(path);
    EXPECT_NO_THROW(readBack.open(OpenMode::Read));
}

TEST_F(Commit, AcceptsTheLongestHeaderThatCanBeRead) {
    writePackage({}, headerOfLines(21));

    commitAChange();

    EXPECT_THAT(packageFile(), StartsWith(headerOfLines(21) + "\n__ZKOPC_PACKAGE_BEGIN__ V3508k\n"));
}

TEST_F(Commit, IsPossibleAgainOnceTheHeaderWasSetAnew) {
    TextFilePhysicalPackage package(writePackage({}, headerOfLines(21)));
    package.open(OpenMode::Read);
    package.close(true);
    package.open(OpenMode::ReadWrite);
    writeInto(partOf(package, u"/a.xml"), "<changed/>");
    package.setTextFileHeader(u"short");

    package.close(false);

    EXPECT_EQ(packageFile(), "short\n" + changedText);
}

// --- How the file is replaced

TEST_F(Commit, MakesNoBackupUnlessAskedTo) {
    writePackage();

    commitAChange();

    EXPECT_EQ(packageFile(), changedText);
    EXPECT_THAT(folder.entries(), ElementsAre("package.txt"));
}

TEST_F(Commit, KeepsTheOldFileBesideTheNewOneWhereAskedTo) {
    writePackage();
    auto const before = packageFile();
    folder.write("package.txt.bak", "an earlier backup");
    CommitOptions options;
    options.keepBackup = true;

    commitAChange(options);

    EXPECT_EQ(packageFile(), changedText);
    EXPECT_EQ(folder.read("package.txt.bak"), before);
    EXPECT_THAT(folder.entries(), ElementsAre("package.txt", "package.txt.bak"));
}

TEST_F(Commit, KeepsTheOldFileUnderTheNameThatItIsGiven) {
    writePackage();
    auto const before = packageFile();
    fs::create_directory(folder / "backups");
    CommitOptions options;
    options.keepBackup = true;
    options.backupPath = folder.corePath("backups/old.txt");

    commitAChange(options);

    EXPECT_EQ(packageFile(), changedText);
    EXPECT_EQ(folder.read("backups/old.txt"), before);
    EXPECT_THAT(folder.entries(), ElementsAre("backups", "package.txt"));
}

TEST_F(Commit, MakesNoBackupWhereItIsNotAskedToThoughAPathIsGiven) {
    writePackage();
    CommitOptions options;
    options.backupPath = folder.corePath("old.txt");

    commitAChange(options);

    EXPECT_THAT(folder.entries(), ElementsAre("package.txt"));
}

TEST_F(Commit, MakesNoBackupOfAFileThatWasNotThere) {
    CommitOptions options;
    options.keepBackup = true;
    TextFilePhysicalPackage package(folder.corePath("package.txt"));
    package.setCommitOptions(options);
    package.open(OpenMode::Create);

    package.close(false);

    EXPECT_THAT(folder.entries(), ElementsAre("package.txt"));
}

TEST_F(Commit, FailsWhereTheBackupCanNotBeMadeAndLeavesTheFileAsItWas) {
    writePackage();
    auto const before = packageFile();
    CommitOptions options;
    options.keepBackup = true;
    options.backupPath = folder.corePath("missing/old.txt");

    EXPECT_THROW(commitAChange(options), opc::Exception);

    EXPECT_EQ(packageFile(), before);
    EXPECT_THAT(folder.entries(), ElementsAre("package.txt"));
}

TEST_F(Commit, FollowsTheOptionsThatWereSetLastInWhateverState) {
    auto const path = writePackage();
    auto const backupTo = [&](char const* name) {
        CommitOptions options;
        options.keepBackup = true;
        options.backupPath = folder.corePath(name);
        return options;
    };
    TextFilePhysicalPackage package(path);
    auto const commit = [&](std::string const& content) {
        writeInto(partOf(package, u"/a.xml"), content);
        package.close(false);
    };

    package.setCommitOptions(backupTo("overridden"));
    package.setCommitOptions(backupTo("before opening"));
    package.open(OpenMode::ReadWrite);
    commit("first");
    package.open(OpenMode::ReadWrite);
    commit("second"); // they survive
    EXPECT_THAT(folder.entries(), ElementsAre("before opening", "package.txt"));
    package.open(OpenMode::ReadWrite);
    package.setCommitOptions(backupTo("while open"));
    commit("third");
    package.setCommitOptions({});
    package.open(OpenMode::ReadWrite);
    commit("fourth");

    EXPECT_THAT(folder.entries(), ElementsAre("before opening", "package.txt", "while open"));
    EXPECT_NE(folder.read("before opening").find("first"), std::string::npos);
    EXPECT_NE(folder.read("while open").find("second"), std::string::npos);
    EXPECT_NE(packageFile().find("fourth"), std::string::npos);
}

TEST_F(Commit, CallsBeforeReplaceOnceWithTheTargetWhileTheOldFileIsInPlace) {
    writePackage();
    auto const before = packageFile();
    std::vector<std::string> targets;
    std::string seen;
    CommitOptions options;
    options.beforeReplace = [&](std::u16string const& target) {
        targets.push_back(toUtf8(target));
        seen = packageFile();
    };

    commitAChange(options);

    EXPECT_THAT(targets, ElementsAre((folder / "package.txt").string()));
    EXPECT_EQ(seen, before);
    EXPECT_EQ(packageFile(), changedText);
}

TEST_F(Commit, DoesNotCallBeforeReplaceWhereNothingIsReplaced) {
    auto const path = writePackage();
    int calls = 0;
    CommitOptions options;
    options.beforeReplace = [&](std::u16string const&) { ++calls; };
    TextFilePhysicalPackage package(path);
    package.setCommitOptions(options);
    package.open(OpenMode::ReadWrite);
    package.close(false);
    package.open(OpenMode::ReadWrite);
    package.deletePart(u"/a.xml");

    package.close(true);

    EXPECT_EQ(calls, 0);
}

TEST_F(Commit, IsCancelledByAnExceptionFromBeforeReplaceWhichIsPassedOn) {
    writePackage();
    auto const before = packageFile();
    auto const stamp = stampOf(folder / "package.txt");
    CommitOptions options;
    options.keepBackup = true;
    options.beforeReplace = [](std::u16string const&) { throw std::runtime_error("the user said no"); };

    EXPECT_THAT([&] { commitAChange(options); }, ThrowsMessage<std::runtime_error>(StrEq("the user said no")));

    EXPECT_EQ(packageFile(), before);
    EXPECT_EQ(stampOf(folder / "package.txt"), stamp);
    EXPECT_THAT(folder.entries(), ElementsAre("package.txt"));
    EXPECT_THAT(temporaryArea.entries(), IsEmpty());
}

TEST_F(Commit, PassesOnWhateverBeforeReplaceThrows) {
    writePackage();
    auto const before = packageFile();
    CommitOptions options;
    options.beforeReplace = [](std::u16string const&) { throw 42; };

    EXPECT_THROW(commitAChange(options), int);

    EXPECT_EQ(packageFile(), before);
}

TEST_F(Commit, ReplacesTheFileThatALinkLeadsToAndKeepsTheLink) {
    fs::create_directory(folder / "elsewhere");
    folder.write("elsewhere/real.txt", packageText(openingParts()));
    fs::create_symlink("elsewhere/real.txt", folder / "link.txt");
    fs::create_symlink("link.txt", folder / "package.txt");

    commitAChange();

    EXPECT_EQ(folder.read("elsewhere/real.txt"), changedText);
    EXPECT_EQ(fs::read_symlink(folder / "package.txt"), "link.txt");
    EXPECT_EQ(fs::read_symlink(folder / "link.txt"), "elsewhere/real.txt");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(folder / "elsewhere/real.txt")));
    EXPECT_THAT(folder.entries(), ElementsAre("elsewhere", "link.txt", "package.txt"));
}

TEST_F(Commit, CreatesTheFileThatADanglingLinkLeadsTo) {
    fs::create_symlink("real.txt", folder / "package.txt");
    TextFilePhysicalPackage package(folder.corePath("package.txt"));
    package.open(OpenMode::Create);

    package.close(false);

    EXPECT_EQ(fs::read_symlink(folder / "package.txt"), "real.txt");
    EXPECT_EQ(folder.read("real.txt"), packageText({{"/[Content_Types].xml", ""}}));
}

TEST_F(Commit, ReplacesTheFileAtARelativePathThoughTheWorkingFolderHasChanged) {
    writePackage();
    auto const earlier = fs::current_path();
    fs::current_path(folder.path());
    TextFilePhysicalPackage package(u"package.txt");
    fs::current_path(earlier);
    package.open(OpenMode::ReadWrite);
    writeInto(partOf(package, u"/a.xml"), "<changed/>");

    package.close(false);

    EXPECT_EQ(packageFile(), changedText);
}

TEST_F(Commit, KeepsThePermissionBitsOfTheFile) {
    for (unsigned const bits : {0600U, 0640U, 0644U, 0664U, 0755U, 0777U}) {
        writePackage();
        fs::permissions(folder / "package.txt", static_cast<fs::perms>(bits));

        commitAChange();

        EXPECT_EQ(packageFile(), changedText);
        EXPECT_EQ(permissionsOf(folder / "package.txt"), bits);
        fs::remove(folder / "package.txt");
    }
}

TEST_F(Commit, KeepsThePermissionBitsOfAPackageThatANewOneReplaces) {
    writePackage();
    fs::permissions(folder / "package.txt", static_cast<fs::perms>(0640));
    TextFilePhysicalPackage package(folder.corePath("package.txt"));
    package.open(OpenMode::Create);

    package.close(false);

    EXPECT_EQ(permissionsOf(folder / "package.txt"), 0640U);
}

TEST_F(Commit, GivesANewFileWhatTheUmaskAllows) {
    for (auto const& [mask, expected] : {std::pair{022U, 0644U}, {002U, 0664U}, {077U, 0600U}, {0U, 0666U}}) {
        Umask const umask(mask);
        TextFilePhysicalPackage package(folder.corePath("package.txt"));
        package.open(OpenMode::Create);

        package.close(false);

        EXPECT_EQ(permissionsOf(folder / "package.txt"), expected);
        fs::remove(folder / "package.txt");
    }
}

TEST_F(Commit, SeparatesPackagesThatAreOpenAtOnce) {
    auto const path = writePackage();
    TextFilePhysicalPackage first(path);
    TextFilePhysicalPackage second(path);
    first.open(OpenMode::ReadWrite);
    second.open(OpenMode::ReadWrite);
    writeInto(partOf(first, u"/a.xml"), "from the first");
    writeInto(partOf(second, u"/a.xml"), "<changed/>");

    first.close(false);
    EXPECT_NE(packageFile(), changedText);
    second.close(false);

    EXPECT_EQ(packageFile(), changedText); // the last one wins, whole
}

TEST_F(Commit, FollowsNoLinkThatStandsWhereTheNewFileIsStaged) {
    writePackage();
    CommitOptions options;
    options.keepBackup = true;
    folder.write("precious", "precious");
    fs::create_symlink("precious", folder / "package.txt.bak");

    commitAChange(options);

    EXPECT_EQ(folder.read("precious"), "precious");
    EXPECT_FALSE(fs::is_symlink(folder / "package.txt.bak"));
}

} // namespace
