#include <textpackage/TextPackageLightweightReader.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <boost/system/error_code.hpp>

#include <opccore/Base64.hpp>
#include <opccore/Exception.hpp>
#include <opccore/IPhysicalPartInfo.hpp>
#include <opccore/StringConversion.hpp>
#include <tests/support/BlockwiseStream.hpp>
#include <tests/support/PackageText.hpp>
#include <tests/support/TemporaryFolder.hpp>
#include <tests/support/Throws.hpp>
#include <textpackage/MemoryPart.hpp>

namespace fs = std::filesystem;

using opc::interfaces::OpenMode;
using opc::textpackage::TextPackageLightweightReader;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsNull;
using ::testing::StartsWith;
using ::testing::ThrowsMessage;
using testsupport::BlockwiseStream;
using testsupport::codeThrownBy;
using testsupport::headerOfLines;
using testsupport::openingParts;
using testsupport::packageText;
using testsupport::PartText;
using testsupport::readAll;
using testsupport::throwsPackageError;
using testsupport::withCrLf;
using Names = std::vector<std::string>;

namespace {

char const ContentTypesMissing[] = "Content types stream does not exist";

std::string utf8(std::u16string const& text) {
    return opc::detail::toUTF8String(text, true);
}

/// The names of the listed parts, in the order of the list.
Names namesIn(TextPackageLightweightReader& reader) {
    Names names;
    for (auto const* const part : reader.getParts())
        names.push_back(utf8(part->getName()));
    return names;
}

opc::interfaces::IPhysicalPart* findPart(TextPackageLightweightReader& reader, std::u16string const& name) {
    for (auto* const part : reader.getParts()) {
        if (part->getName() == name)
            return part;
    }
    return nullptr;
}

/// The whole content of a listed part; fails the test where there is no such part.
std::string contentOf(TextPackageLightweightReader& reader, std::u16string const& name) {
    auto* const part = findPart(reader, name);
    EXPECT_NE(part, nullptr) << utf8(name);
    return part == nullptr ? "" : readAll(*part->getInputStream());
}

void request(TextPackageLightweightReader& reader, std::vector<std::u16string> const& names) {
    for (auto const& name : names)
        reader.addRequestedPart(name);
}

bool isOpenInThisProcess(std::u16string const& path) {
    auto const target = fs::path(opc::detail::makeNativePath(path));
    std::error_code ignored;
    for (auto const& entry : fs::directory_iterator("/proc/self/fd")) {
        if (fs::read_symlink(entry.path(), ignored) == target)
            return true;
    }
    return false;
}

/// How many bytes this process has read so far, from wherever.
std::uint64_t bytesReadSoFar() {
    std::ifstream file("/proc/self/io");
    std::string key;
    std::uint64_t count = 0;
    file >> key >> count;
    EXPECT_EQ(key, "rchar:");
    return count;
}

/// The most memory, in bytes, that this process held at once since `startToWatchMemory`.
std::uintmax_t mostMemorySinceStart() {
    std::ifstream file("/proc/self/status");
    std::string line;
    while (std::getline(file, line) && line.compare(0, 6, "VmHWM:") != 0) {
    }
    return std::stoull(line.substr(6)) * 1024;
}

/// Returns the memory, in bytes, that this process holds now.
std::uintmax_t startToWatchMemory() {
    std::ofstream("/proc/self/clear_refs") << 5 << std::flush;
    return mostMemorySinceStart();
}

/// Nothing that a caller could still take for an open package.
void expectClosedAndEmpty(TextPackageLightweightReader& reader) {
    EXPECT_FALSE(reader.isOpen());
    EXPECT_THAT([&] { reader.getContentTypesPart(); }, throwsPackageError(ContentTypesMissing));
    EXPECT_THAT([&] { reader.getParts(); }, throwsPackageError(ContentTypesMissing));
}

class LightweightReader : public ::testing::Test {
protected:
    std::u16string writePackage(std::vector<PartText> const& parts) const {
        return folder.write("package.txt", packageText(parts));
    }

    testsupport::TemporaryFolder folder;
};

// --- construction and accessors

class LightweightReaderAccess : public LightweightReader {};

TEST_F(LightweightReaderAccess, TouchesNoFileBeforeOpen) {
    TextPackageLightweightReader const reader(folder.corePath("missing.txt"));

    EXPECT_FALSE(reader.isOpen());
    EXPECT_THAT(folder.entries(), IsEmpty());
}

TEST_F(LightweightReaderAccess, TakesAPathRelativeToTheWorkingFolderOfItsConstruction) {
    writePackage(openingParts());
    auto const earlier = fs::current_path();
    fs::current_path(folder.path());
    TextPackageLightweightReader reader(u"./package.txt");
    fs::current_path(earlier);

    reader.open(OpenMode::Read);

    EXPECT_THAT(namesIn(reader), ElementsAre("/_rels/.rels", "/a.xml"));
}

TEST_F(LightweightReaderAccess, SaysAlwaysThatThereIsAContentTypeStream) {
    TextPackageLightweightReader reader(writePackage(openingParts()));

    EXPECT_TRUE(reader.hasContentTypeStream());
    reader.open(OpenMode::Read);
    EXPECT_TRUE(reader.hasContentTypeStream());
    reader.close(false);
    EXPECT_TRUE(reader.hasContentTypeStream());
}

TEST_F(LightweightReaderAccess, HandsOutItsOwnLocalFileServices) {
    auto const path = writePackage(openingParts());
    TextPackageLightweightReader reader(path);

    EXPECT_NE(dynamic_cast<opc::LocalFileSystemOps*>(&reader.getFSImpl()), nullptr);
    EXPECT_EQ(&reader.getFSImpl(), &reader.getFSImpl());
    EXPECT_TRUE(reader.getFSImpl().isFile(path));
}

TEST_F(LightweightReaderAccess, HasNoContentTypesPartWhileClosed) {
    TextPackageLightweightReader neverOpened(writePackage(openingParts()));
    TextPackageLightweightReader closedAgain(writePackage(openingParts()));
    closedAgain.open(OpenMode::Read);
    closedAgain.close(false);

    for (auto* const reader : {&neverOpened, &closedAgain}) {
        std::vector<std::function<void()>> const accesses{
            [&] { reader->getContentTypesPart(); }, [&] { reader->getContentTypeInputStream(); },
            [&] { reader->getContentTypeOutputStream(); }, [&] { reader->getParts(); }};
        for (auto const& access : accesses) {
            EXPECT_THAT(access, throwsPackageError("Content types stream does not exist"));
            EXPECT_EQ(codeThrownBy(access), boost::system::error_code());
        }
        EXPECT_FALSE(reader->isOpen());
    }
}

TEST_F(LightweightReaderAccess, GivesTheContentTypesPartAndItsStream) {
    TextPackageLightweightReader reader(writePackage(openingParts()));

    reader.open(OpenMode::Read);

    EXPECT_EQ(reader.getContentTypesPart()->getName(), u"/[Content_Types].xml");
    EXPECT_EQ(reader.getContentTypeInputStream(), reader.getContentTypesPart()->getInputStream());
    EXPECT_EQ(readAll(*reader.getContentTypeInputStream()), "<Types/>");
}

TEST_F(LightweightReaderAccess, HasNoOutputStreams) {
    TextPackageLightweightReader reader(writePackage(openingParts()));

    reader.open(OpenMode::Read);

    EXPECT_THAT(reader.getContentTypeOutputStream(), IsNull());
    for (auto* const part : reader.getParts())
        EXPECT_THAT(part->getOutputStream(), IsNull());
}

TEST_F(LightweightReaderAccess, KnowsNoContentTypes) {
    TextPackageLightweightReader reader(writePackage(openingParts()));

    reader.open(OpenMode::Read);

    EXPECT_EQ(reader.getContentTypesPart()->getContentType(), u"");
    for (auto const* const part : reader.getParts())
        EXPECT_EQ(part->getContentType(), u"");
}

TEST_F(LightweightReaderAccess, ListsThePartsInTheOrderOfTheirCodeUnits) {
    TextPackageLightweightReader reader(writePackage(openingParts({{"/Metadata/b", ""},
                                                                   {"/metadata/A", ""},
                                                                   {"/metadata/a", ""},
                                                                   {"/Metadata/B", ""},
                                                                   {"/metadata/\xEF\xBC\xA1", ""},
                                                                   {"/metadata/🎨", ""}})));

    reader.open(OpenMode::Read);

    // U+1F3A8 is D83C DFA8 in UTF-16, below U+FF21.
    EXPECT_THAT(namesIn(reader), ElementsAre("/Metadata/B", "/Metadata/b", "/_rels/.rels", "/a.xml", "/metadata/A",
                                             "/metadata/a", "/metadata/🎨", "/metadata/\xEF\xBC\xA1"));
}

TEST_F(LightweightReaderAccess, ListsAContentTypesPartInOtherCaseAsAnyPart) {
    TextPackageLightweightReader reader(
        writePackage({{"/[Content_Types].xml", "right"}, {"/[CONTENT_TYPES].XML", "other"}}));

    reader.open(OpenMode::Read);

    EXPECT_THAT(namesIn(reader), ElementsAre("/[CONTENT_TYPES].XML"));
    EXPECT_EQ(readAll(*reader.getContentTypeInputStream()), "right");
}

struct NoPartInfo : opc::interfaces::IPhysicalPartInfo {
    std::int32_t getCompression() const override { return 0; }
    std::int64_t getSize() const override { return 0; }
    std::int64_t getTimestamp() const override { return 0; }
};

TEST_F(LightweightReaderAccess, RefusesToCreateAndToDeletePartsSilently) {
    auto const before = packageText(openingParts());
    TextPackageLightweightReader reader(folder.write("package.txt", before));
    EXPECT_THAT(reader.createPart(u"/new.xml", u"text/xml", NoPartInfo()), IsNull());
    EXPECT_NO_THROW(reader.deletePart(u"/a.xml"));
    reader.open(OpenMode::Read);

    EXPECT_THAT(reader.createPart(u"/new.xml", u"text/xml", NoPartInfo()), IsNull());
    EXPECT_NO_THROW(reader.deletePart(u"/a.xml"));
    EXPECT_NO_THROW(reader.deletePart(u"/missing.xml"));

    EXPECT_THAT(namesIn(reader), ElementsAre("/_rels/.rels", "/a.xml"));
    reader.close(false);
    EXPECT_EQ(folder.read("package.txt"), before);
    EXPECT_THAT(folder.entries(), ElementsAre("package.txt"));
}

// --- open

class LightweightReaderOpen : public LightweightReader {};

TEST_F(LightweightReaderOpen, ReadsTextAndBinaryParts) {
    std::string const text = "Generated file; do not edit.\n"
                             "Second header line\n"
                             "__ZKOPC_PACKAGE_BEGIN__ V3508k\n"
                             "__ZKOPC_PART_BEGIN__ /[Content_Types].xml\n"
                             "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                             "<Types/>\n"
                             "__ZKOPC_PART_BEGIN__ /_rels/.rels\n"
                             "<Relationships/>\n"
                             "\n"
                             "__ZKOPC_PART_BEGIN__ /data/blob.bin BASE64\n"
                             "AAECAwQ=\n"
                             "__ZKOPC_PACKAGE_END__\n";

    for (auto const& file : {text, withCrLf(text)}) {
        SCOPED_TRACE(file);
        TextPackageLightweightReader reader(folder.write("package.txt", file));

        reader.open(OpenMode::Read);

        EXPECT_TRUE(reader.isOpen());
        EXPECT_EQ(readAll(*reader.getContentTypeInputStream()), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Types/>");
        EXPECT_THAT(namesIn(reader), ElementsAre("/_rels/.rels", "/data/blob.bin"));
        EXPECT_EQ(contentOf(reader, u"/_rels/.rels"), "<Relationships/>\n");
        EXPECT_EQ(contentOf(reader, u"/data/blob.bin"), std::string("\0\x01\x02\x03\x04", 5));
    }
}

TEST_F(LightweightReaderOpen, LeavesBadBase64ToWhoeverReadsThePart) {
    TextPackageLightweightReader reader(writePackage(
        {{"/[Content_Types].xml", "<Types/>"}, {"/bad.bin", "not Base64!", true}, {"/good.bin", "YWJj", true}}));

    reader.open(OpenMode::Read);

    EXPECT_THAT([&] { findPart(reader, u"/bad.bin")->getInputStream(); },
                ThrowsMessage<foundation::crypto::utils::Exception>(StartsWith("Unable to decode Base64: ")));
    EXPECT_TRUE(reader.isOpen());
    EXPECT_EQ(contentOf(reader, u"/good.bin"), "abc");
}

TEST_F(LightweightReaderOpen, PassesOverAHeaderOfUpToTwentyOneLines) {
    for (int const lines : {0, 1, 21}) {
        SCOPED_TRACE(lines);
        TextPackageLightweightReader reader(
            folder.write("package.txt", packageText(openingParts(), headerOfLines(lines))));

        reader.open(OpenMode::Read);

        EXPECT_THAT(namesIn(reader), ElementsAre("/_rels/.rels", "/a.xml"));
    }
}

TEST_F(LightweightReaderOpen, HasClosedTheFileWhenItReturns) {
    auto const path = writePackage(openingParts());
    TextPackageLightweightReader reader(path);

    reader.open(OpenMode::Read);

    EXPECT_TRUE(reader.isOpen());
    EXPECT_FALSE(isOpenInThisProcess(path));
}

/// Guards the tests that find a file closed.
TEST_F(LightweightReaderOpen, WouldBeSeenToHoldTheFile) {
    auto const path = writePackage(openingParts());

    std::ifstream const file(opc::detail::makeNativePath(path));

    EXPECT_TRUE(isOpenInThisProcess(path));
}

TEST_F(LightweightReaderOpen, NeedsTheFileNoLongerOnceItIsOpen) {
    TextPackageLightweightReader reader(writePackage(openingParts()));
    reader.open(OpenMode::Read);

    fs::remove(folder / "package.txt");

    EXPECT_EQ(contentOf(reader, u"/a.xml"), "<a/>");
}

TEST_F(LightweightReaderOpen, FollowsALinkToThePackage) {
    writePackage(openingParts());
    fs::create_symlink(folder / "package.txt", folder / "link.txt");
    TextPackageLightweightReader reader(folder.corePath("link.txt"));

    reader.open(OpenMode::Read);

    EXPECT_THAT(namesIn(reader), ElementsAre("/_rels/.rels", "/a.xml"));
}

TEST_F(LightweightReaderOpen, ReturnsAtOnceWhenItIsOpenAlready) {
    TextPackageLightweightReader reader(writePackage(openingParts()));
    reader.open(OpenMode::Read);
    auto* const part = findPart(reader, u"/a.xml");
    folder.write("package.txt", "no package any more\n");

    reader.open(OpenMode::Read);
    reader.open(OpenMode::ReadWrite);

    EXPECT_TRUE(reader.isOpen());
    EXPECT_EQ(findPart(reader, u"/a.xml"), part);
    EXPECT_EQ(contentOf(reader, u"/a.xml"), "<a/>");
}

TEST_F(LightweightReaderOpen, RefusesEveryModeButRead) {
    for (auto const mode : {OpenMode::Create, OpenMode::ReadWrite, OpenMode(7), OpenMode(0xFFFFFFFF)}) {
        SCOPED_TRACE(static_cast<std::uint32_t>(mode));
        auto const before = packageText(openingParts());
        TextPackageLightweightReader reader(folder.write("package.txt", before));
        auto const open = [&] { reader.open(mode); };

        EXPECT_THAT(open, throwsPackageError("TextPackageLightweightReader can only open for Read"));
        EXPECT_EQ(codeThrownBy(open), boost::system::error_code());

        expectClosedAndEmpty(reader);
        EXPECT_EQ(folder.read("package.txt"), before);
        reader.open(OpenMode::Read);
        EXPECT_THAT(namesIn(reader), ElementsAre("/_rels/.rels", "/a.xml"));
    }
}

TEST_F(LightweightReaderOpen, ChecksTheModeBeforeItLooksForTheFile) {
    TextPackageLightweightReader reader(folder.corePath("missing.txt"));

    EXPECT_THAT([&] { reader.open(OpenMode::Create); },
                throwsPackageError("TextPackageLightweightReader can only open for Read"));

    EXPECT_THAT(folder.entries(), IsEmpty());
}

TEST_F(LightweightReaderOpen, RefusesAPathThatLeadsToNoRegularFile) {
    fs::create_directory(folder / "folder");
    fs::create_symlink(folder / "nowhere", folder / "dangling link");
    fs::create_symlink("folder", folder / "link to folder");
    ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
    folder.write("file", "");
    std::vector<std::u16string> const paths{folder.corePath("missing.txt"),
                                            folder.corePath("folder"),
                                            folder.corePath("dangling link"),
                                            folder.corePath("link to folder"),
                                            folder.corePath("pipe"),
                                            folder.corePath("file/below.txt"),
                                            folder.corePath("folder/none"),
                                            u"/dev/null",
                                            u""};

    for (auto const& path : paths) {
        SCOPED_TRACE(utf8(path));
        TextPackageLightweightReader reader(path);
        auto const open = [&] { reader.open(OpenMode::Read); };

        EXPECT_THAT(open, throwsPackageError("Package does not exist"));
        auto const code = codeThrownBy(open);
        EXPECT_EQ(code.value(), 2);
        EXPECT_EQ(code.category(), boost::system::generic_category());

        expectClosedAndEmpty(reader);
    }
}

TEST_F(LightweightReaderOpen, PassesOnTheErrorOfAFileThatCanNotBeOpened) {
    if (::geteuid() == 0)
        GTEST_SKIP() << "root may read every file";
    auto const path = writePackage(openingParts());
    fs::permissions(folder / "package.txt", fs::perms::none);
    TextPackageLightweightReader reader(path);

    EXPECT_EQ(codeThrownBy([&] { reader.open(OpenMode::Read); }).value(), EACCES);

    expectClosedAndEmpty(reader);
}

TEST_F(LightweightReaderOpen, PassesOnAReadError) {
    TextPackageLightweightReader reader(u"/proc/self/mem"); // a regular file whose first byte can't be read

    EXPECT_EQ(codeThrownBy([&] { reader.open(OpenMode::Read); }).value(), EIO);

    expectClosedAndEmpty(reader);
}

TEST_F(LightweightReaderOpen, PassesOnWhatTheScannerThrowsAndKeepsNothing) {
    auto const good = packageText(openingParts());
    auto const open = good.substr(0, good.find("__ZKOPC_PACKAGE_END__"));
    struct Case {
        std::string text;
        ::testing::Matcher<std::function<void()>> throws;
    };
    std::vector<Case> const cases{
        {"", throwsPackageError("Reached end of file without finding ZKOPC_PACKAGE_BEGIN marker")},
        {"not a package\n", throwsPackageError("Reached end of file without finding ZKOPC_PACKAGE_BEGIN marker")},
        {headerOfLines(22) + "\n" + good, throwsPackageError("Didn't find ZKOPC_PACKAGE_BEGIN marker")},
        {"__ZKOPC_PACKAGE_BEGIN__\ngarbage\n" + good, throwsPackageError("Didn't find ZKOPC_PART_BEGIN marker")},
        {open + "__ZKOPC_PART_BEGIN__\n", ::testing::Throws<std::out_of_range>()},
        {open + "__ZKOPC_PART_BEGIN__ /\xFF\n",
         ThrowsMessage<opc::Exception>(StartsWith("Ill-formed UTF-8 at byte 1"))},
    };

    for (auto const& c : cases) {
        SCOPED_TRACE(c.text);
        auto const path = folder.write("package.txt", c.text);
        TextPackageLightweightReader reader(path);

        EXPECT_THAT([&] { reader.open(OpenMode::Read); }, c.throws);

        expectClosedAndEmpty(reader);
        EXPECT_FALSE(isOpenInThisProcess(path));
        folder.write("package.txt", packageText({{"/[Content_Types].xml", "new"}}));
        reader.open(OpenMode::Read);
        EXPECT_THAT(namesIn(reader), IsEmpty());
    }
}

TEST_F(LightweightReaderOpen, RefusesAPackageWithoutAContentTypesPartAmongTheKeptOnes) {
    std::vector<std::string> const texts{
        "__ZKOPC_PACKAGE_BEGIN__\n",
        "__ZKOPC_PACKAGE_BEGIN__\n__ZKOPC_PACKAGE_END__\n",
        packageText({{"/_rels/.rels", ""}, {"/a.xml", ""}}),
        packageText({{"/[content_types].xml", ""}, {"/_rels/.rels", ""}}),
        packageText({{"/a", ""}, {"/b", ""}, {"/c", ""}, {"/[Content_Types].xml", ""}}),
        "__ZKOPC_PACKAGE_BEGIN__\n__ZKOPC_PART_BEGIN__ /[Content_Types].xml\n<Types/>\n", // no package-end line
    };

    for (auto const& text : texts) {
        SCOPED_TRACE(text);
        TextPackageLightweightReader reader(folder.write("package.txt", text));
        auto const open = [&] { reader.open(OpenMode::Read); };

        EXPECT_THAT(open, throwsPackageError("Content types stream does not exist"));
        EXPECT_EQ(codeThrownBy(open), boost::system::error_code());

        expectClosedAndEmpty(reader);
    }
}

TEST_F(LightweightReaderOpen, TakesAContentTypesPartFurtherOnWhenItIsAskedFor) {
    TextPackageLightweightReader reader(
        writePackage({{"/a", ""}, {"/b", ""}, {"/c", ""}, {"/[Content_Types].xml", "late"}}));
    reader.addRequestedPart(u"/[Content_Types].xml");

    reader.open(OpenMode::Read);

    EXPECT_EQ(readAll(*reader.getContentTypeInputStream()), "late");
}

TEST_F(LightweightReaderOpen, LosesTheLastPartOfAFileWithoutPackageEndLine) {
    auto const text = packageText(openingParts());
    TextPackageLightweightReader reader(
        folder.write("package.txt", text.substr(0, text.find("__ZKOPC_PACKAGE_END__"))));

    reader.open(OpenMode::Read);

    EXPECT_THAT(namesIn(reader), ElementsAre("/_rels/.rels"));
}

// --- close

class LightweightReaderClose : public LightweightReader {};

TEST_F(LightweightReaderClose, ForgetsThePartsAndLeavesTheFileAlone) {
    for (bool const discardChanges : {false, true}) {
        auto const before = packageText(openingParts());
        TextPackageLightweightReader reader(folder.write("package.txt", before));
        reader.open(OpenMode::Read);

        reader.close(discardChanges);

        expectClosedAndEmpty(reader);
        EXPECT_EQ(folder.read("package.txt"), before);
        EXPECT_THAT(folder.entries(), ElementsAre("package.txt"));
    }
}

TEST_F(LightweightReaderClose, DoesNothingTwiceOrOnAReaderThatWasNeverOpened) {
    TextPackageLightweightReader reader(writePackage(openingParts()));

    reader.close(false);
    expectClosedAndEmpty(reader);

    reader.open(OpenMode::Read);
    reader.close(false);
    reader.close(false);
    expectClosedAndEmpty(reader);
}

TEST_F(LightweightReaderClose, LeavesThePartsOfAClosedReaderAlone) {
    TextPackageLightweightReader reader(u"/no/such/package");
    std::istringstream stream("__ZKOPC_PART_BEGIN__ /[Content_Types].xml\n__ZKOPC_PACKAGE_END__\n");
    reader.readParts(stream);

    reader.close(false);

    EXPECT_EQ(reader.getContentTypesPart()->getName(), u"/[Content_Types].xml");
}

TEST_F(LightweightReaderClose, LetsTheReaderOpenTheFileAnew) {
    TextPackageLightweightReader reader(writePackage({{"/[Content_Types].xml", "old"}}));
    reader.open(OpenMode::Read);
    readAll(*reader.getContentTypeInputStream());
    reader.close(false);
    folder.write("package.txt", packageText({{"/[Content_Types].xml", "new"}, {"/b", ""}}));

    reader.open(OpenMode::Read);

    EXPECT_EQ(readAll(*reader.getContentTypeInputStream()), "new");
    EXPECT_THAT(namesIn(reader), ElementsAre("/b"));
}

TEST_F(LightweightReaderClose, HappensWhenAnOpenReaderIsDestroyed) {
    auto const before = packageText(openingParts());
    {
        TextPackageLightweightReader reader(folder.write("package.txt", before));
        reader.open(OpenMode::Read);
        contentOf(reader, u"/a.xml");
    }

    EXPECT_EQ(folder.read("package.txt"), before);
    EXPECT_THAT(folder.entries(), ElementsAre("package.txt"));
}

TEST_F(LightweightReaderClose, CanCloseTheStreamsOfThePartsAlone) {
    TextPackageLightweightReader reader(writePackage(openingParts()));
    reader.open(OpenMode::Read);
    readAll(*reader.getContentTypeInputStream());
    contentOf(reader, u"/a.xml");

    reader.closeParts();

    EXPECT_TRUE(reader.isOpen());
    EXPECT_EQ(readAll(*reader.getContentTypeInputStream()), "<Types/>");
    EXPECT_EQ(contentOf(reader, u"/a.xml"), "<a/>");
}

TEST_F(LightweightReaderClose, CanCleanUpThePartsAlone) {
    TextPackageLightweightReader reader(writePackage(openingParts()));
    reader.open(OpenMode::Read);

    reader.cleanup();

    EXPECT_TRUE(reader.isOpen());
    EXPECT_THAT([&] { reader.getContentTypesPart(); }, throwsPackageError(ContentTypesMissing));
    reader.close(false);
    expectClosedAndEmpty(reader);
}

// --- which parts are kept

class LightweightReaderChoice : public LightweightReader {
protected:
    /// A reader that keeps its first three parts; its requests are sorted and all still there.
    void keepThreeParts(TextPackageLightweightReader& reader) {
        auto const text = packageText(openingParts());
        std::istringstream stream(text.substr(text.find('\n') + 1));
        reader.readParts(stream);
        ASSERT_THAT(namesIn(reader), ElementsAre("/_rels/.rels", "/a.xml"));
    }

    /// The listed parts of a package with three opening parts and these, each empty.
    Names namesKeptOf(Names const& more, std::vector<std::u16string> const& requests) {
        auto parts = openingParts();
        for (auto const& name : more)
            parts.push_back({name, ""});
        TextPackageLightweightReader reader(writePackage(parts));
        request(reader, requests);
        reader.open(OpenMode::Read);
        auto names = namesIn(reader);
        names.erase(std::remove(names.begin(), names.end(), "/_rels/.rels"), names.end());
        names.erase(std::remove(names.begin(), names.end(), "/a.xml"), names.end());
        return names;
    }
};

TEST_F(LightweightReaderChoice, TakesAnyOfTheFirstThreePartsButTrash) {
    struct Case {
        std::u16string name;
        bool isKept;
    };
    std::vector<Case> const cases{
        {u"/[trash]", false}, {u"/[TRASH]", false}, {u"/[Trash]", false}, {u"/[trash]/1", true},  {u"/[trash]x", true},
        {u"[trash]", true},   {u".rels", true},     {u"/x.xml", true},    {u"/metadata/x", true}, {u"", true}};

    for (auto const& c : cases) {
        SCOPED_TRACE(utf8(c.name));
        TextPackageLightweightReader reader(u"/no/such/package");

        EXPECT_EQ(reader.processPart(c.name), c.isKept);

        EXPECT_TRUE(reader.stillLookingForRequestedParts()); // the search has not started
    }
}

TEST_F(LightweightReaderChoice, DecidesByTheNameOnceThreePartsAreKept) {
    struct Case {
        std::u16string name;
        bool isKept;
        bool startsTheSearch;
    };
    std::vector<Case> const cases{
        {u"/[trash]", false, false},
        {u"/[TrAsH]", false, false},
        {u"/[trash]/1", false, true},
        {u".rels", false, false},
        {u".RELS", false, false},
        {u".relsX/y", false, false},
        {u".rel", false, true},
        {u"/_rels/.rels", false, true},
        {u"/x.rels", false, true},
        {u"/metadata/", true, false},
        {u"/metadata/x", true, false},
        {u"/METADATA/X", true, false},
        {u"/metadata", false, true},
        {u"/metadatax/y", false, true},
        {u"metadata/x", false, true},
        {u"/x/metadata/y", false, true},
        {u"/b.xml", false, true},
        {u"", false, true},
        {u"/[Content_Types].xml", false, true},
    };

    for (auto const& c : cases) {
        SCOPED_TRACE(utf8(c.name));
        TextPackageLightweightReader reader(u"/no/such/package");
        keepThreeParts(reader);
        ASSERT_TRUE(reader.stillLookingForRequestedParts());

        EXPECT_EQ(reader.processPart(c.name), c.isKept);

        EXPECT_EQ(reader.stillLookingForRequestedParts(), !c.startsTheSearch);
    }
}

TEST_F(LightweightReaderChoice, WalksTheSortedRequestsWithThePartsThatArrive) {
    struct Case {
        std::vector<std::u16string> requests;
        std::vector<std::u16string> parts;
        std::vector<bool> areKept;
        bool isStillLooking;
    };
    std::vector<Case> const cases{
        {{}, {u"/b"}, {false}, false},
        {{u"/b"}, {u"/b"}, {true}, false},
        {{u"/B"}, {u"/b"}, {true}, false},
        {{u"/b"}, {u"/B"}, {true}, false},
        {{u"/c"}, {u"/b"}, {false}, true},                     // not passed yet
        {{u"/b"}, {u"/c"}, {false}, false},                    // passed: it is not there
        {{u"/b", u"/c"}, {u"/c"}, {true}, false},              // one passed, the next found
        {{u"/b", u"/c", u"/d", u"/e"}, {u"/d"}, {true}, true}, // two passed, one left
        {{u"/b", u"/d"}, {u"/c", u"/d"}, {false, true}, false},
        {{u"/d", u"/b"}, {u"/b", u"/d"}, {true, true}, false}, // in any order
        {{u"/C", u"/d", u"/b"}, {u"/b", u"/c", u"/D"}, {true, true, true}, false},
        {{u"/b", u"/b"}, {u"/b"}, {true}, true}, // duplicates stay
        {{u"/b", u"/B"}, {u"/b", u"/c"}, {true, false}, false},
        {{u"/b"}, {u"/b", u"/b"}, {true, false}, false}, // a request answers once
        {{u"/[trash]", u"/b"}, {u"/[trash]"}, {false}, true},
        {{u"/[trash]/1"}, {u"/[trash]/1"}, {true}, false},
        {{u".rels"}, {u".rels"}, {false}, true},            // dropped before the walk
        {{u"/metadata/x"}, {u"/metadata/x"}, {true}, true}, // kept before the walk
        {{u"/metadata/x"}, {u"/metadata/x", u"/n"}, {true, false}, false},
        {{u"/a.xml"}, {u"/a"}, {false}, true}, // no prefix counts
        {{u"/a"}, {u"/a.xml"}, {false}, false},
        {{u"/Ä"}, {u"/ä"}, {false}, false}, // only ASCII letters have a case
    };

    for (auto const& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.requests) + " " + ::testing::PrintToString(c.parts));
        TextPackageLightweightReader reader(u"/no/such/package");
        request(reader, c.requests);
        keepThreeParts(reader);

        std::vector<bool> areKept;
        for (auto const& name : c.parts)
            areKept.push_back(reader.processPart(name));

        EXPECT_EQ(areKept, c.areKept);
        EXPECT_EQ(reader.stillLookingForRequestedParts(), c.isStillLooking);
    }
}

TEST_F(LightweightReaderChoice, KeepsThePartsThatWereAskedFor) {
    Names const inFile{"/B.xml", "/c.xml", "/d.xml", "/word/document.xml", "/word/media/image1.png"};

    EXPECT_THAT(namesKeptOf(inFile, {}), IsEmpty());
    EXPECT_THAT(namesKeptOf(inFile, {u"/d.xml"}), ElementsAre("/d.xml"));
    EXPECT_THAT(namesKeptOf(inFile, {u"/b.XML", u"/WORD/document.xml"}), ElementsAre("/B.xml", "/word/document.xml"));
    EXPECT_THAT(namesKeptOf(inFile, {u"/word/document.xml", u"/missing.xml", u"/c.xml", u"/0.xml", u"/z.xml"}),
                ElementsAre("/c.xml", "/word/document.xml"));
    EXPECT_THAT(namesKeptOf(inFile, {u"/_rels/.rels", u"/a.xml", u"/d.xml"}), ElementsAre("/d.xml"));
}

TEST_F(LightweightReaderChoice, KeepsTheMetadataPartsThatFollowTheFirstThree) {
    EXPECT_THAT(namesKeptOf({"/metadata/1", "/MetaData/2", "/b", "/metadata/3"}, {}),
                ElementsAre("/MetaData/2", "/metadata/1"));
    EXPECT_THAT(namesKeptOf({"/metadata/1", "/b", "/metadata/3", "/z"}, {u"/z"}),
                ElementsAre("/metadata/1", "/metadata/3", "/z"));
}

TEST_F(LightweightReaderChoice, MissesARequestedPartThatStandsOutOfOrder) {
    EXPECT_THAT(namesKeptOf({"/d", "/b"}, {u"/b", u"/d"}), ElementsAre("/d"));
}

TEST_F(LightweightReaderChoice, GivesTheThirdPlaceToTheNextPartWhereOneIsTrash) {
    TextPackageLightweightReader reader(writePackage(
        {{"/[Content_Types].xml", ""}, {"/[TRASH]", "x"}, {"/_rels/.rels", ""}, {"/b.xml", ""}, {"/c.xml", ""}}));

    reader.open(OpenMode::Read);

    EXPECT_THAT(namesIn(reader), ElementsAre("/_rels/.rels", "/b.xml"));
}

TEST_F(LightweightReaderChoice, KeepsALongerNameThatBeginsWithTrash) {
    TextPackageLightweightReader reader(writePackage({{"/[Content_Types].xml", ""}, {"/[trash]/0000.dat", "x"}}));

    reader.open(OpenMode::Read);

    EXPECT_THAT(namesIn(reader), ElementsAre("/[trash]/0000.dat"));
}

TEST_F(LightweightReaderChoice, KeepsThePackageRelationshipsWhereverTheyAreAskedFor) {
    TextPackageLightweightReader reader(writePackage(
        {{"/[Content_Types].xml", ""}, {"/0", ""}, {"/1", ""}, {"/_rels/.rels", "found"}, {".rels/x", "dropped"}}));
    request(reader, {u"/_rels/.rels", u"/z"});

    reader.open(OpenMode::Read);

    EXPECT_THAT(namesIn(reader), ElementsAre("/0", "/1", "/_rels/.rels"));
    EXPECT_EQ(contentOf(reader, u"/_rels/.rels"), "found");
}

// --- parts of the same name

class LightweightReaderRepeatedName : public LightweightReader {};

TEST_F(LightweightReaderRepeatedName, MeansTheLastOne) {
    TextPackageLightweightReader reader(writePackage({{"/[Content_Types].xml", "first types"},
                                                      {"/a", "first"},
                                                      {"/a", "second"},
                                                      {"/[Content_Types].xml", "last types"},
                                                      {"/a", "last"}}));

    reader.open(OpenMode::Read);

    EXPECT_THAT(namesIn(reader), ElementsAre("/a"));
    EXPECT_EQ(contentOf(reader, u"/a"), "last");
    EXPECT_EQ(readAll(*reader.getContentTypeInputStream()), "last types");
}

TEST_F(LightweightReaderRepeatedName, CountsOnceAmongTheFirstThree) {
    TextPackageLightweightReader reader(
        writePackage({{"/[Content_Types].xml", ""}, {"/a", ""}, {"/a", ""}, {"/b", ""}, {"/c", ""}}));

    reader.open(OpenMode::Read);

    EXPECT_THAT(namesIn(reader), ElementsAre("/a", "/b"));
}

TEST_F(LightweightReaderRepeatedName, LeavesThePartThatSomebodyHoldsReadableUntilClose) {
    TextPackageLightweightReader reader(writePackage(openingParts({{"/d", "earlier"}})));
    reader.addRequestedPart(u"/d");
    reader.open(OpenMode::Read);
    auto* const held = findPart(reader, u"/d");
    auto* const stream = held->getInputStream();
    char firstByte = 0;
    stream->read(&firstByte, 1);

    reader.addRequestedPart(u"/d");
    std::istringstream more("__ZKOPC_PART_BEGIN__ /d\nlater\n__ZKOPC_PACKAGE_END__\n");
    reader.readParts(more);

    EXPECT_EQ(contentOf(reader, u"/d"), "later");
    EXPECT_EQ(held->getName(), u"/d");
    EXPECT_EQ(readAll(*stream), "arlier");
    reader.close(false);
    expectClosedAndEmpty(reader);
}

// --- the early stop

class LightweightReaderEarlyStop : public LightweightReader {
protected:
    /// Opens a file of the opening parts, "/b", "/c" and "/d", then a part-begin line that can't be read.
    std::unique_ptr<TextPackageLightweightReader> openMalformed(std::vector<std::u16string> const& requests) {
        auto text = packageText(openingParts({{"/b", "b"}, {"/c", "c"}, {"/d", "d"}}));
        text.replace(text.find("__ZKOPC_PACKAGE_END__"), std::string::npos, "__ZKOPC_PART_BEGIN__\n");
        auto reader = std::make_unique<TextPackageLightweightReader>(folder.write("package.txt", text));
        request(*reader, requests);
        reader->open(OpenMode::Read);
        return reader;
    }

    /// What is left of the stream when the parts of this text have been read.
    std::string restAfter(std::string const& text, std::vector<std::u16string> const& requests) {
        TextPackageLightweightReader reader(u"/no/such/package");
        request(reader, requests);
        std::istringstream stream(text);
        stream.ignore(1000, '\n');
        reader.readParts(stream);
        return {std::istreambuf_iterator<char>(stream), {}};
    }
};

TEST_F(LightweightReaderEarlyStop, SeesNothingOfWhatFollowsTheLastPartWanted) {
    EXPECT_THAT(namesIn(*openMalformed({u"/d"})), ElementsAre("/_rels/.rels", "/a.xml", "/d"));
    EXPECT_THAT(namesIn(*openMalformed({u"/b", u"/d"})), ElementsAre("/_rels/.rels", "/a.xml", "/b", "/d"));
    EXPECT_THAT(namesIn(*openMalformed({u"/bb"})), ElementsAre("/_rels/.rels", "/a.xml"));
    EXPECT_THAT(namesIn(*openMalformed({})), ElementsAre("/_rels/.rels", "/a.xml"));
}

/// Guards the test above: with something left to look for, the same file fails.
TEST_F(LightweightReaderEarlyStop, MeetsTheMalformedLineWhileARequestIsOpen) {
    EXPECT_THROW(openMalformed({u"/e"}), std::out_of_range);
    EXPECT_THROW(openMalformed({u"/b", u"/e"}), std::out_of_range);
}

TEST_F(LightweightReaderEarlyStop, TakesThePartBeginLineAfterTheLastPartWantedAndNoMore) {
    auto const text = packageText(openingParts({{"/b", "b"}, {"/c", "c"}, {"/d", "d"}}));
    std::string const d = "d\n__ZKOPC_PACKAGE_END__\n";
    std::string const c = "c\n__ZKOPC_PART_BEGIN__ /d\n" + d;

    EXPECT_EQ(restAfter(text, {}), c);
    EXPECT_EQ(restAfter(text, {u"/b"}), c);
    EXPECT_EQ(restAfter(text, {u"/B", u"/0"}), c);
    EXPECT_EQ(restAfter(text, {u"/c"}), d);
    EXPECT_EQ(restAfter(text, {u"/bb"}), d);
    EXPECT_EQ(restAfter(text, {u"/d"}), "");
    EXPECT_EQ(restAfter(text, {u"/e"}), "");
}

TEST_F(LightweightReaderEarlyStop, ReadsOnThroughMetadataAndTrashWithoutRequests) {
    auto const text = packageText(openingParts({{"/metadata/1", ""}, {"/[trash]", ""}, {".rels", ""}, {"/b", "b"}}));

    EXPECT_EQ(restAfter(text, {}), "");
}

TEST_F(LightweightReaderEarlyStop, NeedsNoPackageEndLine) {
    auto text = packageText(openingParts({{"/b", "b"}, {"/c", "cut of"}}));
    text.resize(text.find("__ZKOPC_PACKAGE_END__"));
    TextPackageLightweightReader reader(folder.write("package.txt", text));
    reader.addRequestedPart(u"/b");

    reader.open(OpenMode::Read);

    EXPECT_EQ(contentOf(reader, u"/b"), "b");
}

TEST_F(LightweightReaderEarlyStop, ReadsAlmostNothingOfAHugeFile) {
    constexpr std::size_t BlockBytes = 1 << 20;
    constexpr std::size_t Blocks = 256;
    auto text = packageText(openingParts({{"/b", "b"}}));
    text.resize(text.find("__ZKOPC_PACKAGE_END__"));
    auto const path = folder.write("package.txt", text + "__ZKOPC_PART_BEGIN__ /huge\n");
    std::string block(BlockBytes, 'x');
    for (std::size_t lineEnd = 127; lineEnd < BlockBytes; lineEnd += 128)
        block[lineEnd] = '\n';
    std::ofstream file(folder / "package.txt", std::ios::binary | std::ios::app);
    for (std::size_t i = 0; i < Blocks; ++i)
        file.write(block.data(), static_cast<std::streamsize>(block.size()));
    file.close();
    ASSERT_GT(fs::file_size(folder / "package.txt"), Blocks * BlockBytes);
    TextPackageLightweightReader reader(path);
    reader.addRequestedPart(u"/b");

    auto const before = bytesReadSoFar();
    reader.open(OpenMode::Read);
    auto const read = bytesReadSoFar() - before;

    EXPECT_EQ(contentOf(reader, u"/b"), "b");
    EXPECT_GE(read, text.size());
    EXPECT_LT(read, std::uint64_t{1} << 20);
}

// --- parts that nobody wants

class LightweightReaderPassingOver : public LightweightReader {
protected:
    /// What the reader makes of a text when "/wanted" was requested; the stream comes in blocks of that many bytes.
    std::string wantedContentOf(std::string const& text, std::size_t blockBytes) {
        TextPackageLightweightReader reader(u"/no/such/package");
        reader.addRequestedPart(u"/wanted");
        BlockwiseStream stream(text, blockBytes);
        reader.readParts(stream);
        return contentOf(reader, u"/wanted");
    }
};

TEST_F(LightweightReaderPassingOver, FindsTheNextPartWhereverTheBlocksOfTheStreamEnd) {
    auto const afterBeginLine = [](std::string const& text) { return text.substr(text.find('\n') + 1); };
    auto const text =
        afterBeginLine(packageText(openingParts({{"/b", "\n__ZKOPC_PA\n__ZKOPC_PACKAGE_END__ \n\n"},
                                                 {"/c", ""},
                                                 {"/d", "a line of some length\n_\n x__ZKOPC_PART_BEGIN__"},
                                                 {"/wanted", "one\n\ntwo"}})));

    for (std::size_t blockBytes = 0; blockBytes <= text.size(); ++blockBytes) {
        SCOPED_TRACE(blockBytes);
        EXPECT_EQ(wantedContentOf(text, blockBytes), "one\n\ntwo");
        EXPECT_EQ(wantedContentOf(withCrLf(text), blockBytes), "one\n\ntwo");
    }
}

TEST_F(LightweightReaderPassingOver, EndsWithTheStreamInsideAPart) {
    TextPackageLightweightReader reader(u"/no/such/package");
    reader.addRequestedPart(u"/wanted");
    std::istringstream stream("__ZKOPC_PART_BEGIN__ /1\n__ZKOPC_PART_BEGIN__ /2\n__ZKOPC_PART_BEGIN__ /3\n"
                              "__ZKOPC_PART_BEGIN__ /cut off\none\ntwo");

    reader.readParts(stream);

    EXPECT_TRUE(stream.eof());
    EXPECT_FALSE(reader.processPart(u"/other"));
    EXPECT_TRUE(reader.processPart(u"/wanted")) << "the part that was cut off used the request up";
}

TEST_F(LightweightReaderPassingOver, NeedsNoMemoryForThemHoweverLongTheirLinesAre) {
    constexpr std::uintmax_t LineBytes = std::uintmax_t{256} << 20;
    auto const text = packageText(openingParts({{"/b", ""}, {"/wanted", "content"}}));
    auto const afterB = text.find("__ZKOPC_PART_BEGIN__ /wanted");
    auto const path = folder.write("package.txt", text.substr(0, afterB));
    fs::resize_file(folder / "package.txt", afterB + LineBytes); // a line of NULs, which takes no space on the disk
    std::ofstream(folder / "package.txt", std::ios::binary | std::ios::app) << '\n' << text.substr(afterB);
    TextPackageLightweightReader reader(path);
    reader.addRequestedPart(u"/wanted");

    auto const before = startToWatchMemory();
    reader.open(OpenMode::Read);
    auto const needed = mostMemorySinceStart() - before;

    EXPECT_EQ(contentOf(reader, u"/wanted"), "content");
    EXPECT_LT(needed, LineBytes / 16);
}

// --- requests and a second open

class LightweightReaderRequests : public LightweightReader {};

TEST_F(LightweightReaderRequests, AreUsedUpByOpen) {
    TextPackageLightweightReader reader(writePackage(openingParts({{"/b", ""}, {"/c", ""}, {"/d", ""}})));
    request(reader, {u"/b", u"/bb", u"/c"});
    reader.open(OpenMode::Read);
    EXPECT_THAT(namesIn(reader), ElementsAre("/_rels/.rels", "/a.xml", "/b", "/c"));
    reader.close(false);
    EXPECT_FALSE(reader.stillLookingForRequestedParts());

    reader.addRequestedPart(u"/d");
    reader.open(OpenMode::Read);

    EXPECT_THAT(namesIn(reader), ElementsAre("/_rels/.rels", "/a.xml", "/d"));
}

TEST_F(LightweightReaderRequests, ThatNoPartPassedStayForTheNextOpen) {
    TextPackageLightweightReader reader(writePackage(openingParts({{"/b", ""}})));
    reader.addRequestedPart(u"/z");
    reader.open(OpenMode::Read);
    reader.close(false);
    writePackage(openingParts({{"/b", ""}, {"/z", "now there"}}));

    reader.open(OpenMode::Read);

    EXPECT_EQ(contentOf(reader, u"/z"), "now there");
}

TEST_F(LightweightReaderRequests, AreUsedUpByAnOpenThatFails) {
    auto const good = packageText(openingParts({{"/b", ""}, {"/c", ""}, {"/d", ""}}));
    auto bad = good;
    bad.replace(bad.find("__ZKOPC_PART_BEGIN__ /d"), std::string::npos, "__ZKOPC_PART_BEGIN__\n");
    TextPackageLightweightReader reader(folder.write("package.txt", bad));
    request(reader, {u"/b", u"/d"});
    EXPECT_THROW(reader.open(OpenMode::Read), std::out_of_range);
    expectClosedAndEmpty(reader);
    folder.write("package.txt", good);

    reader.open(OpenMode::Read);

    EXPECT_THAT(namesIn(reader), ElementsAre("/_rels/.rels", "/a.xml", "/d"));
}

TEST_F(LightweightReaderRequests, AreLeftAloneByAnOpenThatReadsNothing) {
    TextPackageLightweightReader reader(folder.corePath("package.txt"));
    reader.addRequestedPart(u"/b");
    EXPECT_THAT([&] { reader.open(OpenMode::Read); }, throwsPackageError("Package does not exist"));
    EXPECT_THAT([&] { reader.open(OpenMode::Create); },
                throwsPackageError("TextPackageLightweightReader can only open for Read"));
    writePackage(openingParts({{"/b", "found"}}));

    reader.open(OpenMode::Read);

    EXPECT_EQ(contentOf(reader, u"/b"), "found");
}

TEST_F(LightweightReaderRequests, KeepTheirStartedSearchAfterClose) {
    TextPackageLightweightReader reader(writePackage(openingParts({{"/b", ""}})));
    EXPECT_TRUE(reader.stillLookingForRequestedParts());

    reader.open(OpenMode::Read);
    EXPECT_FALSE(reader.stillLookingForRequestedParts());

    reader.close(false);
    EXPECT_FALSE(reader.stillLookingForRequestedParts());
    reader.addRequestedPart(u"/b");
    EXPECT_TRUE(reader.stillLookingForRequestedParts());
}

TEST_F(LightweightReaderRequests, StopASecondReadAfterItsFirstPartWhenNoneIsLeft) {
    TextPackageLightweightReader reader(writePackage(openingParts({{"/b", ""}})));
    reader.addRequestedPart(u"/b");
    reader.open(OpenMode::Read);
    EXPECT_THAT(namesIn(reader), ElementsAre("/_rels/.rels", "/a.xml", "/b"));
    reader.close(false);

    reader.open(OpenMode::Read);

    // The search counts as started, and there is nothing to look for: the end of any part ends the scan.
    EXPECT_EQ(readAll(*reader.getContentTypeInputStream()), "<Types/>");
    EXPECT_THAT(namesIn(reader), IsEmpty());
}

TEST_F(LightweightReaderRequests, DoNotStartTheirSearchInAPackageOfThreeParts) {
    TextPackageLightweightReader reader(writePackage(openingParts({{"/metadata/x", ""}})));

    for (int opened = 0; opened < 2; ++opened) {
        reader.open(OpenMode::Read);

        EXPECT_TRUE(reader.stillLookingForRequestedParts());
        EXPECT_THAT(namesIn(reader), ElementsAre("/_rels/.rels", "/a.xml", "/metadata/x"));
        reader.close(false);
    }
}

} // namespace
