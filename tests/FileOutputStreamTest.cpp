#include <textpackage/FileOutputStream.hpp>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include <boost/system/error_code.hpp>

#include <opccore/Exception.hpp>
#include <opccore/LocalFileSystemOps.hpp>
#include <opccore/StringConversion.hpp>
#include <tests/support/FileSizeLimit.hpp>
#include <tests/support/PackageFixture.hpp>
#include <tests/support/TemporaryFolder.hpp>
#include <textpackage/FilePartInfo.hpp>

using opc::interfaces::OpenMode;
using opc::textpackage::FileOutputStream;
using opc::textpackage::FilePartInfo;
using opc::textpackage::TextFilePhysicalPackage;
using ::testing::ElementsAre;
using testsupport::addPart;
using testsupport::namesIn;
using testsupport::partOf;
using testsupport::throwsPackageError;
using testsupport::toNativePath;

namespace {

char const Forbidden[] = "The string __ZKOPC_PA is not allowed in a TextFilePhysicalPackage part";
char const DeleteRefused[] =
    "A part cannot be deleted if it has just been created or modified. Package must be closed first.";

std::int64_t write(opc::interfaces::IPhysicalOutputStream& stream, std::string const& block) {
    return stream.write(block.data(), static_cast<std::int64_t>(block.size()));
}

class FileOutputStreamTest : public ::testing::Test {
protected:
    opc::LocalFileSystemOps fileSystem;
    testsupport::TemporaryFolder folder;
    std::u16string path = folder.corePath("part");
};

class FilePartOutputStream : public testsupport::PackageFixture {};

} // namespace

TEST_F(FileOutputStreamTest, WritesBlocksOneAfterTheOther) {
    FileOutputStream stream(fileSystem, path);

    EXPECT_EQ(write(stream, "first, "), 7);
    EXPECT_EQ(write(stream, ""), 0);
    EXPECT_EQ(write(stream, std::string("second\0", 7)), 7);
    EXPECT_FALSE(stream.hasFailed());
    stream.close();

    EXPECT_EQ(folder.read("part"), std::string("first, second\0", 14));
}

TEST_F(FileOutputStreamTest, EmptiesAFileThatIsAlreadyThere) {
    folder.write("part", "what was there before");

    FileOutputStream stream(fileSystem, path);

    EXPECT_EQ(folder.read("part"), "");
    write(stream, "new");
    stream.close();
    EXPECT_EQ(folder.read("part"), "new");
}

TEST_F(FileOutputStreamTest, HandsOnWhatIsBufferedWhenItIsFlushed) {
    FileOutputStream stream(fileSystem, path);
    write(stream, "content");

    stream.flush();

    EXPECT_EQ(folder.read("part"), "content");
}

TEST_F(FileOutputStreamTest, HandsOnWhatIsBufferedWhenItIsDestroyed) {
    {
        FileOutputStream stream(fileSystem, path);
        write(stream, "content");
    }

    EXPECT_EQ(folder.read("part"), "content");
}

TEST_F(FileOutputStreamTest, WritesNothingOnceItIsClosed) {
    FileOutputStream stream(fileSystem, path);
    write(stream, "content");
    stream.close();

    EXPECT_EQ(write(stream, " and more"), 0);
    EXPECT_EQ(write(stream, "__ZKOPC_PA"), 0);
    stream.flush();
    stream.close();

    EXPECT_TRUE(stream.hasFailed());
    EXPECT_EQ(folder.read("part"), "content");
}

TEST_F(FileOutputStreamTest, WritesNothingForANegativeCount) {
    FileOutputStream stream(fileSystem, path);

    EXPECT_EQ(stream.write("content", -1), 0);
    EXPECT_EQ(stream.write("content", INT64_MIN), 0);

    EXPECT_FALSE(stream.hasFailed());
    stream.flush();
    EXPECT_EQ(folder.read("part"), "");
}

TEST_F(FileOutputStreamTest, ReturnsTheCountAskedForWhenTheDiskIsFullAndNothingAfterThat) {
    std::string const block(100'000, 'x');
    FileOutputStream stream(fileSystem, path);
    testsupport::FileSizeLimit const full(1000);

    EXPECT_EQ(write(stream, block), 100'000);

    EXPECT_TRUE(stream.hasFailed());
    EXPECT_TRUE(stream.isBad());
    EXPECT_EQ(write(stream, block), 0);
}

TEST_F(FileOutputStreamTest, RefusesAFileThatCannotBeOpenedAndSaysItsPath) {
    folder.write("file", "");
    for (auto const& unusable : {folder.corePath("missing/part"), folder.corePath("file/part"), folder.corePath("")}) {
        EXPECT_THAT([&] { FileOutputStream(fileSystem, unusable); },
                    throwsPackageError(
                        "Failed to create or open file system output stream: " + opc::toUDEString(unusable), {}));
    }
    EXPECT_THAT(folder.entries(), ElementsAre("file"));
}

TEST_F(FileOutputStreamTest, AcceptsBlocksThatOnlyResembleTheForbiddenPrefix) {
    std::vector<std::string> const blocks{
        "__ZKOPC_P",                    // its first nine bytes
        "__ZKOPC_",                     // its first eight
        "__ZKOPC_PB",                   // another last letter
        "__ZKOPC_Pa",                   // case counts
        "_ZKOPC_PA_",                   // without the first byte
        "x__ZKOPC_P",                   //
        "__ZKOPC__ZKOPC_P",             //
        "___________________",          //
        "__ZKOPC_ PA",                  //
        std::string("__ZKOPC_\0PA", 11) //
    };
    for (auto const& block : blocks) {
        FileOutputStream stream(fileSystem, path);

        EXPECT_EQ(write(stream, block), static_cast<std::int64_t>(block.size())) << block;

        stream.close();
        EXPECT_EQ(folder.read("part"), block);
    }
}

TEST_F(FileOutputStreamTest, RefusesABlockThatHoldsTheForbiddenPrefixAndWritesNothingOfIt) {
    std::vector<std::string> const blocks{
        "__ZKOPC_PA",
        "x__ZKOPC_PAy",
        "__ZKOPC_PART_BEGIN__",
        "line\n__ZKOPC_PACKAGE_END__\n",
        "___ZKOPC_PA",
        "__ZKOPC__ZKOPC___ZKOPC_PA",
        std::string("\0__ZKOPC_PA", 11),
        std::string(200'000, '_') + "_ZKOPC_PA",
    };
    for (auto const& block : blocks) {
        FileOutputStream stream(fileSystem, path);
        write(stream, "before, ");

        EXPECT_THAT([&] { write(stream, block); }, throwsPackageError(Forbidden, {}));

        EXPECT_FALSE(stream.hasFailed());
        EXPECT_EQ(write(stream, "after"), 5);
        stream.close();
        EXPECT_EQ(folder.read("part"), "before, after") << block.substr(0, 100);
    }
}

TEST_F(FileOutputStreamTest, LooksOnlyAtTheBytesThatAreToBeWritten) {
    FileOutputStream stream(fileSystem, path);

    EXPECT_EQ(stream.write("__ZKOPC_PA", 9), 9);

    stream.flush();
    EXPECT_EQ(folder.read("part"), "__ZKOPC_P");
}

TEST_F(FileOutputStreamTest, DoesNotNoticeAPrefixThatIsSplitAcrossTwoBlocks) {
    for (std::size_t split = 1; split < 10; ++split) {
        std::string const prefix = "__ZKOPC_PA";
        FileOutputStream stream(fileSystem, path);

        write(stream, "a line of text\n" + prefix.substr(0, split));
        write(stream, prefix.substr(split) + " and more text");

        stream.close();
        EXPECT_EQ(folder.read("part"), "a line of text\n__ZKOPC_PA and more text") << split;
    }
}

TEST_F(FilePartOutputStream, MakesTheFoldersThatThePartNeeds) {
    TextFilePhysicalPackage package(folder.corePath("package.txt"));
    package.open(OpenMode::Create);

    auto const& part = addPart(package, u"/some/deep/folder/part.xml", u"", "content");

    EXPECT_EQ(testsupport::treeOf(toNativePath(package.getModifiedPackageRoot())),
              (std::map<std::string, std::string>{{"some", "(folder)"},
                                                  {"some/deep", "(folder)"},
                                                  {"some/deep/folder", "(folder)"},
                                                  {"some/deep/folder/part.xml", "content"}}));
    EXPECT_EQ(part.getModifiedFullPath(), package.getModifiedPackageRoot() + u"/some/deep/folder/part.xml");
}

TEST_F(FilePartOutputStream, WritesUnderTheExtractedRootWhereTheModifiedOneIsNotAskedFor) {
    TextFilePhysicalPackage package(writePackage());
    package.open(OpenMode::ReadWrite);
    auto& part = partOf(package, u"/a.xml");

    write(*package.createFilePartOutputStream(&part, false), "extracted");
    write(*package.createFilePartOutputStream(&part, true), "modified");

    EXPECT_EQ(testsupport::readFile(toNativePath(part.getExtractedFullPath())), "extracted");
    EXPECT_EQ(testsupport::readFile(toNativePath(part.getModifiedFullPath())), "modified");
    EXPECT_FALSE(part.isModified());
}

TEST_F(FilePartOutputStream, CountsThePartAsChangedInAPackageOpenedForWritingWhateverRootItIsFor) {
    for (bool const modified : {false, true}) {
        TextFilePhysicalPackage package(writePackage());
        package.open(OpenMode::ReadWrite);
        ASSERT_THAT(namesIn(package), ElementsAre("/_rels/.rels", "/a.xml"));

        package.createFilePartOutputStream(&partOf(package, u"/a.xml"), modified);

        EXPECT_THAT(namesIn(package), ElementsAre("/a.xml", "/_rels/.rels")) << modified;
        EXPECT_THAT([&] { package.deletePart(u"/a.xml"); }, throwsPackageError(DeleteRefused, {}));
    }
}

TEST_F(FilePartOutputStream, LeavesThePartStoredInAPackageOpenedForReading) {
    TextFilePhysicalPackage package(writePackage());
    package.open(OpenMode::Read);

    package.createFilePartOutputStream(&partOf(package, u"/a.xml"), false);

    EXPECT_THAT(namesIn(package), ElementsAre("/_rels/.rels", "/a.xml"));
    package.deletePart(u"/a.xml");
    EXPECT_THAT(namesIn(package), ElementsAre("/_rels/.rels"));
}

TEST_F(FilePartOutputStream, MarksThePackageAsModifiedOnlyForTheModifiedRoot) {
    for (bool const modified : {false, true}) {
        int commits = 0;
        TextFilePhysicalPackage package(writePackage());
        package.setCommitOptions({false, u"", [&](std::u16string const&) { ++commits; }});
        package.open(OpenMode::ReadWrite);

        package.createFilePartOutputStream(&partOf(package, u"/a.xml"), modified);

        package.close(false);
        EXPECT_EQ(commits, modified ? 1 : 0);
    }
}

TEST_F(FilePartOutputStream, SaysWhichFileItCouldNotOpenWhereAnotherPartIsInItsPlace) {
    TextFilePhysicalPackage package(folder.corePath("package.txt"));
    package.open(OpenMode::Create);
    addPart(package, u"/a", u"", "a file");
    auto* const below = package.createPart(u"/a/b", u"", FilePartInfo());

    EXPECT_THAT([&] { below->getOutputStream(); },
                throwsPackageError("Failed to create or open file system output stream: " +
                                       opc::toUDEString(package.getModifiedPackageRoot() + u"/a/b"),
                                   {}));

    EXPECT_EQ(testsupport::treeOf(toNativePath(package.getModifiedPackageRoot())),
              (std::map<std::string, std::string>{{"a", "a file"}}));
}

TEST_F(FilePartOutputStream, PassesOnTheCauseWhereItsFoldersCannotBeMade) {
    TextFilePhysicalPackage package(writePackage({{"/a.xml/b/c.xml", "<c/>"}}));
    package.open(OpenMode::ReadWrite);
    testsupport::writeInto(partOf(package, u"/a.xml"), "a file");

    EXPECT_THAT([&] { partOf(package, u"/a.xml/b/c.xml").getOutputStream(); },
                throwsPackageError("Could not create directory structure for part output stream: File exists",
                                   {EEXIST, boost::system::generic_category()}));

    EXPECT_FALSE(partOf(package, u"/a.xml/b/c.xml").isModified());
    EXPECT_EQ(testsupport::treeOf(toNativePath(package.getModifiedPackageRoot())),
              (std::map<std::string, std::string>{{"a.xml", "a file"}}));
}

TEST_F(FilePartOutputStream, KeepsCountingThePartAsChangedWhenItsFoldersCouldNotBeMade) {
    TextFilePhysicalPackage package(writePackage({{"/a.xml/b/c.xml", "<c/>"}}));
    package.open(OpenMode::ReadWrite);
    testsupport::writeInto(partOf(package, u"/a.xml"), "a file");

    EXPECT_THROW(partOf(package, u"/a.xml/b/c.xml").getOutputStream(), opc::Exception);

    EXPECT_THAT(namesIn(package), ElementsAre("/a.xml", "/a.xml/b/c.xml", "/_rels/.rels"));
    EXPECT_THAT([&] { package.deletePart(u"/a.xml/b/c.xml"); }, throwsPackageError(DeleteRefused, {}));
}
