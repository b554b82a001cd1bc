#include <textpackage/FilePart.hpp>

#include <array>
#include <cstddef>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include <opccore/Base64.hpp>
#include <opccore/Exception.hpp>
#include <opccore/IPhysicalOutputStream.hpp>
#include <opccore/StringConversion.hpp>
#include <tests/support/FailingAllocations.hpp>
#include <tests/support/FileSizeLimit.hpp>
#include <tests/support/PackageFixture.hpp>

namespace fs = std::filesystem;

using opc::interfaces::IPhysicalInputStream;
using opc::interfaces::OpenMode;
using opc::textpackage::FilePart;
using opc::textpackage::FilePartMode;
using opc::textpackage::TextFilePhysicalPackage;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StrEq;
using ::testing::ThrowsMessage;
using ::testing::UnorderedElementsAre;
using testsupport::addPart;
using testsupport::attemptWithout;
using testsupport::contentOf;
using testsupport::namesIn;
using testsupport::partOf;
using testsupport::readAll;
using testsupport::readFile;
using testsupport::throwsPackageError;
using testsupport::toNativePath;
using testsupport::toUtf8;
using testsupport::treeOf;
using testsupport::writeInto;
using Tree = std::map<std::string, std::string>;

namespace {

char const NoInputFile[] = "Failed to create or open file system input stream";
char const DeleteRefused[] =
    "A part cannot be deleted if it has just been created or modified. Package must be closed first.";

/// A package with the text part "/a.xml", content "<a/>", and the Base64 part "/b.bin", content 0 1 2 3 4.
class FilePartTest : public testsupport::PackageFixture {
protected:
    void open(OpenMode mode) { package.open(mode); }

    FilePart& text() { return partOf(package, u"/a.xml"); }
    FilePart& binary() { return partOf(package, u"/b.bin"); }

    Tree extractedFiles() const {
        auto tree = treeOf(toNativePath(package.getExtractedPackageRoot()));
        tree.erase("_zkopc_packageCopy.txt");
        return tree;
    }

    Tree modifiedFiles() const { return treeOf(toNativePath(package.getModifiedPackageRoot())); }

    /// A package whose part "/b.bin" has these Base64 lines.
    void useBase64(std::string const& lines) { writePackage({{"/b.bin", lines, true}}); }

    std::string const bytes{"\0\1\2\3\4", 5};
    TextFilePhysicalPackage package{writePackage({{"/b.bin", "AAECAwQ=", true}})};
};

std::string read(IPhysicalInputStream& stream, std::size_t count) {
    std::string block(count, '\0');
    block.resize(static_cast<std::size_t>(stream.read(block.data(), static_cast<std::int64_t>(count))));
    return block;
}

std::string repeated(std::size_t count) {
    return std::string(count, 'n');
}

} // namespace

TEST_F(FilePartTest, KeepsItsNameAndContentTypeAsGiven) {
    FilePart const part(package, u"/Folder/\u00E4 part.XML", u"Application/XML", FilePartMode::TempFile);

    EXPECT_EQ(part.getName(), u"/Folder/\u00E4 part.XML");
    EXPECT_EQ(part.getContentType(), u"Application/XML");
}

TEST_F(FilePartTest, DecodesAWholePartOrFailsWhereMemoryFails) {
    useBase64(std::string(76, 'A') + "\n" + std::string(76, 'A') + "\nAAAA");
    for (std::size_t number = 0;; ++number) {
        open(OpenMode::ReadWrite);
        auto& part = binary();

        auto const attempt = attemptWithout(number, [&] { part.getInputStream(); });

        EXPECT_THAT(namesIn(package), UnorderedElementsAre("/_rels/.rels", "/a.xml", "/b.bin")) << number;
        EXPECT_EQ(readAll(*part.getInputStream()), std::string(117, '\0')) << number;
        package.close(true);
        if (!attempt.ranOutOfMemory)
            break;
    }
}

TEST_F(FilePartTest, HasNoContentTypeWhenItWasReadFromAFile) {
    open(OpenMode::Read);

    EXPECT_EQ(text().getContentType(), u"");
    EXPECT_EQ(binary().getContentType(), u"");
}

TEST_F(FilePartTest, IsBinaryByItsContentTypeOrElseByItsMode) {
    struct Case {
        std::u16string contentType;
        bool isBinary;       // where the stored form is not Base64
        bool isBinaryBase64; // where it is
    };
    std::vector<Case> const cases{
        {u"", false, true},
        {u"application/octet-stream", false, true},
        {u"application/xml", false, true},
        {u"application/binary", true, true},
        {u"binary", true, true},
        {u"xbinaryx+xml", true, true},
        {u"application/vnd.x-encryption-info", true, true},
        {u"encryption", true, true},
        {u"application/encryption+xml", true, true},
        {u"image/jpeg", true, true},
        {u"image/png", true, true},
        {u"image/svg+xml", false, true},
        {u"+xml image", false, true},
        {u"image/encryption+xml", true, true},
        {u"Image/PNG", false, true},
        {u"application/BINARY", false, true},
        {u"Encryption", false, true},
        {u"image/svg+XML", true, true},
    };
    for (auto const& [contentType, isBinary, isBinaryBase64] : cases) {
        SCOPED_TRACE(toUtf8(contentType));
        EXPECT_EQ(FilePart(package, u"/p", contentType, FilePartMode::BufferText).isBinary(), isBinary);
        EXPECT_EQ(FilePart(package, u"/p", contentType, FilePartMode::TempFile).isBinary(), isBinary);
        EXPECT_EQ(FilePart(package, u"/p", contentType, FilePartMode::BufferBase64).isBinary(), isBinaryBase64);
        EXPECT_EQ(FilePart(package, u"/p", contentType, FilePartMode::TempFileBase64).isBinary(), isBinaryBase64);
    }
}

TEST_F(FilePartTest, StaysBinaryWhateverBecomesOfItsMode) {
    open(OpenMode::Read);

    contentOf(package, u"/b.bin");

    EXPECT_EQ(binary().getMode(), FilePartMode::TempFile);
    EXPECT_TRUE(binary().isBinary());
}

TEST_F(FilePartTest, BeginsWithTheFlagsOfItsMode) {
    struct Case {
        FilePartMode mode;
        bool isInTempFile;
    };
    for (auto const& [mode, isInTempFile] :
         {Case{FilePartMode::BufferText, false}, Case{FilePartMode::BufferBase64, false},
          Case{FilePartMode::TempFile, true}, Case{FilePartMode::TempFileBase64, true}}) {
        FilePart const part(package, u"/p", u"", mode);

        EXPECT_EQ(part.getMode(), mode);
        EXPECT_EQ(part.isCached(), isInTempFile);
        EXPECT_EQ(part.needFlush(), isInTempFile);
        EXPECT_FALSE(part.isModified());
    }
}

// Temporary file paths

TEST_F(FilePartTest, HasATemporaryFileUnderEachRootWithLongComponentsCut) {
    struct Case {
        std::string name;
        std::string path; // below the root
    };
    std::vector<Case> const cases{
        {"/a.xml", "/a.xml"},
        {"b.xml", "/b.xml"},
        {"/folder/a.xml", "/folder/a.xml"},
        {"/" + repeated(249), "/" + repeated(249)}, // 250 characters
        {"/" + repeated(250), "/" + repeated(250)}, // 251 characters
        {"/" + repeated(251), "/" + repeated(250) + "_x/n"},
        {"/" + repeated(252), "/" + repeated(250) + "_x/nn"},
        {"/" + repeated(500), "/" + repeated(250) + "_x/" + repeated(250)},
        {"/" + repeated(501), "/" + repeated(250) + "_x/" + repeated(250) + "_x/n"},
        {"/" + repeated(600), "/" + repeated(250) + "_x/" + repeated(250) + "_x/" + repeated(100)},
        {"/" + repeated(250) + "/b", "/" + repeated(250) + "/b"},
        {"/" + repeated(251) + "/b", "/" + repeated(251) + "/b"}, // whole, since a slash follows
        {"/" + repeated(252) + "/b", "/" + repeated(250) + "_x/nn/b"},
        {"/" + repeated(501) + "/b", "/" + repeated(250) + "_x/" + repeated(251) + "/b"},
        {"/b/" + repeated(251), "/b/" + repeated(250) + "_x/n"},
        {"/" + repeated(251) + "/" + repeated(251), "/" + repeated(251) + "/" + repeated(250) + "_x/n"},
        {"/" + repeated(300) + "/b/" + repeated(300),
         "/" + repeated(250) + "_x/" + repeated(50) + "/b/" + repeated(250) + "_x/" + repeated(50)},
        {"/" + repeated(150) + "/" + repeated(150), "/" + repeated(150) + "/" + repeated(150)},
    };
    open(OpenMode::ReadWrite);
    for (auto const& [name, path] : cases) {
        FilePart const part(package, opc::toString(name, true), u"", FilePartMode::TempFile);

        EXPECT_EQ(toUtf8(part.getExtractedFullPath()), toUtf8(package.getExtractedPackageRoot()) + path);
        EXPECT_EQ(toUtf8(part.getModifiedFullPath()), toUtf8(package.getModifiedPackageRoot()) + path);
        EXPECT_EQ(part.getTempFullPath(false), part.getExtractedFullPath());
        EXPECT_EQ(part.getTempFullPath(true), part.getModifiedFullPath());
    }
}

TEST_F(FilePartTest, HasARelativeExtractedPathWhereNothingIsExtracted) {
    open(OpenMode::Create);
    auto const& part = addPart(package, u"/folder/part.xml", u"application/xml", "<p/>");

    EXPECT_EQ(part.getExtractedFullPath(), u"folder/part.xml");
    package.close(true);
}

TEST_F(FilePartTest, ReadsAndWritesPartsWhoseNamesAreLong) {
    for (auto const& name : {u"/" + std::u16string(600, u'n'), u"/" + std::u16string(251, u'n') + u"/b",
                             u"/" + std::u16string(600, u'\u20AC'), u"/" + std::u16string(250, u'\u20AC') + u"/b"}) {
        writePackage({{toUtf8(name), "AAECAwQ=", true}});
        open(OpenMode::ReadWrite);

        EXPECT_EQ(contentOf(package, name), bytes);
        writeInto(partOf(package, name), "changed");

        EXPECT_EQ(readFile(toNativePath(partOf(package, name).getModifiedFullPath())), "changed");
        package.close(true);
    }
}

// Reading

TEST_F(FilePartTest, ReadsATextPartStraightFromTheMappedFile) {
    open(OpenMode::ReadWrite);

    EXPECT_EQ(readAll(*text().getInputStream()), "<a/>");

    EXPECT_EQ(text().getMode(), FilePartMode::BufferText);
    EXPECT_FALSE(text().isCached());
    EXPECT_THAT(extractedFiles(), IsEmpty());
    EXPECT_THAT(modifiedFiles(), IsEmpty());
    EXPECT_THAT(namesIn(package), ElementsAre("/_rels/.rels", "/a.xml", "/b.bin"));
}

TEST_F(FilePartTest, GivesANewStreamAtTheStartForEachReaderOfATextPart) {
    open(OpenMode::Read);
    auto* const first = text().getInputStream();
    EXPECT_EQ(read(*first, 2), "<a");

    auto* const second = text().getInputStream();

    EXPECT_NE(first, second);
    EXPECT_EQ(readAll(*second), "<a/>");
}

TEST_F(FilePartTest, DecodesABase64PartIntoItsExtractedFile) {
    open(OpenMode::Read);

    EXPECT_EQ(readAll(*binary().getInputStream()), bytes);

    EXPECT_EQ(binary().getMode(), FilePartMode::TempFile);
    EXPECT_TRUE(binary().isCached());
    EXPECT_FALSE(binary().isModified());
    EXPECT_FALSE(binary().needFlush());
    EXPECT_EQ(extractedFiles(), (Tree{{"b.bin", bytes}}));
}

TEST_F(FilePartTest, DecodesBase64LineByLine) {
    struct Case {
        std::string lines;
        std::string content;
    };
    for (auto const& [lines, content] :
         {Case{"", ""}, Case{"\n", ""}, Case{"AAEC\nAwQ=", bytes}, Case{"AAEC\r\nAwQ=\r", bytes},
          Case{"\nAAEC\n\nAwQ=\n", bytes}, Case{"AA==\nAQ==\nAgME", bytes}}) {
        useBase64(lines);
        open(OpenMode::Read);

        EXPECT_EQ(contentOf(package, u"/b.bin"), content) << lines;

        package.close(true);
    }
}

TEST_F(FilePartTest, DecodesContentOfManyLines) {
    std::string lines;
    std::string content;
    for (int line = 0; line < 10'000; ++line) {
        lines += "QUJDQUJDQUJDQUJDQUJDQUJDQUJDQUJDQUJDQUJDQUJDQUJDQUJDQUJDQUJDQUJDQUJDQUJDQUJD\n";
        content += "ABCABCABCABCABCABCABCABCABCABCABCABCABCABCABCABCABCABCABC";
    }
    useBase64(lines);
    open(OpenMode::Read);

    EXPECT_EQ(contentOf(package, u"/b.bin"), content);
}

TEST_F(FilePartTest, GivesTheSameStreamWhereItStandsToEachReaderOfATemporaryFile) {
    open(OpenMode::Read);
    text().extractToTempFile();
    for (auto* const part : {&text(), &binary()}) {
        auto* const first = part->getInputStream();
        auto const begin = read(*first, 2);

        auto* const second = part->getInputStream();

        EXPECT_EQ(first, second);
        EXPECT_EQ(begin + readAll(*second), part == &text() ? "<a/>" : bytes);
    }
}

TEST_F(FilePartTest, CountsAsChangedOnceItsBase64WasDecodedInAPackageOpenedForWriting) {
    open(OpenMode::ReadWrite);

    contentOf(package, u"/b.bin");

    EXPECT_THAT(namesIn(package), ElementsAre("/b.bin", "/_rels/.rels", "/a.xml"));
    EXPECT_FALSE(binary().isModified());
    EXPECT_THAT([&] { package.deletePart(u"/b.bin"); }, throwsPackageError(DeleteRefused, {}));
    EXPECT_THAT(namesIn(package), ElementsAre("/b.bin", "/_rels/.rels", "/a.xml"));
}

TEST_F(FilePartTest, DoesNotModifyThePackageWhenItsBase64IsDecoded) {
    int commits = 0;
    package.setCommitOptions({false, u"", [&](std::u16string const&) { ++commits; }});
    open(OpenMode::ReadWrite);

    contentOf(package, u"/b.bin");
    package.close(false);

    EXPECT_EQ(commits, 0);
}

TEST_F(FilePartTest, StaysStoredWhenItsBase64WasDecodedInAPackageOpenedForReading) {
    open(OpenMode::Read);

    contentOf(package, u"/b.bin");

    EXPECT_THAT(namesIn(package), ElementsAre("/_rels/.rels", "/a.xml", "/b.bin"));
}

TEST_F(FilePartTest, StaysBase64WhenItsLinesCannotBeDecoded) {
    struct Case {
        std::string lines;
        std::string message;
    };
    for (auto const& [lines, message] :
         {Case{"AA!A", "Unable to decode Base64: a character outside the alphabet (byte 2)"},
          Case{"AAECAwQ=\nAAA", "Unable to decode Base64: the length is not a multiple of four characters (byte 3)"}}) {
        useBase64(lines);
        open(OpenMode::ReadWrite);

        for (int attempt = 1; attempt <= 2; ++attempt) {
            EXPECT_THAT([&] { binary().getInputStream(); },
                        ThrowsMessage<foundation::crypto::utils::Exception>(StrEq(message)));

            EXPECT_EQ(binary().getMode(), FilePartMode::BufferBase64);
            EXPECT_TRUE(binary().isBinary());
        }
        EXPECT_EQ(contentOf(package, u"/a.xml"), "<a/>");
        package.close(true);
    }
}

TEST_F(FilePartTest, RefusesBase64LinesThatHideTheMarkerPrefix) {
    useBase64("AAEC\nX19aS09QQ19QQVJU"); // __ZKOPC_PART
    open(OpenMode::Read);

    for (int attempt = 1; attempt <= 2; ++attempt) {
        EXPECT_THAT([&] { binary().getInputStream(); },
                    throwsPackageError("The string __ZKOPC_PA is not allowed in a TextFilePhysicalPackage part", {}));

        EXPECT_EQ(binary().getMode(), FilePartMode::BufferBase64);
    }
}

TEST_F(FilePartTest, AcceptsAMarkerPrefixThatIsSplitAcrossTwoBase64Lines) {
    useBase64("X19aS09Q\nQ19QQQ==");
    open(OpenMode::Read);

    EXPECT_EQ(contentOf(package, u"/b.bin"), "__ZKOPC_PA");
}

TEST_F(FilePartTest, DecodesItsBase64OnceWhatWasInTheWayIsGone) {
    open(OpenMode::Read);
    auto const inTheWay = toNativePath(binary().getExtractedFullPath());
    fs::create_directory(inTheWay);

    EXPECT_THAT([&] { binary().getInputStream(); },
                throwsPackageError("Failed to create or open file system output stream: " + inTheWay.string(), {}));
    EXPECT_EQ(binary().getMode(), FilePartMode::BufferBase64);

    fs::remove(inTheWay);
    EXPECT_EQ(readAll(*binary().getInputStream()), bytes);
    EXPECT_EQ(binary().getMode(), FilePartMode::TempFile);
}

TEST_F(FilePartTest, DecodesItsBase64OnceTheDiskHasRoomForIt) {
    open(OpenMode::Read);
    auto const path = toNativePath(binary().getExtractedFullPath());
    {
        testsupport::FileSizeLimit const full(3);
        EXPECT_THAT([&] { binary().getInputStream(); },
                    throwsPackageError("Failed to write the decoded part to " + path.string(), {}));
    }
    EXPECT_EQ(binary().getMode(), FilePartMode::BufferBase64);
    EXPECT_THAT(extractedFiles(), IsEmpty());

    EXPECT_EQ(readAll(*binary().getInputStream()), bytes);
}

// Writing

TEST_F(FilePartTest, WritesIntoItsFileUnderTheModifiedRoot) {
    open(OpenMode::ReadWrite);

    writeInto(text(), "<changed/>");

    EXPECT_EQ(modifiedFiles(), (Tree{{"a.xml", "<changed/>"}}));
    EXPECT_THAT(extractedFiles(), IsEmpty());
}

TEST_F(FilePartTest, IsModifiedAndNeedsNoFlushOnceItsOutputStreamWasHandedOut) {
    open(OpenMode::ReadWrite);
    FilePart part(package, u"/new.xml", u"", FilePartMode::TempFile);
    ASSERT_TRUE(part.needFlush());

    part.getOutputStream();

    EXPECT_TRUE(part.isModified());
    EXPECT_FALSE(part.needFlush());
}

TEST_F(FilePartTest, KeepsItsModeWhenItIsWritten) {
    open(OpenMode::ReadWrite);

    writeInto(text(), "changed");
    writeInto(binary(), "changed");

    EXPECT_EQ(text().getMode(), FilePartMode::BufferText);
    EXPECT_EQ(binary().getMode(), FilePartMode::BufferBase64);
}

TEST_F(FilePartTest, GivesTheSameOutputStreamToEachWriter) {
    open(OpenMode::ReadWrite);
    auto* const first = text().getOutputStream();
    first->write("one, ", 5);

    auto* const second = text().getOutputStream();
    second->write("two", 3);
    second->flush();

    EXPECT_EQ(first, second);
    EXPECT_EQ(modifiedFiles(), (Tree{{"a.xml", "one, two"}}));
}

TEST_F(FilePartTest, IsEmptiedByTheFirstWriterAfterClosing) {
    open(OpenMode::ReadWrite);
    writeInto(text(), "what was written first");
    text().close();

    writeInto(text(), "second");

    EXPECT_EQ(modifiedFiles(), (Tree{{"a.xml", "second"}}));
}

TEST_F(FilePartTest, DoesNotReadBackWhatWasWritten) {
    open(OpenMode::ReadWrite);

    writeInto(text(), "<changed/>");
    writeInto(binary(), "changed");

    EXPECT_EQ(contentOf(package, u"/a.xml"), "<a/>");
    EXPECT_EQ(contentOf(package, u"/b.bin"), bytes);
}

TEST_F(FilePartTest, HasNothingToReadWhenItWasCreated) {
    for (auto const mode : {OpenMode::Create, OpenMode::ReadWrite}) {
        open(mode);
        auto& part = addPart(package, u"/new.xml", u"", "content");

        EXPECT_THAT([&] { part.getInputStream(); }, throwsPackageError(NoInputFile, {}));

        EXPECT_EQ(part.getMode(), FilePartMode::TempFile);
        EXPECT_EQ(readFile(toNativePath(part.getModifiedFullPath())), "content");
        package.close(true);
    }
}

TEST_F(FilePartTest, RefusesToHandOutAnOutputStreamThatHasFailed) {
    open(OpenMode::ReadWrite);
    FilePart part(package, u"/new.xml", u"", FilePartMode::TempFile);
    auto* const stream = part.getOutputStream();
    {
        testsupport::FileSizeLimit const full(3);
        stream->write("content", 7);
        stream->flush();
    }
    ASSERT_TRUE(stream->hasFailed());

    EXPECT_THAT([&] { part.getOutputStream(); }, throwsPackageError("Output stream is in an invalid state", {}));

    EXPECT_TRUE(part.isModified());
    EXPECT_FALSE(part.needFlush());
    part.close();
    writeInto(part, "content");
    EXPECT_EQ(modifiedFiles(), (Tree{{"new.xml", "content"}}));
}

TEST_F(FilePartTest, HandsOutTheOutputStreamThatAWriterClosedAsItIs) {
    open(OpenMode::ReadWrite);
    auto* const closed = text().getOutputStream();
    writeInto(text(), "<new/>");
    closed->close();

    auto* const again = text().getOutputStream();

    EXPECT_EQ(again, closed);
    EXPECT_TRUE(again->hasFailed());
    EXPECT_EQ(modifiedFiles(), (Tree{{"a.xml", "<new/>"}}));
}

TEST_F(FilePartTest, StaysAsItIsWhenItsOutputFileCannotBeOpened) {
    open(OpenMode::ReadWrite);
    FilePart part(package, u"/new.xml", u"", FilePartMode::TempFile);
    auto const inTheWay = toNativePath(part.getModifiedFullPath());
    fs::create_directory(inTheWay);

    EXPECT_THAT([&] { part.getOutputStream(); },
                throwsPackageError("Failed to create or open file system output stream: " + inTheWay.string(), {}));

    EXPECT_FALSE(part.isModified());
    EXPECT_TRUE(part.needFlush());
}

// Extracting

TEST_F(FilePartTest, ExtractsTheStoredBytesUnchanged) {
    open(OpenMode::Read);

    text().extractToTempFile();
    binary().extractToTempFile();

    EXPECT_EQ(text().getMode(), FilePartMode::TempFile);
    EXPECT_EQ(binary().getMode(), FilePartMode::TempFileBase64);
    EXPECT_EQ(extractedFiles(), (Tree{{"a.xml", "<a/>"}, {"b.bin", "AAECAwQ="}}));
    EXPECT_EQ(readAll(*text().getInputStream()), "<a/>");
}

TEST_F(FilePartTest, ExtractsAnEmptyPartIntoAnEmptyFile) {
    useBase64("");
    open(OpenMode::Read);

    binary().extractToTempFile();

    EXPECT_EQ(extractedFiles(), (Tree{{"b.bin", ""}}));
    EXPECT_EQ(binary().getMode(), FilePartMode::TempFileBase64);
}

TEST_F(FilePartTest, DoesNothingWhenItIsExtractedAgain) {
    open(OpenMode::Read);
    text().extractToTempFile();
    binary().getInputStream();
    for (auto* const part : {&text(), &binary()})
        fs::remove(toNativePath(part->getExtractedFullPath()));

    text().extractToTempFile();
    binary().extractToTempFile();

    EXPECT_THAT(extractedFiles(), IsEmpty());
    EXPECT_EQ(text().getMode(), FilePartMode::TempFile);
    EXPECT_EQ(binary().getMode(), FilePartMode::TempFile);
}

TEST_F(FilePartTest, StaysBase64InItsTemporaryFileWhenItIsExtractedAgain) {
    open(OpenMode::Read);
    binary().extractToTempFile();

    binary().extractToTempFile();

    EXPECT_EQ(binary().getMode(), FilePartMode::TempFileBase64);
}

TEST_F(FilePartTest, MakesTheFoldersThatItsExtractedFileNeeds) {
    writePackage({{"/deep/down/c.xml", "<c/>"}});
    open(OpenMode::Read);

    partOf(package, u"/deep/down/c.xml").extractToTempFile();

    EXPECT_EQ(extractedFiles(), (Tree{{"deep", "(folder)"}, {"deep/down", "(folder)"}, {"deep/down/c.xml", "<c/>"}}));
}

TEST_F(FilePartTest, ExtractsWhatWasWrittenWhereItIsModified) {
    open(OpenMode::ReadWrite);
    writeInto(text(), "<changed/>");

    text().extractToTempFile();

    EXPECT_EQ(extractedFiles(), (Tree{{"a.xml", "<changed/>"}}));
    EXPECT_EQ(text().getMode(), FilePartMode::TempFile);
}

TEST_F(FilePartTest, StaysInTheMappedFileWhenItsExtractedFileCannotBeOpened) {
    open(OpenMode::Read);
    for (auto* const part : {&text(), &binary()}) {
        auto const mode = part->getMode();
        auto const inTheWay = toNativePath(part->getExtractedFullPath());
        fs::create_directory(inTheWay);

        EXPECT_THAT([&] { part->extractToTempFile(); },
                    throwsPackageError("Failed to open file system output stream", {}));

        EXPECT_EQ(part->getMode(), mode);
        fs::remove(inTheWay);
    }
    EXPECT_EQ(contentOf(package, u"/a.xml"), "<a/>");
    EXPECT_EQ(contentOf(package, u"/b.bin"), bytes);
}

TEST_F(FilePartTest, StaysInTheMappedFileWhenTheDiskIsFull) {
    open(OpenMode::Read);
    auto const path = toNativePath(text().getExtractedFullPath());
    testsupport::FileSizeLimit const full(3);

    EXPECT_THAT([&] { text().extractToTempFile(); },
                throwsPackageError("Failed to write the stored part to " + path.string(), {}));

    EXPECT_EQ(text().getMode(), FilePartMode::BufferText);
    EXPECT_THAT(extractedFiles(), IsEmpty());
    EXPECT_EQ(contentOf(package, u"/a.xml"), "<a/>");
}

// Closing

TEST_F(FilePartTest, OpensItsTemporaryFileAnewAfterClosing) {
    open(OpenMode::Read);
    read(*binary().getInputStream(), 3);

    binary().close();
    binary().close();

    EXPECT_EQ(readAll(*binary().getInputStream()), bytes);
}

TEST_F(FilePartTest, CompletesItsFileWhenItIsClosed) {
    open(OpenMode::ReadWrite);
    text().getOutputStream()->write("content", 7);

    text().close();

    EXPECT_EQ(modifiedFiles(), (Tree{{"a.xml", "content"}}));
    EXPECT_TRUE(text().isModified());
}

TEST_F(FilePartTest, LeavesTheStreamOnTheMappedFileOpenWhenItIsClosed) {
    open(OpenMode::Read);
    auto* const stream = text().getInputStream();
    EXPECT_EQ(read(*stream, 2), "<a");

    text().close();

    EXPECT_EQ(readAll(*stream), "/>");
}

TEST_F(FilePartTest, ClosesWithoutEverHavingHadAStream) {
    FilePart part(package, u"/p", u"", FilePartMode::TempFile);

    part.close();

    EXPECT_TRUE(part.needFlush());
}
