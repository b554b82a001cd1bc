#include <textpackage/TextFilePhysicalPackage.hpp>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include <boost/system/error_code.hpp>

#include <opccore/IPhysicalOutputStream.hpp>
#include <tests/support/PackageFixture.hpp>
#include <tests/support/Permissions.hpp>
#include <textpackage/FilePartInfo.hpp>

namespace fs = std::filesystem;

using opc::interfaces::OpenMode;
using opc::textpackage::FilePart;
using opc::textpackage::FilePartInfo;
using opc::textpackage::FilePartMode;
using opc::textpackage::TextFilePhysicalPackage;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;
using testsupport::addPart;
using testsupport::contentOf;
using testsupport::expectClosedWithNothingLeft;
using testsupport::namesIn;
using testsupport::openingParts;
using testsupport::packageText;
using testsupport::partOf;
using testsupport::readAll;
using testsupport::throwsPackageError;
using testsupport::toNativePath;
using testsupport::treeOf;
using testsupport::writeInto;
using Tree = std::map<std::string, std::string>;

namespace {

char const NoInputFile[] = "Failed to create or open file system input stream";

auto const AllModes = {OpenMode::Read, OpenMode::Create, OpenMode::ReadWrite};

/// Another current folder for as long as it lives.
class CurrentFolder {
public:
    explicit CurrentFolder(fs::path const& folder) { fs::current_path(folder); }
    CurrentFolder(CurrentFolder const&) = delete;
    CurrentFolder& operator=(CurrentFolder const&) = delete;
    ~CurrentFolder() { fs::current_path(earlier_); }

private:
    fs::path earlier_ = fs::current_path();
};

/// Every test here ends with an empty temporary area too, and under AddressSanitizer without a leak.
class PackageLifetime : public testsupport::PackageFixture {
protected:
    std::u16string path = folder.corePath("package.txt");
    std::string const text = packageText(openingParts({{"/b.bin", "AAECAwQ=", true}}));
    std::string const bytes{"\0\1\2\3\4", 5};
};

} // namespace

// Without opening

TEST_F(PackageLifetime, MayEndWithoutOpening) {
    TextFilePhysicalPackage const package(path);

    EXPECT_FALSE(package.isOpen());
}

TEST_F(PackageLifetime, MakesNothingForAPartThatIsCreatedWithoutOpeningAndNeverWritten) {
    TextFilePhysicalPackage package(path);

    auto const* const part = package.createPart(u"/a.xml", u"text/xml", FilePartInfo());

    EXPECT_EQ(part->getName(), u"/a.xml");
    EXPECT_EQ(package.getModifiedPackageRoot(), u"");
    EXPECT_THAT(temporaryArea.entries(), IsEmpty());
}

TEST_F(PackageLifetime, KeepsAPartThatIsWrittenWithoutOpeningInAPrivateFolderUntilItEnds) {
    {
        testsupport::Umask const none(0);
        TextFilePhysicalPackage package(path);

        auto const& part = addPart(package, u"/a/b.xml", u"", "content");

        auto const root = toNativePath(package.getModifiedPackageRoot());
        EXPECT_THAT(temporaryPaths(), ElementsAre(root));
        EXPECT_THAT(root.string(), EndsWith("_modified_package_package.txt"));
        EXPECT_EQ(testsupport::permissionsOf(root), 0700U);
        EXPECT_EQ(treeOf(root), (Tree{{"a", "(folder)"}, {"a/b.xml", "content"}}));
        EXPECT_TRUE(part.isModified());
        EXPECT_FALSE(package.isOpen());
    }
    EXPECT_THAT(temporaryArea.entries(), IsEmpty());
    EXPECT_THAT(folder.entries(), IsEmpty());
}

TEST_F(PackageLifetime, GoesOnInTheFolderOfAPartThatWasWrittenBeforeOpening) {
    for (auto const mode : {OpenMode::Create, OpenMode::ReadWrite}) {
        TextFilePhysicalPackage package(writePackage());
        addPart(package, u"/early.xml", u"", "early");
        auto const root = package.getModifiedPackageRoot();

        package.open(mode);

        EXPECT_EQ(package.getModifiedPackageRoot(), root);
        EXPECT_EQ(namesIn(package).front(), "/early.xml");
        addPart(package, u"/late.xml", u"", "late");
        EXPECT_EQ(treeOf(toNativePath(root)), (Tree{{"early.xml", "early"}, {"late.xml", "late"}}));
        package.close(true);
        expectClosedWithNothingLeft(package);
    }
}

TEST_F(PackageLifetime, RemovesWhatWasWrittenBeforeAnOpeningThatFails) {
    TextFilePhysicalPackage package(path);
    addPart(package, u"/early.xml", u"", "early");

    EXPECT_THAT([&] { package.open(OpenMode::Read); },
                throwsPackageError("Package does not exist", {ENOENT, boost::system::generic_category()}));

    expectClosedWithNothingLeft(package);
    EXPECT_THAT(temporaryArea.entries(), IsEmpty());
}

TEST_F(PackageLifetime, TouchesNoFileOfTheCurrentFolderWhereItHasNoFolderOfItsOwn) {
    folder.write("here/part", "of somebody else");
    CurrentFolder const here(folder / "here");
    TextFilePhysicalPackage package(path);
    std::istringstream stream("__ZKOPC_PART_BEGIN__ /[Content_Types].xml\n"
                              "__ZKOPC_PART_BEGIN__ /part BASE64\nAAEC\n__ZKOPC_PACKAGE_END__\n");
    package.readParts(stream);
    auto& stored = partOf(package, u"/part");
    FilePart created(package, u"/part", u"", FilePartMode::TempFile);

    EXPECT_THAT([&] { stored.getInputStream(); }, throwsPackageError("Package is not open for reading", {}));
    EXPECT_THAT([&] { stored.extractToTempFile(); },
                throwsPackageError("Failed to open file system output stream", {}));
    EXPECT_THAT([&] { created.getInputStream(); }, throwsPackageError(NoInputFile, {}));
    for (bool const modified : {false, true})
        EXPECT_THAT([&] { package.createFilePartInputStream(&created, modified); },
                    throwsPackageError(NoInputFile, {}));
    EXPECT_THAT([&] { package.createFilePartOutputStream(&created, false); },
                throwsPackageError("Failed to create or open file system output stream: /part", {}));
    package.deletePart(u"/part");

    EXPECT_EQ(stored.getMode(), FilePartMode::BufferBase64);
    EXPECT_EQ(treeOf(folder.path()), (Tree{{"here", "(folder)"}, {"here/part", "of somebody else"}}));
    EXPECT_THAT(temporaryArea.entries(), IsEmpty());
}

TEST_F(PackageLifetime, TouchesNoFileOfTheCurrentFolderWhenItIsCreated) {
    folder.write("here/part", "of somebody else");
    CurrentFolder const here(folder / "here");
    TextFilePhysicalPackage package(path);
    package.open(OpenMode::Create);
    auto& part = addPart(package, u"/part", u"", "content");

    EXPECT_THAT([&] { part.getInputStream(); }, throwsPackageError(NoInputFile, {}));
    package.close(true);

    EXPECT_EQ(treeOf(folder.path()), (Tree{{"here", "(folder)"}, {"here/part", "of somebody else"}}));
}

// Opened for reading

TEST_F(PackageLifetime, KeepsWhatIsWrittenInAPackageOpenedForReadingInAPrivateFolderUntilItIsClosed) {
    TextFilePhysicalPackage package(writeText(text));
    package.open(OpenMode::Read);

    writeInto(partOf(package, u"/a.xml"), "<changed/>");
    addPart(package, u"/new.xml", u"", "<new/>");

    auto const root = toNativePath(package.getModifiedPackageRoot());
    EXPECT_THAT(root.string(), EndsWith("_modified_package_package.txt"));
    EXPECT_EQ(treeOf(root), (Tree{{"a.xml", "<changed/>"}, {"new.xml", "<new/>"}}));
    EXPECT_THAT(namesIn(package), ElementsAre("/new.xml", "/_rels/.rels", "/a.xml", "/b.bin"));
    EXPECT_EQ(contentOf(package, u"/a.xml"), "<a/>");
    package.close(false);
    expectClosedWithNothingLeft(package);
    EXPECT_THAT(temporaryArea.entries(), IsEmpty());
    EXPECT_EQ(packageFile(), text);
}

TEST_F(PackageLifetime, SaysWhyThePrivateFolderCannotBeMade) {
    TextFilePhysicalPackage package(writeText(text));
    package.open(OpenMode::Read);
    auto& part = partOf(package, u"/a.xml");
    ::setenv("TMPDIR", (folder / "package.txt").c_str(), 1);

    EXPECT_THAT([&] { part.getOutputStream(); },
                throwsPackageError("Could not create directory structure for part output stream: File exists",
                                   {EEXIST, boost::system::generic_category()}));

    EXPECT_FALSE(part.isModified());
    EXPECT_EQ(package.getModifiedPackageRoot(), u"");
    EXPECT_EQ(contentOf(package, u"/a.xml"), "<a/>");
    EXPECT_EQ(packageFile(), text);
}

// The end of an open package

TEST_F(PackageLifetime, DiscardsItsChangesWhenItIsDestroyedWhileOpen) {
    for (auto const mode : AllModes) {
        {
            TextFilePhysicalPackage package(writeText(text));
            package.open(mode);
            addPart(package, u"/new.xml", u"", "<new/>");
            writeInto(*package.getContentTypesPart(), "<Changed/>");
        }
        EXPECT_THAT(temporaryArea.entries(), IsEmpty());
        EXPECT_EQ(packageFile(), text);
        EXPECT_THAT(folder.entries(), ElementsAre("package.txt"));
    }
}

TEST_F(PackageLifetime, EndsWithStreamsStillOpen) {
    for (bool const isDestroyedWhileOpen : {false, true}) {
        TextFilePhysicalPackage package(writeText(text));
        package.open(OpenMode::ReadWrite);
        partOf(package, u"/a.xml").getInputStream();
        partOf(package, u"/a.xml").getOutputStream()->write("never flushed", 13);
        partOf(package, u"/b.bin").getInputStream();
        package.createPart(u"/new.xml", u"", FilePartInfo())->getOutputStream()->write("never flushed", 13);

        if (!isDestroyedWhileOpen)
            package.close(true);
    }
    EXPECT_THAT(temporaryArea.entries(), IsEmpty());
    EXPECT_EQ(packageFile(), text);
}

TEST_F(PackageLifetime, BeginsAnewWithEachOpening) {
    TextFilePhysicalPackage package(writeText(text));
    package.open(OpenMode::ReadWrite);
    writeInto(partOf(package, u"/a.xml"), "<changed/>");
    addPart(package, u"/new.xml", u"", "<new/>");
    package.deletePart(u"/_rels/.rels");
    package.close(true);

    package.open(OpenMode::ReadWrite);

    EXPECT_THAT(namesIn(package), ElementsAre("/_rels/.rels", "/a.xml", "/b.bin"));
    EXPECT_FALSE(partOf(package, u"/a.xml").isModified());
    EXPECT_EQ(contentOf(package, u"/b.bin"), bytes);
    EXPECT_EQ(treeOf(toNativePath(package.getModifiedPackageRoot())), Tree());
}

// Parts that the package gave up

TEST_F(PackageLifetime, KeepsADeletedPartUsableUntilItIsClosed) {
    TextFilePhysicalPackage package(writeText(text));
    package.open(OpenMode::ReadWrite);
    auto& part = partOf(package, u"/a.xml");
    auto& binary = partOf(package, u"/b.bin");
    auto* const stream = part.getInputStream();

    package.deletePart(u"/a.xml");
    package.deletePart(u"/b.bin");

    EXPECT_THAT(namesIn(package), ElementsAre("/_rels/.rels"));
    EXPECT_EQ(part.getName(), u"/a.xml");
    EXPECT_EQ(readAll(*stream), "<a/>");
    EXPECT_EQ(readAll(*part.getInputStream()), "<a/>");
    EXPECT_EQ(readAll(*binary.getInputStream()), bytes);
    writeInto(part, "<changed/>");
    EXPECT_THAT(namesIn(package), ElementsAre("/_rels/.rels"));
}

TEST_F(PackageLifetime, KeepsADisplacedCreatedPartUsableUntilItIsClosed) {
    TextFilePhysicalPackage package(path);
    package.open(OpenMode::Create);
    auto& displaced = addPart(package, u"/a.xml", u"first/type", "first");

    auto& second = *package.createPart(u"/a.xml", u"second/type", FilePartInfo());

    EXPECT_EQ(&partOf(package, u"/a.xml"), &second);
    EXPECT_THAT(namesIn(package), ElementsAre("/a.xml"));
    EXPECT_EQ(displaced.getName(), u"/a.xml");
    EXPECT_EQ(displaced.getContentType(), u"first/type");
    EXPECT_FALSE(displaced.getOutputStream()->hasFailed());
}

TEST_F(PackageLifetime, KeepsAStoredPartUsableThatACreatedOneHasDisplaced) {
    TextFilePhysicalPackage package(writeText(text));
    package.open(OpenMode::ReadWrite);
    auto& stored = partOf(package, u"/b.bin");
    auto& created = *package.createPart(u"/b.bin", u"", FilePartInfo());
    EXPECT_THAT(namesIn(package), ElementsAre("/b.bin", "/_rels/.rels", "/a.xml", "/b.bin"));

    EXPECT_EQ(readAll(*stored.getInputStream()), bytes); // which counts it as changed

    EXPECT_THAT(namesIn(package), ElementsAre("/b.bin", "/_rels/.rels", "/a.xml"));
    EXPECT_EQ(&partOf(package, u"/b.bin"), &created);
    EXPECT_EQ(stored.getName(), u"/b.bin");
    stored.close();
    EXPECT_EQ(readAll(*stored.getInputStream()), bytes);
}

// Side by side

TEST_F(PackageLifetime, SharesNothingWithPackagesOnOtherThreads) {
    std::vector<std::thread> threads;
    std::vector<int> good(4, 0);
    writeText(text);
    for (auto& count : good) {
        threads.emplace_back([this, &count] {
            for (int i = 0; i < 20; ++i) {
                TextFilePhysicalPackage package(path);
                package.open(OpenMode::ReadWrite);
                writeInto(partOf(package, u"/a.xml"), "<changed/>");
                bool const isGood = contentOf(package, u"/b.bin") == bytes && contentOf(package, u"/a.xml") == "<a/>";
                package.close(true);
                count += isGood ? 1 : 0;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();

    EXPECT_THAT(good, ::testing::Each(20));
    EXPECT_EQ(packageFile(), text);
}
