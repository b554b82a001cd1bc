#include <textpackage/FileInputStream.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include <gmock/gmock.h>

#include <opccore/Exception.hpp>
#include <opccore/LocalFileSystemOps.hpp>
#include <tests/support/PackageFixture.hpp>
#include <tests/support/TemporaryFolder.hpp>

namespace fs = std::filesystem;

using opc::interfaces::OpenMode;
using opc::textpackage::FileInputStream;
using opc::textpackage::TextFilePhysicalPackage;
using ::testing::Throws;
using testsupport::addPart;
using testsupport::partOf;
using testsupport::readAll;
using testsupport::throwsPackageError;
using testsupport::toNativePath;
using testsupport::writeInto;

namespace {

char const CannotOpen[] = "Failed to create or open file system input stream";

class FileInputStreamTest : public ::testing::Test {
protected:
    opc::LocalFileSystemOps fileSystem;
    testsupport::TemporaryFolder folder;
    std::u16string path = folder.write("part", "0123456789012345678901234567890123456789");
    std::array<char, 100> block{};

    std::string read(FileInputStream& stream, std::int64_t count) {
        auto const got = stream.read(block.data(), count);
        return {block.data(), static_cast<std::size_t>(got)};
    }
};

class FilePartInputStream : public testsupport::PackageFixture {};

} // namespace

TEST_F(FileInputStreamTest, IsOpenAtTheFirstByteOnceItIsMade) {
    FileInputStream stream(fileSystem, path);

    EXPECT_FALSE(stream.atEnd());
    EXPECT_EQ(read(stream, 3), "012");
    EXPECT_EQ(read(stream, 3), "345");
}

TEST_F(FileInputStreamTest, ReadsWhatIsLeftWhereMoreIsAskedForAndThenNothing) {
    FileInputStream stream(fileSystem, path);

    EXPECT_EQ(read(stream, 100), "0123456789012345678901234567890123456789");
    EXPECT_TRUE(stream.atEnd());
    EXPECT_EQ(read(stream, 100), "");
    EXPECT_TRUE(stream.atEnd());
    EXPECT_FALSE(stream.isBad());
}

TEST_F(FileInputStreamTest, NoticesTheEndOnlyWhenMoreIsAskedForThanThereIs) {
    FileInputStream stream(fileSystem, path);

    EXPECT_EQ(read(stream, 40).size(), 40U);
    EXPECT_FALSE(stream.atEnd());
    EXPECT_EQ(read(stream, 1), "");
    EXPECT_TRUE(stream.atEnd());
}

TEST_F(FileInputStreamTest, StaysWhereItIsWhenItIsOpenedWhileOpen) {
    FileInputStream stream(fileSystem, path);
    read(stream, 5);

    stream.open();

    EXPECT_EQ(read(stream, 3), "567");
}

TEST_F(FileInputStreamTest, ReadsNothingOnceItIsClosed) {
    FileInputStream stream(fileSystem, path);

    stream.close();
    stream.close();

    EXPECT_EQ(read(stream, 10), "");
    EXPECT_TRUE(stream.atEnd());
}

TEST_F(FileInputStreamTest, OpensTheFileAnewAtItsStartAfterClosing) {
    FileInputStream stream(fileSystem, path);
    readAll(stream);
    stream.close();
    fs::remove(folder / "part");
    folder.write("part", "another file");

    stream.open();

    EXPECT_FALSE(stream.atEnd());
    EXPECT_EQ(readAll(stream), "another file");
}

TEST_F(FileInputStreamTest, ReadsNothingForACountThatIsNotPositive) {
    FileInputStream stream(fileSystem, path);

    EXPECT_EQ(read(stream, 0), "");
    EXPECT_EQ(read(stream, -1), "");
    EXPECT_EQ(read(stream, INT64_MIN), "");

    EXPECT_FALSE(stream.atEnd());
    EXPECT_EQ(read(stream, 3), "012");
}

TEST_F(FileInputStreamTest, RefusesAFileThatCannotBeOpenedAndSaysNoPath) {
    for (auto const& unusable : {folder.corePath("missing"), folder.corePath("part/below"), folder.corePath(".")}) {
        EXPECT_THAT([&] { FileInputStream(fileSystem, unusable); }, throwsPackageError(CannotOpen, {}));
    }
}

TEST_F(FileInputStreamTest, StaysClosedWhenItsFileCannotBeOpenedAgain) {
    FileInputStream stream(fileSystem, path);
    stream.close();
    fs::remove(folder / "part");

    EXPECT_THAT([&] { stream.open(); }, throwsPackageError(CannotOpen, {}));

    EXPECT_EQ(read(stream, 10), "");
    EXPECT_TRUE(stream.atEnd());
}

TEST_F(FileInputStreamTest, TellsAFailureOfTheDiskFromTheEndOfTheFile) {
    FileInputStream stream(fileSystem, u"/proc/self/mem"); // nothing can be read at its first byte

    EXPECT_THAT([&] { read(stream, 10); }, Throws<opc::Exception>());

    EXPECT_TRUE(stream.isBad());
    EXPECT_TRUE(stream.atEnd());
    EXPECT_EQ(read(stream, 10), "");
}

TEST_F(FilePartInputStream, OpensTheExtractedFileOfAPartThatIsNotModified) {
    TextFilePhysicalPackage package(writePackage({{"/b.bin", "AAECAwQ=", true}}));
    package.open(OpenMode::Read);
    auto& part = partOf(package, u"/b.bin");
    part.extractToTempFile();

    for (bool const modified : {false, true})
        EXPECT_EQ(readAll(*package.createFilePartInputStream(&part, modified)), "AAECAwQ=") << modified;
}

TEST_F(FilePartInputStream, OpensTheModifiedFileOfAModifiedPartOnlyWhereThatIsAskedFor) {
    TextFilePhysicalPackage package(writePackage());
    package.open(OpenMode::ReadWrite);
    auto& part = partOf(package, u"/a.xml");
    part.extractToTempFile();
    writeInto(part, "<changed/>");

    EXPECT_EQ(readAll(*package.createFilePartInputStream(&part, true)), "<changed/>");
    EXPECT_EQ(readAll(*package.createFilePartInputStream(&part, false)), "<a/>");
}

TEST_F(FilePartInputStream, GivesEachCallerAStreamOfItsOwn) {
    TextFilePhysicalPackage package(writePackage());
    package.open(OpenMode::Read);
    auto& part = partOf(package, u"/a.xml");
    part.extractToTempFile();
    auto const first = package.createFilePartInputStream(&part, false);
    readAll(*first);

    auto const second = package.createFilePartInputStream(&part, false);

    EXPECT_TRUE(first->atEnd());
    EXPECT_EQ(readAll(*second), "<a/>");
}

TEST_F(FilePartInputStream, RefusesAPartWithoutAnExtractedFile) {
    TextFilePhysicalPackage package(writePackage());
    package.open(OpenMode::Read);

    EXPECT_THAT([&] { package.createFilePartInputStream(&partOf(package, u"/a.xml"), false); },
                throwsPackageError(CannotOpen, {}));
}

TEST_F(FilePartInputStream, RefusesToReadUnderARootThatIsNotThere) {
    TextFilePhysicalPackage package(folder.corePath("package.txt"));
    package.open(OpenMode::Create);
    auto& part = addPart(package, u"/a.xml", u"", "written");

    EXPECT_THAT([&] { package.createFilePartInputStream(&part, false); }, throwsPackageError(CannotOpen, {}));

    EXPECT_EQ(readAll(*package.createFilePartInputStream(&part, true)), "written");
}
