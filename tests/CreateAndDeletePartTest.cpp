#include <cstdint>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include <opccore/Exception.hpp>
#include <opccore/IPhysicalInputStream.hpp>
#include <opccore/IPhysicalPartInfo.hpp>
#include <tests/support/FailingAllocations.hpp>
#include <tests/support/PackageFixture.hpp>
#include <tests/support/Throws.hpp>
#include <textpackage/FilePart.hpp>
#include <textpackage/FilePartInfo.hpp>
#include <textpackage/TextFilePhysicalPackage.hpp>

namespace fs = std::filesystem;

using opc::interfaces::IPhysicalPartInfo;
using opc::interfaces::OpenMode;
using opc::textpackage::FilePart;
using opc::textpackage::FilePartInfo;
using opc::textpackage::FilePartMode;
using opc::textpackage::TextFilePhysicalPackage;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testsupport::addPart;
using testsupport::attemptWithout;
using testsupport::codeThrownBy;
using testsupport::contentOf;
using testsupport::namesIn;
using testsupport::openingParts;
using testsupport::packageText;
using testsupport::partOf;
using testsupport::readAll;
using testsupport::throwsPackageError;
using testsupport::toNativePath;
using testsupport::writeInto;

namespace {

std::string const JustChanged =
    "A part cannot be deleted if it has just been created or modified. Package must be closed first.";

/// Fails whoever asks it anything.
class SilentInfo : public IPhysicalPartInfo {
public:
    std::int32_t getCompression() const override { throw std::logic_error("asked for the compression"); }
    std::int64_t getSize() const override { throw std::logic_error("asked for the size"); }
    std::int64_t getTimestamp() const override { throw std::logic_error("asked for the time stamp"); }
};

class PartsOfAPackage : public testsupport::PackageFixture {
protected:
    void TearDown() override {
        package.close(true);
        PackageFixture::TearDown();
    }

    FilePart& create(std::u16string const& name, std::u16string const& contentType = u"") {
        return dynamic_cast<FilePart&>(*package.createPart(name, contentType, FilePartInfo()));
    }

    /// Expects that deleting fails with this message and without a code, and changes nothing.
    void expectNotDeleted(std::u16string const& name, std::string const& message) {
        auto const names = namesIn(package);
        auto const remove = [&] { package.deletePart(name); };

        EXPECT_THAT(remove, throwsPackageError(message));

        EXPECT_FALSE(codeThrownBy(remove));
        EXPECT_EQ(namesIn(package), names);
    }

    std::u16string const path = writePackage({{"/b.bin", "YWJj", true}});
    std::string const before = packageFile();
    TextFilePhysicalPackage package{path};
};

using CreatePart = PartsOfAPackage;
using DeletePart = PartsOfAPackage;

TEST(FilePartInfoTest, SaysZeroToEveryQuestion) {
    FilePartInfo const info;
    IPhysicalPartInfo const& asked = info;

    EXPECT_EQ(asked.getCompression(), 0);
    EXPECT_EQ(asked.getSize(), 0);
    EXPECT_EQ(asked.getTimestamp(), 0);
}

TEST_F(CreatePart, GivesAnEmptyPartThatWaitsForItsTemporaryFile) {
    package.open(OpenMode::ReadWrite);

    auto const& part = create(u"/new.png", u"image/png");

    EXPECT_EQ(part.getName(), u"/new.png");
    EXPECT_EQ(part.getContentType(), u"image/png");
    EXPECT_EQ(part.getMode(), FilePartMode::TempFile);
    EXPECT_TRUE(part.isCached());
    EXPECT_TRUE(part.needFlush());
    EXPECT_TRUE(part.isBinary());
    EXPECT_FALSE(part.isModified());
    EXPECT_FALSE(fs::exists(toNativePath(part.getModifiedFullPath())));
}

TEST_F(CreatePart, ListsTheNewPartsBeforeTheStoredOnes) {
    package.open(OpenMode::ReadWrite);

    auto const& second = create(u"/z.xml");
    auto const& first = create(u"/y.xml");

    EXPECT_THAT(namesIn(package), ElementsAre("/y.xml", "/z.xml", "/_rels/.rels", "/a.xml", "/b.bin"));
    EXPECT_EQ(&partOf(package, u"/y.xml"), &first);
    EXPECT_EQ(&partOf(package, u"/z.xml"), &second);
}

TEST_F(CreatePart, AsksTheInfoForNothing) {
    package.open(OpenMode::ReadWrite);

    auto& part = dynamic_cast<FilePart&>(*package.createPart(u"/c.png", u"image/png", SilentInfo()));
    writeInto(part, "abc");

    EXPECT_EQ(part.getContentType(), u"image/png");
    EXPECT_EQ(part.getMode(), FilePartMode::TempFile);
    package.close(false);
    EXPECT_EQ(packageFile(), packageText(openingParts({{"/b.bin", "YWJj", true}, {"/c.png", "YWJj", true}})));
}

TEST_F(CreatePart, LeavesOneEntryWhereANameIsUsedTwiceAndKeepsTheFirstPartAlive) {
    package.open(OpenMode::ReadWrite);
    auto& first = create(u"/new", u"text/xml");
    writeInto(first, "first");
    auto* const stream = first.getOutputStream();

    auto const& second = create(u"/new", u"image/png");

    EXPECT_THAT(namesIn(package), ElementsAre("/new", "/_rels/.rels", "/a.xml", "/b.bin"));
    EXPECT_EQ(&partOf(package, u"/new"), &second);
    EXPECT_EQ(first.getName(), u"/new");
    EXPECT_EQ(first.getContentType(), u"text/xml");
    EXPECT_EQ(first.getOutputStream(), stream);
    package.close(false);
    EXPECT_EQ(packageFile(), packageText(openingParts({{"/b.bin", "YWJj", true}, {"/new", "", true}})));
}

TEST_F(CreatePart, LeavesAPartThatWasOpenedForWritingAliveWhereItTakesItsName) {
    package.open(OpenMode::ReadWrite);
    auto& changed = partOf(package, u"/a.xml");
    writeInto(changed, "changed");

    auto& created = create(u"/a.xml", u"image/png");
    writeInto(created, "abc");

    EXPECT_THAT(namesIn(package), ElementsAre("/a.xml", "/_rels/.rels", "/b.bin"));
    EXPECT_EQ(readAll(*changed.getInputStream()), "<a/>");
    package.close(false);
    EXPECT_EQ(packageFile(), packageText({{"/[Content_Types].xml", "<Types/>"},
                                          {"/_rels/.rels", "<Relationships/>"},
                                          {"/a.xml", "YWJj", true},
                                          {"/b.bin", "YWJj", true}}));
}

TEST_F(CreatePart, GivesAStoredNameASecondPartUntilThatIsWritten) {
    package.open(OpenMode::ReadWrite);
    auto& stored = partOf(package, u"/a.xml");

    auto& created = create(u"/a.xml");
    EXPECT_THAT(namesIn(package), ElementsAre("/a.xml", "/_rels/.rels", "/a.xml", "/b.bin"));
    writeInto(created, "new");

    EXPECT_THAT(namesIn(package), ElementsAre("/a.xml", "/_rels/.rels", "/b.bin"));
    EXPECT_EQ(&partOf(package, u"/a.xml"), &created);
    EXPECT_EQ(readAll(*stored.getInputStream()), "<a/>");
}

TEST_F(CreatePart, CanReplaceTheContentTypesPart) {
    package.open(OpenMode::ReadWrite);
    writeInto(create(u"/[Content_Types].xml"), "<new/>");

    package.close(false);

    EXPECT_EQ(packageFile(), packageText({{"/[Content_Types].xml", "<new/>"},
                                          {"/_rels/.rels", "<Relationships/>"},
                                          {"/a.xml", "<a/>"},
                                          {"/b.bin", "YWJj", true}}));
}

TEST_F(CreatePart, GivesAPartThatCanNotBeReadBeforeThePackageWasClosed) {
    package.open(OpenMode::ReadWrite);
    auto& part = addPart(package, u"/c.xml", u"", "new");

    EXPECT_THAT([&] { part.getInputStream(); },
                throwsPackageError("Failed to create or open file system input stream"));

    package.close(false);
    package.open(OpenMode::Read);
    EXPECT_EQ(contentOf(package, u"/c.xml"), "new");
}

TEST_F(CreatePart, WorksInAPackageOpenedForReadingWhichIsNeverWrittenBack) {
    package.open(OpenMode::Read);
    auto& part = addPart(package, u"/c.xml", u"", "new");

    EXPECT_THAT(namesIn(package), ElementsAre("/c.xml", "/_rels/.rels", "/a.xml", "/b.bin"));
    EXPECT_TRUE(part.isModified());
    package.close(false);

    EXPECT_EQ(packageFile(), before);
    EXPECT_THAT(temporaryArea.entries(), IsEmpty());
}

TEST_F(CreatePart, WorksWithoutAnOpenPackageAndLeavesNothingBehind) {
    {
        TextFilePhysicalPackage closed(path);
        addPart(closed, u"/c.xml", u"", "new");
        EXPECT_NO_THROW(closed.close(false));
    }

    EXPECT_EQ(packageFile(), before);
    EXPECT_THAT(temporaryArea.entries(), IsEmpty());
}

TEST_F(CreatePart, LeavesTheEarlierPartWhereMemoryFailsForItsSuccessor) {
    for (std::size_t number = 0;; ++number) {
        TextFilePhysicalPackage own(writePackage());
        own.open(OpenMode::ReadWrite);
        auto& earlier = addPart(own, u"/a new part.xml", u"", "earlier");

        auto const attempt =
            attemptWithout(number, [&] { own.createPart(u"/a new part.xml", u"text/plain", FilePartInfo()); });

        auto& now = partOf(own, u"/a new part.xml");
        EXPECT_EQ(&now == &earlier, attempt.failed) << number;
        EXPECT_EQ(earlier.getName(), u"/a new part.xml");
        own.close(false);
        if (!attempt.ranOutOfMemory)
            break;
    }
}

TEST_F(CreatePart, TrustsTheNameUntilTheCommitWhichFailsWholeWhereNoFileCanBeCalledSo) {
    for (auto const* const name : {u"", u"/", u"/x/../y", u"/x//y", u"/."}) {
        package.open(OpenMode::ReadWrite);
        create(name);
        create(u"/good.xml");

        auto const message = "Not a usable part name: \"" + testsupport::toUtf8(name) + "\": ";
        EXPECT_THAT([&] { package.close(false); },
                    ::testing::ThrowsMessage<opc::Exception>(::testing::StartsWith(message)));

        EXPECT_EQ(packageFile(), before);
        EXPECT_FALSE(package.isOpen());
        EXPECT_THAT(temporaryArea.entries(), IsEmpty());
    }
}

TEST_F(DeletePart, TakesAStoredPartOutOfThePackage) {
    package.open(OpenMode::ReadWrite);

    package.deletePart(u"/a.xml");

    EXPECT_THAT(namesIn(package), ElementsAre("/_rels/.rels", "/b.bin"));
    expectNotDeleted(u"/a.xml", "Part does not exist");
    EXPECT_EQ(packageFile(), before); // until the commit
    package.close(false);
    EXPECT_EQ(packageFile(), packageText({{"/[Content_Types].xml", "<Types/>"},
                                          {"/_rels/.rels", "<Relationships/>"},
                                          {"/b.bin", "YWJj", true}}));
}

TEST_F(DeletePart, LeavesThePartInTheFileWhereThePackageIsNotCommitted) {
    package.open(OpenMode::ReadWrite);
    package.deletePart(u"/a.xml");
    package.close(true);

    package.open(OpenMode::ReadWrite);

    EXPECT_THAT(namesIn(package), ElementsAre("/_rels/.rels", "/a.xml", "/b.bin"));
    EXPECT_EQ(packageFile(), before);
}

TEST_F(DeletePart, KnowsNoPartByAnotherName) {
    package.open(OpenMode::ReadWrite);

    for (auto const* const name : {u"", u"/", u"a.xml", u"/A.xml", u"/a.xml/", u"/none"})
        expectNotDeleted(name, "Part does not exist");

    package.close(false); // not modified by that
    EXPECT_EQ(packageFile(), before);
}

TEST_F(DeletePart, KnowsNoPartOfAPackageThatIsNotOpen) {
    EXPECT_THAT([&] { package.deletePart(u"/a.xml"); }, throwsPackageError("Part does not exist"));
    package.open(OpenMode::ReadWrite);
    package.close(true);

    EXPECT_THAT([&] { package.deletePart(u"/a.xml"); }, throwsPackageError("Part does not exist"));
}

TEST_F(DeletePart, RefusesAPartThatWasCreatedOrChangedUntilThePackageWasClosed) {
    package.open(OpenMode::ReadWrite);
    create(u"/created");
    addPart(package, u"/written", u"", "new");
    partOf(package, u"/a.xml").getOutputStream();

    expectNotDeleted(u"/created", JustChanged);
    expectNotDeleted(u"/written", JustChanged);
    expectNotDeleted(u"/a.xml", JustChanged);

    package.close(false);
    package.open(OpenMode::ReadWrite);
    for (auto const* const name : {u"/created", u"/written", u"/a.xml"})
        EXPECT_NO_THROW(package.deletePart(name));
    package.close(false);
    EXPECT_EQ(packageFile(), packageText({{"/[Content_Types].xml", "<Types/>"},
                                          {"/_rels/.rels", "<Relationships/>"},
                                          {"/b.bin", "YWJj", true}}));
}

TEST_F(DeletePart, RefusesAPartThatWasDecodedWhileThePackageIsOpenForWriting) {
    package.open(OpenMode::ReadWrite);
    EXPECT_EQ(contentOf(package, u"/b.bin"), "abc");

    expectNotDeleted(u"/b.bin", JustChanged);
}

TEST_F(DeletePart, RefusesThePartsOfANewPackage) {
    package.open(OpenMode::Create);

    expectNotDeleted(u"/[Content_Types].xml", JustChanged);
    expectNotDeleted(u"/a.xml", "Part does not exist");
}

TEST_F(DeletePart, AcceptsTextThatWasOnlyRead) {
    package.open(OpenMode::ReadWrite);
    EXPECT_EQ(contentOf(package, u"/a.xml"), "<a/>");

    package.deletePart(u"/a.xml");

    EXPECT_THAT(namesIn(package), ElementsAre("/_rels/.rels", "/b.bin"));
}

TEST_F(DeletePart, RemovesTheExtractedFileAndClosesItsStream) {
    package.open(OpenMode::Read);
    auto& part = partOf(package, u"/b.bin");
    EXPECT_EQ(readAll(*part.getInputStream()), "abc");
    auto const file = toNativePath(part.getExtractedFullPath());
    ASSERT_TRUE(fs::exists(file));

    package.deletePart(u"/b.bin");

    EXPECT_FALSE(fs::exists(file));
    EXPECT_THAT([&] { part.getInputStream(); }, // the earlier stream is gone with the file
                throwsPackageError("Failed to create or open file system input stream"));
}

TEST_F(DeletePart, RemovesTheFileOfAPartThatWasExtractedAsItIs) {
    package.open(OpenMode::ReadWrite);
    auto& part = partOf(package, u"/b.bin");
    part.extractToTempFile();
    auto const file = toNativePath(part.getExtractedFullPath());
    ASSERT_TRUE(fs::exists(file));

    package.deletePart(u"/b.bin");

    EXPECT_FALSE(fs::exists(file));
}

TEST_F(DeletePart, LeavesThePartAliveUntilThePackageIsClosed) {
    package.open(OpenMode::ReadWrite);
    auto& part = partOf(package, u"/a.xml");
    auto& text = *part.getInputStream();

    package.deletePart(u"/a.xml");

    EXPECT_EQ(part.getName(), u"/a.xml");
    EXPECT_FALSE(part.isBinary());
    EXPECT_EQ(readAll(text), "<a/>"); // the stream over the mapped file too
    EXPECT_EQ(readAll(*part.getInputStream()), "<a/>");
}

TEST_F(DeletePart, IsAllowedInAPackageOpenedForReadingWhichIsNeverWrittenBack) {
    package.open(OpenMode::Read);

    package.deletePart(u"/a.xml");

    EXPECT_THAT(namesIn(package), ElementsAre("/_rels/.rels", "/b.bin"));
    package.close(false);
    EXPECT_EQ(packageFile(), before);
}

TEST_F(DeletePart, TakesAwayTheStoredContentTypesPart) {
    std::string const message = "Content types stream does not exist";
    package.open(OpenMode::ReadWrite);

    package.deletePart(u"/[Content_Types].xml");

    EXPECT_THAT([&] { package.getParts(); }, throwsPackageError(message));
    EXPECT_THAT([&] { package.getContentTypesPart(); }, throwsPackageError(message));
    EXPECT_THAT([&] { package.getContentTypeInputStream(); }, throwsPackageError(message));
    EXPECT_THAT([&] { package.getContentTypeOutputStream(); }, throwsPackageError(message));
}

TEST_F(DeletePart, LetsTheContentTypesPartBeCreatedAnew) {
    package.open(OpenMode::ReadWrite);
    package.deletePart(u"/[Content_Types].xml");
    writeInto(create(u"/[Content_Types].xml"), "<new/>");

    package.close(false);

    package.open(OpenMode::Read);
    EXPECT_EQ(contentOf(package, u"/[Content_Types].xml"), "<new/>");
}

TEST_F(DeletePart, LetsItsNameBeUsedAgain) {
    package.open(OpenMode::ReadWrite);
    package.deletePart(u"/b.bin");
    addPart(package, u"/b.bin", u"text/plain", "now text");

    package.close(false);

    EXPECT_EQ(packageFile(), packageText(openingParts({{"/b.bin", "now text"}})));
}

TEST_F(DeletePart, TakesTheStoredOneOfTwoPartsOfOneName) {
    package.open(OpenMode::ReadWrite);
    create(u"/a.xml");

    package.deletePart(u"/a.xml");

    EXPECT_THAT(namesIn(package), ElementsAre("/a.xml", "/_rels/.rels", "/b.bin"));
    expectNotDeleted(u"/a.xml", JustChanged);
    package.close(false);
    EXPECT_EQ(packageFile(), packageText({{"/[Content_Types].xml", "<Types/>"},
                                          {"/_rels/.rels", "<Relationships/>"},
                                          {"/a.xml", ""},
                                          {"/b.bin", "YWJj", true}}));
}

TEST_F(DeletePart, TakesThePartOutButModifiesNothingWhereItsPathCanNotBeMade) {
    writePackage({{"/x/../y", "hostile"}});
    auto const hostile = packageFile();
    package.open(OpenMode::ReadWrite);

    EXPECT_THAT([&] { package.deletePart(u"/x/../y"); },
                throwsPackageError("Not a usable part name: \"/x/../y\": it has a dot segment"));

    EXPECT_THAT(namesIn(package), ElementsAre("/_rels/.rels", "/a.xml"));
    package.close(false);
    EXPECT_EQ(packageFile(), hostile);
}

} // namespace
