#include <textpackage/TextFilePhysicalPackage.hpp>

#include <filesystem>
#include <string>

#include <gmock/gmock.h>

#include <opccore/IPhysicalOutputStream.hpp>
#include <tests/support/FailingAllocations.hpp>
#include <tests/support/PackageFixture.hpp>

namespace fs = std::filesystem;

using opc::interfaces::OpenMode;
using opc::textpackage::TextFilePhysicalPackage;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testsupport::addPart;
using testsupport::attemptWithout;
using testsupport::CommitCounter;
using testsupport::contentOf;
using testsupport::expectClosedWithNothingLeft;
using testsupport::namesIn;
using testsupport::openingParts;
using testsupport::packageText;
using testsupport::partOf;
using testsupport::readAll;
using testsupport::readFile;
using testsupport::throwsPackageError;
using testsupport::toNativePath;
using testsupport::writeInto;

namespace {

auto const AllModes = {OpenMode::Read, OpenMode::Create, OpenMode::ReadWrite};

class PackageClose : public testsupport::PackageFixture {
protected:
    std::u16string path = folder.corePath("package.txt");
};

} // namespace

TEST_F(PackageClose, RemovesTheFoldersAndForgetsTheParts) {
    for (auto const mode : AllModes) {
        for (bool const discardChanges : {false, true}) {
            if (mode == OpenMode::Create && !discardChanges)
                continue; // that commits
            TextFilePhysicalPackage package(writePackage());
            package.open(mode);

            package.close(discardChanges);

            expectClosedWithNothingLeft(package);
            EXPECT_THAT(temporaryArea.entries(), IsEmpty());
            EXPECT_EQ(packageFile(), packageText(openingParts()));
        }
    }
}

TEST_F(PackageClose, LeavesNothingBehindWhereMemoryFailsOnce) {
    for (std::size_t number = 0;; ++number) {
        TextFilePhysicalPackage package(writePackage({{"/b.bin", "AAECAwQ=", true}}));
        package.open(OpenMode::ReadWrite);
        contentOf(package, u"/b.bin");
        addPart(package, u"/folder/new.xml", u"", "new");

        auto const attempt = attemptWithout(number, [&] { package.close(true); });

        EXPECT_FALSE(attempt.failed) << number;
        EXPECT_THAT(temporaryPaths(), IsEmpty()) << number;
        if (!attempt.ranOutOfMemory)
            break;
    }
}

TEST_F(PackageClose, EndsEvenWhereThereIsNoMemoryAtAll) {
    TextFilePhysicalPackage package(writePackage());
    package.open(OpenMode::ReadWrite);
    {
        testsupport::FailingAllocations const failing(0, testsupport::FailingAllocations::AllFromThere);
        package.close(true);
    }

    EXPECT_FALSE(package.isOpen());
    for (auto const& left : temporaryPaths()) // for which there was no memory
        fs::remove_all(left);
}

TEST_F(PackageClose, DoesNothingToAPackageThatIsClosed) {
    TextFilePhysicalPackage package(path);

    package.close(false);
    package.close(true);
    writePackage();
    package.open(OpenMode::Read);
    package.close(false);
    package.close(false);

    expectClosedWithNothingLeft(package);
}

TEST_F(PackageClose, NeverWritesBackAPackageThatWasOpenedForReading) {
    TextFilePhysicalPackage package(writePackage());
    CommitCounter const commits(package);
    package.open(OpenMode::Read);
    writeInto(partOf(package, u"/a.xml"), "<changed/>");
    addPart(package, u"/new.xml", u"", "<new/>");
    package.deletePart(u"/_rels/.rels");

    package.close(false);

    EXPECT_EQ(commits.count(), 0);
    EXPECT_EQ(packageFile(), packageText(openingParts()));
    EXPECT_THAT(temporaryArea.entries(), IsEmpty());
}

TEST_F(PackageClose, DoesNotWriteBackAPackageThatIsNotModified) {
    TextFilePhysicalPackage package(writePackage({{"/b.bin", "AAECAwQ=", true}}, "header"));
    auto const writeTime = fs::last_write_time(folder / "package.txt");
    CommitCounter const commits(package);
    package.open(OpenMode::ReadWrite);
    package.setTextFileHeader(u"another header"); // alone no reason to write
    contentOf(package, u"/b.bin");

    package.close(false);

    EXPECT_EQ(commits.count(), 0);
    EXPECT_EQ(fs::last_write_time(folder / "package.txt"), writeTime);
    EXPECT_EQ(packageFile(), packageText(openingParts({{"/b.bin", "AAECAwQ=", true}}), "header"));
}

TEST_F(PackageClose, DiscardsTheChangesWhereThatIsAskedFor) {
    for (auto const mode : {OpenMode::Create, OpenMode::ReadWrite}) {
        TextFilePhysicalPackage package(writePackage());
        CommitCounter const commits(package);
        package.open(mode);
        addPart(package, u"/new.xml", u"", "<new/>");

        package.close(true);

        EXPECT_EQ(commits.count(), 0);
        EXPECT_EQ(packageFile(), packageText(openingParts()));
        expectClosedWithNothingLeft(package);
    }
}

TEST_F(PackageClose, WritesNothingForANewPackageThatIsDiscarded) {
    TextFilePhysicalPackage package(path);
    package.open(OpenMode::Create);
    addPart(package, u"/new.xml", u"", "<new/>");

    package.close(true);

    EXPECT_THAT(folder.entries(), IsEmpty());
}

TEST_F(PackageClose, ForgetsThatThePackageWasModified) {
    TextFilePhysicalPackage package(writePackage());
    CommitCounter const commits(package);
    package.open(OpenMode::ReadWrite);
    writeInto(partOf(package, u"/a.xml"), "<changed/>");
    package.close(true);

    package.open(OpenMode::ReadWrite);
    package.close(false);

    EXPECT_EQ(commits.count(), 0);
}

TEST_F(PackageClose, LeavesOtherFilesInTheTemporaryAreaAlone) {
    temporaryArea.folder().write("of somebody else_extracted_package_package.txt", "content");
    TextFilePhysicalPackage package(writePackage());
    package.open(OpenMode::ReadWrite);

    package.close(true);

    EXPECT_THAT(temporaryArea.entries(), ElementsAre("of somebody else_extracted_package_package.txt"));
    fs::remove(temporaryPaths().front());
}

TEST_F(PackageClose, EndsQuietlyWhereTheTemporaryAreaCannotBeExaminedAnyMore) {
    fs::create_directory(folder / "area");
    ::setenv("TMPDIR", (folder / "area").c_str(), 1); // until the fixture sets it back
    TextFilePhysicalPackage package(writePackage());
    package.open(OpenMode::ReadWrite);
    fs::rename(folder / "area", folder / "moved");
    fs::create_symlink("area", folder / "area"); // a loop

    EXPECT_NO_THROW(package.close(true));

    expectClosedWithNothingLeft(package);
    EXPECT_EQ(packageFile(), packageText(openingParts()));
}

TEST_F(PackageClose, FollowsNoLinkThatSomebodyPutIntoItsFolders) {
    folder.write("precious/file", "content");
    TextFilePhysicalPackage package(writePackage());
    package.open(OpenMode::ReadWrite);
    for (auto const& root : {package.getExtractedPackageRoot(), package.getModifiedPackageRoot()})
        fs::create_directory_symlink(folder / "precious", toNativePath(root) / "link");

    package.close(true);

    EXPECT_EQ(folder.read("precious/file"), "content");
}

TEST_F(PackageClose, KeepsThePathsOfFoldersThatSomebodyElseRemoved) {
    TextFilePhysicalPackage package(writePackage());
    package.open(OpenMode::ReadWrite);
    auto const extractedRoot = package.getExtractedPackageRoot();
    auto const modifiedRoot = package.getModifiedPackageRoot();
    fs::remove_all(toNativePath(extractedRoot));
    fs::remove_all(toNativePath(modifiedRoot));

    package.close(true);

    EXPECT_FALSE(package.isOpen());
    EXPECT_EQ(package.getExtractedPackageRoot(), extractedRoot);
    EXPECT_EQ(package.getModifiedPackageRoot(), modifiedRoot);
}

TEST_F(PackageClose, LetsThePackageBeOpenedAgainWithFreshFoldersOnceSomebodyElseRemovedThem) {
    TextFilePhysicalPackage package(writePackage());
    package.open(OpenMode::ReadWrite);
    auto const extractedRoot = package.getExtractedPackageRoot();
    auto const modifiedRoot = package.getModifiedPackageRoot();
    fs::remove_all(toNativePath(extractedRoot));
    fs::remove_all(toNativePath(modifiedRoot));
    package.close(true);

    package.open(OpenMode::ReadWrite);

    EXPECT_NE(package.getExtractedPackageRoot(), extractedRoot);
    EXPECT_NE(package.getModifiedPackageRoot(), modifiedRoot);
    EXPECT_EQ(contentOf(package, u"/a.xml"), "<a/>");
    writeInto(partOf(package, u"/a.xml"), "<changed/>");
}

TEST_F(PackageClose, ReleasesAllThatOpenBuiltWhenItIsCleanedUpDirectly) {
    TextFilePhysicalPackage package(writePackage());
    CommitCounter const commits(package);
    package.open(OpenMode::ReadWrite);
    writeInto(partOf(package, u"/a.xml"), "<changed/>");

    package.cleanup();

    EXPECT_EQ(package.getExtractedPackageRoot(), u"");
    EXPECT_EQ(package.getModifiedPackageRoot(), u"");
    EXPECT_THAT(temporaryArea.entries(), IsEmpty());
    EXPECT_THAT([&] { package.getParts(); }, throwsPackageError("Content types stream does not exist", {}));
    package.close(false);
    EXPECT_EQ(commits.count(), 0);
}

// Closing the parts only

namespace {

using PartsCloser = void (TextFilePhysicalPackage::*)();

class PackageCloseParts : public PackageClose, public ::testing::WithParamInterface<PartsCloser> {};

} // namespace

TEST_P(PackageCloseParts, ClosesTheStreamsOfAllPartsAndNoMore) {
    TextFilePhysicalPackage package(writePackage({{"/b.bin", "AAECAwQ=", true}}));
    package.open(OpenMode::ReadWrite);
    auto& part = partOf(package, u"/a.xml");
    auto& stored = partOf(package, u"/_rels/.rels");
    stored.extractToTempFile();
    char first = 0;
    stored.getInputStream()->read(&first, 1);
    part.getOutputStream()->write("<changed/>", 10);

    (package.*GetParam())();

    EXPECT_EQ(readFile(toNativePath(part.getModifiedFullPath())), "<changed/>");
    EXPECT_EQ(readAll(*stored.getInputStream()), "<Relationships/>");
    EXPECT_TRUE(package.isOpen());
    EXPECT_TRUE(part.isModified());
    EXPECT_THAT(namesIn(package), ElementsAre("/a.xml", "/_rels/.rels", "/b.bin"));
    EXPECT_EQ(temporaryArea.entries().size(), 2U);
}

TEST_P(PackageCloseParts, LeavesThePackageModified) {
    TextFilePhysicalPackage package(writePackage());
    package.open(OpenMode::ReadWrite);
    writeInto(partOf(package, u"/a.xml"), "<changed/>");

    (package.*GetParam())();
    package.close(false);

    EXPECT_EQ(packageFile(), packageText({{"/[Content_Types].xml", "<Types/>"},
                                          {"/_rels/.rels", "<Relationships/>"},
                                          {"/a.xml", "<changed/>"}}));
}

TEST_P(PackageCloseParts, DoesNothingToAPackageThatIsClosed) {
    TextFilePhysicalPackage package(path);

    (package.*GetParam())();

    expectClosedWithNothingLeft(package);
}

INSTANTIATE_TEST_SUITE_P(All, PackageCloseParts,
                         ::testing::Values(&TextFilePhysicalPackage::closeParts,
                                           &TextFilePhysicalPackage::revertChanges),
                         [](auto const& test) { return test.index == 0 ? "closeParts" : "revertChanges"; });
