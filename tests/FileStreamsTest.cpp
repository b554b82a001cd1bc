#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <istream>
#include <memory>
#include <ostream>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <opccore/LocalFileSystemOps.hpp>
#include <tests/support/CloseWatch.hpp>
#include <tests/support/FailingAllocations.hpp>
#include <tests/support/FileSizeLimit.hpp>
#include <tests/support/Permissions.hpp>
#include <tests/support/TemporaryFolder.hpp>
#include <tests/support/Throws.hpp>

namespace {

namespace fs = std::filesystem;
namespace errc = boost::system::errc;
using boost::system::error_code;
using opc::StreamMode;
using testing::ElementsAre;
using testing::IsEmpty;
using testsupport::attemptWithout;
using testsupport::CloseWatch;
using testsupport::codeThrownBy;
using testsupport::FileSizeLimit;
using testsupport::throwsPackageError;

constexpr unsigned ReadPart = 12;     // in and binary
constexpr unsigned WritePart = 20;    // out and binary
constexpr unsigned BinaryAlone = 4;   // of a package file, either way
constexpr std::size_t Buffer = 65536; // no size that matters may be a multiple or divisor of it alone

/// Text whose every line says where it begins.
std::string numberedText(std::size_t size) {
    std::string text;
    while (text.size() < size)
        text += std::to_string(text.size()) + '\n';
    text.resize(size);
    return text;
}

/// How much is written at once, in bytes; the sizes straddle that of a stream's buffer.
std::vector<std::size_t> const chunkSizes = {1, 7, 4096, Buffer - 1, Buffer, Buffer + 1, 200000};

/// Gives so many bytes and then throws, as an input stream on a bad disk does.
class FailingSource : public std::streambuf {
public:
    explicit FailingSource(std::string content) : content_(std::move(content)) {
        setg(content_.data(), content_.data(), content_.data() + content_.size());
    }

protected:
    int_type underflow() override { throw opc::Exception("the source failed"); }

private:
    std::string content_;
};

class FileStreams : public testing::Test {
protected:
    std::shared_ptr<std::istream> openedToRead(std::string_view name, unsigned mode = ReadPart) const {
        return files.createInputStream(folder.corePath(name), mode);
    }

    std::shared_ptr<std::ostream> openedToWrite(std::string_view name, unsigned mode = WritePart) const {
        return files.createOutputStream(folder.corePath(name), mode);
    }

    std::shared_ptr<std::ostream> openedToWriteReporting(std::string_view name, unsigned mode = WritePart) const {
        error_code code;
        auto stream = files.createOutputStream(folder.corePath(name), mode, code);
        EXPECT_FALSE(code) << code;
        return stream;
    }

    opc::LocalFileSystemOps const files{};
    testsupport::TemporaryFolder folder;
};

using InputStreams = FileStreams;
using OutputStreams = FileStreams;

std::string readAll(std::istream& in) {
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

// ---------------------------------------------------------------------------------------------------------- reading

TEST_F(InputStreams, GiveTheBytesOfTheFileWhateverModeTheyAreOpenedWith) {
    std::string const bytes("\0\r\n\x1A\xFF text\n", 10);
    folder.write("file", bytes);

    for (unsigned const mode : {ReadPart, BinaryAlone, 8U, 0U})
        EXPECT_EQ(readAll(*openedToRead("file", mode)), bytes) << mode;
}

TEST_F(InputStreams, LeaveTheFileAsItWasWhateverModeTheyAreOpenedWith) {
    folder.write("file", "content");

    openedToRead("file", StreamMode::In | StreamMode::Out | StreamMode::Trunc | StreamMode::Binary).reset();

    EXPECT_EQ(folder.read("file"), "content");
}

TEST_F(InputStreams, BeginAtTheEndWhenAskedTo) {
    folder.write("file", "0123456789");

    auto const in = openedToRead("file", ReadPart | StreamMode::Ate);

    EXPECT_EQ(in->tellg(), 10);
    EXPECT_EQ(in->get(), std::istream::traits_type::eof());
    in->clear();
    in->seekg(7);
    EXPECT_EQ(readAll(*in), "789");
}

TEST_F(InputStreams, EndAtOnceForAnEmptyFile) {
    folder.write("file", "");

    auto const in = openedToRead("file");
    char byte = '?';
    in->read(&byte, 1);

    EXPECT_EQ(in->gcount(), 0);
    EXPECT_TRUE(in->eof());
    EXPECT_FALSE(in->bad());
}

TEST_F(InputStreams, SetEofAndFailWithoutThrowingWhenAskedForMoreThanThereIs) {
    folder.write("file", "abc");
    auto const in = openedToRead("file");
    char bytes[10];

    in->read(bytes, 10);

    EXPECT_EQ(in->gcount(), 3);
    EXPECT_EQ(in->rdstate(), std::ios_base::eofbit | std::ios_base::failbit);
}

TEST_F(InputStreams, GiveLargeFilesInReadsOfAnySize) {
    auto const content = numberedText(5 * Buffer + 123);
    folder.write("file", content);

    for (auto const size : chunkSizes) {
        if (size < 1000)
            continue; // one byte at a time is read below
        auto const in = openedToRead("file");
        std::string got;
        std::string chunk(size, '\0');
        while (in->read(chunk.data(), static_cast<std::streamsize>(size)), in->gcount() > 0)
            got.append(chunk, 0, static_cast<std::size_t>(in->gcount()));

        EXPECT_TRUE(got == content) << size;
    }
}

TEST_F(InputStreams, GiveSingleBytesAndLargeReadsInTurn) {
    auto const content = numberedText(5 * Buffer + 123);
    folder.write("file", content);
    auto const in = openedToRead("file");

    std::string got;
    std::string chunk(Buffer + 5, '\0');
    while (in->good()) {
        auto const byte = in->get();
        if (byte == std::istream::traits_type::eof())
            break;
        got += static_cast<char>(byte);
        in->read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
        got.append(chunk, 0, static_cast<std::size_t>(in->gcount()));
    }

    EXPECT_TRUE(got == content);
}

TEST_F(InputStreams, GiveLineAfterLine) {
    auto const content = numberedText(3 * Buffer);
    folder.write("file", content + "\nno line break at the end");
    auto const in = openedToRead("file");

    std::string got;
    std::string line;
    std::string last;
    while (std::getline(*in, line)) {
        got += line + '\n';
        last = line;
    }

    EXPECT_EQ(last, "no line break at the end");
    EXPECT_TRUE(got == content + "\nno line break at the end\n");
}

TEST_F(InputStreams, GiveALineThatIsLongerThanAnyBuffer) {
    std::string const line(1000000, 'x');
    folder.write("file", line + "\nshort\n");
    auto const in = openedToRead("file");

    std::string got;
    std::getline(*in, got);
    std::string next;
    std::getline(*in, next);

    EXPECT_TRUE(got == line);
    EXPECT_EQ(next, "short");
}

TEST_F(InputStreams, KnowTheirPosition) {
    folder.write("file", numberedText(3 * Buffer));
    auto const in = openedToRead("file");
    std::string chunk(Buffer - 3, '\0');

    EXPECT_EQ(in->tellg(), 0);
    in->get();
    EXPECT_EQ(in->tellg(), 1);
    in->read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
    EXPECT_EQ(in->tellg(), Buffer - 2);
    in->ignore(10); // over the end of the first buffer
    EXPECT_EQ(in->tellg(), Buffer + 8);
    in->peek();
    EXPECT_EQ(in->tellg(), Buffer + 8);
    in->unget();
    EXPECT_EQ(in->tellg(), Buffer + 7);
}

TEST_F(InputStreams, MoveToAnyPosition) {
    auto const content = numberedText(3 * Buffer);
    folder.write("file", content);
    auto const in = openedToRead("file");

    for (std::size_t const position : {Buffer + 1, std::size_t{0}, 3 * Buffer - 1, Buffer - 1, Buffer, 2 * Buffer}) {
        in->seekg(static_cast<std::streamoff>(position));
        EXPECT_EQ(in->tellg(), position);
        EXPECT_EQ(in->get(), content[position]) << position;
        EXPECT_EQ(in->tellg(), position + 1);
    }
}

TEST_F(InputStreams, MoveFromTheirPositionAndFromTheEnd) {
    folder.write("file", "0123456789");
    auto const in = openedToRead("file");
    in->get();

    in->seekg(3, std::ios_base::cur);
    EXPECT_EQ(in->get(), '4');
    in->seekg(-2, std::ios_base::cur);
    EXPECT_EQ(in->get(), '3');
    in->seekg(-1, std::ios_base::end);
    EXPECT_EQ(in->get(), '9');
    in->seekg(0, std::ios_base::end);
    EXPECT_EQ(in->tellg(), 10);
    EXPECT_EQ(in->get(), std::istream::traits_type::eof());
}

TEST_F(InputStreams, ReadAgainFromTheStartAfterTheirEnd) {
    folder.write("file", "content");
    auto const in = openedToRead("file");
    std::string line;
    std::getline(*in, line);
    ASSERT_TRUE(in->eof());

    in->clear();
    in->seekg(0);

    EXPECT_EQ(readAll(*in), "content");
}

TEST_F(InputStreams, SetFailAndKeepTheirPositionWhenMovedBeforeTheStart) {
    folder.write("file", "0123456789");
    auto const in = openedToRead("file");
    in->get();

    in->seekg(-2, std::ios_base::cur);
    EXPECT_TRUE(in->fail());
    EXPECT_FALSE(in->bad());
    in->clear();

    EXPECT_EQ(in->tellg(), 1);
    EXPECT_EQ(in->get(), '1');
}

TEST_F(InputStreams, SeeWhatIsAppendedWhileTheyAreOpen) {
    folder.write("file", "old");
    auto const in = openedToRead("file");
    std::string line;
    std::getline(*in, line);

    std::ofstream(folder / "file", std::ios::app) << " new";
    in->clear();

    EXPECT_EQ(readAll(*in), " new");
}

TEST_F(InputStreams, StayUsableWhenTheFileIsRemoved) {
    folder.write("file", "content");
    auto const in = openedToRead("file");

    fs::remove(folder / "file");

    EXPECT_EQ(readAll(*in), "content");
}

TEST_F(InputStreams, FollowALinkAndReadADevice) {
    folder.write("file", "content");
    fs::create_symlink("file", folder / "link");

    EXPECT_EQ(readAll(*openedToRead("link")), "content");
    EXPECT_EQ(files.createInputStream(u"/dev/zero", ReadPart)->get(), 0);
}

TEST_F(InputStreams, AreRefusedForAMissingFile) {
    error_code code;

    EXPECT_THAT(
        [&] { openedToRead("missing"); },
        throwsPackageError("Could not open \"" + (folder / "missing").native() + "\": No such file or directory"));
    EXPECT_EQ(codeThrownBy([&] { openedToRead("missing"); }), errc::no_such_file_or_directory);
    EXPECT_EQ(files.createInputStream(folder.corePath("missing"), ReadPart, code), nullptr);
    EXPECT_EQ(code, errc::no_such_file_or_directory);
    EXPECT_EQ(code.category(), boost::system::generic_category());

    EXPECT_THAT(folder.entries(), IsEmpty()); // none was made
}

TEST_F(InputStreams, AreRefusedForAFolder) {
    fs::create_directory(folder / "inner");
    error_code code;

    EXPECT_THAT([&] { openedToRead("inner"); },
                throwsPackageError("Could not open \"" + (folder / "inner").native() + "\": Is a directory"));
    EXPECT_EQ(codeThrownBy([&] { openedToRead("inner"); }), errc::is_a_directory);
    EXPECT_EQ(files.createInputStream(folder.corePath("inner"), ReadPart, code), nullptr);
    EXPECT_EQ(code, errc::is_a_directory);
}

TEST_F(InputStreams, ClearTheCodeOfAnEarlierFailure) {
    folder.write("file", "content");
    error_code code(2, boost::system::generic_category());

    auto const in = files.createInputStream(folder.corePath("file"), ReadPart, code);

    EXPECT_FALSE(code);
    EXPECT_EQ(readAll(*in), "content");
}

TEST_F(InputStreams, AreRefusedWithACodeForAPathThatHoldsNul) {
    error_code code;

    EXPECT_EQ(files.createInputStream(std::u16string(u"a\0b", 3), ReadPart, code), nullptr);
    EXPECT_EQ(code, errc::invalid_argument);
}

TEST_F(InputStreams, AreRefusedForAFileThatMayNotBeRead) {
    if (testsupport::runsAsRoot())
        GTEST_SKIP() << "root may read every file";
    folder.write("file", "content");
    fs::permissions(folder / "file", fs::perms::none);

    EXPECT_EQ(codeThrownBy([&] { openedToRead("file"); }), errc::permission_denied);
}

// The first page of a process's memory is never mapped: reading it there fails with EIO, as a bad disk would.
TEST_F(InputStreams, ThrowWhenAReadFailsHoweverTheyAreRead) {
    std::u16string const unreadable = u"/proc/self/mem";
    error_code code;
    std::string line;
    std::string large(2 * Buffer, '\0');

    auto const bytes = files.createInputStream(unreadable, ReadPart);
    EXPECT_THAT([&] { bytes->read(large.data(), 10); },
                throwsPackageError("Could not read \"/proc/self/mem\": Input/output error"));
    EXPECT_TRUE(bytes->bad());
    EXPECT_EQ(codeThrownBy([&] { files.createInputStream(unreadable, ReadPart)->get(); }), errc::io_error);
    EXPECT_EQ(codeThrownBy([&] {
                  files.createInputStream(unreadable, ReadPart)
                      ->read(large.data(), static_cast<std::streamsize>(large.size()));
              }),
              errc::io_error);
    EXPECT_EQ(codeThrownBy([&] { std::getline(*files.createInputStream(unreadable, ReadPart), line); }),
              errc::io_error);
    EXPECT_EQ(codeThrownBy([&] { files.createInputStream(unreadable, ReadPart, code)->get(); }), errc::io_error);
    EXPECT_FALSE(code);
}

// ---------------------------------------------------------------------------------------------------------- writing

TEST_F(OutputStreams, WriteBytesAsTheyAreWhateverModeTheyAreOpenedWith) {
    std::string const bytes("\0\r\n\x1A\xFF text\n", 10);

    for (unsigned const mode : {WritePart, BinaryAlone, 16U, 0U, WritePart | StreamMode::Trunc}) {
        *openedToWrite("file", mode) << bytes;
        EXPECT_EQ(folder.read("file"), bytes) << mode;
        *openedToWriteReporting("other", mode) << bytes;
        EXPECT_EQ(folder.read("other"), bytes) << mode;
    }
}

TEST_F(OutputStreams, EmptyTheFileAtOnceWhateverModeTheyAreOpenedWithButToAppend) {
    for (unsigned const mode : {WritePart, BinaryAlone, 16U, WritePart | StreamMode::Trunc, WritePart | StreamMode::Ate,
                                WritePart | StreamMode::In}) {
        folder.write("file", "a rather long content");

        auto const out = openedToWrite("file", mode);

        EXPECT_EQ(folder.read("file"), "") << mode;
    }
}

TEST_F(OutputStreams, LeaveTheFileAsItWasWithoutMemoryForThem) {
    for (std::size_t number = 0;; ++number) {
        auto const path = folder.write("file", "content");

        auto const attempt = attemptWithout(number, [&] { files.createOutputStream(path, WritePart); });

        EXPECT_EQ(folder.read("file"), attempt.failed ? "content" : "") << number;
        if (!attempt.ranOutOfMemory)
            break;
    }
}

TEST_F(OutputStreams, LeaveAnEmptyFileWhenNothingIsWritten) {
    openedToWrite("file").reset();
    openedToWriteReporting("other").reset();

    EXPECT_THAT(folder.entries(), ElementsAre("file", "other"));
    EXPECT_EQ(folder.read("file"), "");
    EXPECT_EQ(folder.read("other"), "");
}

TEST_F(OutputStreams, AddToTheEndWhenOpenedToAppend) {
    folder.write("file", "old ");

    *openedToWrite("file", WritePart | StreamMode::App) << "new ";
    *openedToWriteReporting("file", StreamMode::App) << "newest";

    EXPECT_EQ(folder.read("file"), "old new newest");
}

TEST_F(OutputStreams, GiveBackWhatTheFileHeldWhenAppendingFails) {
    folder.write("file", "old");

    {
        auto const stream = openedToWriteReporting("file", StreamMode::App);
        testsupport::FileSizeLimit const limit(5);
        *stream << "new" << std::flush;
        EXPECT_TRUE(stream->bad());
    }

    EXPECT_EQ(folder.read("file"), "old");
}

TEST_F(OutputStreams, MakeAMissingFileWhenOpenedToAppend) {
    *openedToWrite("file", WritePart | StreamMode::App) << "new";

    EXPECT_EQ(folder.read("file"), "new");
}

TEST_F(OutputStreams, MakeFilesWithThePermissionsThatTheUmaskGives) {
    testsupport::Umask const mask(027);

    openedToWrite("file").reset();

    EXPECT_EQ(testsupport::permissionsOf(folder / "file"), 0640U);
}

TEST_F(OutputStreams, WriteLargeFilesInWritesOfAnySize) {
    auto const content = numberedText(3 * Buffer + 123);

    for (auto const size : chunkSizes) {
        auto out = openedToWrite("file");
        for (std::size_t begin = 0; begin < content.size(); begin += size)
            out->write(content.data() + begin, static_cast<std::streamsize>(std::min(size, content.size() - begin)));
        out.reset();

        EXPECT_TRUE(folder.read("file") == content) << size;
    }
}

TEST_F(OutputStreams, WriteSingleBytesAndLargeBlocksInTurn) {
    std::string expected;
    std::string const block = numberedText(Buffer + 5);
    auto out = openedToWrite("file");

    for (int i = 0; i < 5; ++i) {
        out->put('-');
        *out << block << i;
        expected += '-' + block + std::to_string(i);
    }
    out.reset();

    EXPECT_TRUE(folder.read("file") == expected);
}

TEST_F(OutputStreams, WriteALargeFileFromAnotherStreamsBuffer) {
    auto const content = numberedText(5 * Buffer + 123);
    folder.write("source", content);
    auto const in = openedToRead("source");
    auto out = openedToWrite("file");

    *out << in->rdbuf();
    out.reset();

    EXPECT_TRUE(folder.read("file") == content);
}

TEST_F(OutputStreams, ShowWhatWasWrittenOnceFlushed) {
    auto const out = openedToWrite("file");
    *out << "content";

    out->flush();

    EXPECT_EQ(folder.read("file"), "content");
}

TEST_F(OutputStreams, KnowTheirPositionAndMoveToAnother) {
    auto out = openedToWrite("file");

    EXPECT_EQ(out->tellp(), 0);
    *out << "0123456789";
    EXPECT_EQ(out->tellp(), 10);
    *out << std::string(2 * Buffer, 'x');
    EXPECT_EQ(out->tellp(), 10 + 2 * Buffer);
    out->seekp(3);
    *out << "abc";
    EXPECT_EQ(out->tellp(), 6);
    out->seekp(0, std::ios_base::end);
    *out << "end";
    out.reset();

    EXPECT_EQ(folder.read("file"), "012abc6789" + std::string(2 * Buffer, 'x') + "end");
}

TEST_F(OutputStreams, AreRefusedWhereTheFolderIsMissing) {
    error_code code;

    EXPECT_THAT(
        [&] { openedToWrite("missing/file"); },
        throwsPackageError("Could not open \"" + (folder / "missing/file").native() + "\": No such file or directory"));
    EXPECT_EQ(codeThrownBy([&] { openedToWrite("missing/file"); }), errc::no_such_file_or_directory);
    EXPECT_EQ(files.createOutputStream(folder.corePath("missing/file"), WritePart, code), nullptr);
    EXPECT_EQ(code, errc::no_such_file_or_directory);

    EXPECT_THAT(folder.entries(), IsEmpty());
}

TEST_F(OutputStreams, AreRefusedForAFolder) {
    fs::create_directory(folder / "inner");
    error_code code;

    EXPECT_THAT([&] { openedToWrite("inner"); },
                throwsPackageError("Could not open \"" + (folder / "inner").native() + "\": Is a directory"));
    EXPECT_EQ(codeThrownBy([&] { openedToWrite("inner"); }), errc::is_a_directory);
    EXPECT_EQ(files.createOutputStream(folder.corePath("inner"), WritePart, code), nullptr);
    EXPECT_EQ(code, errc::is_a_directory);

    EXPECT_THAT(folder.entries(), ElementsAre("inner"));
}

TEST_F(OutputStreams, AreRefusedForAFileThatMayNotBeWritten) {
    if (testsupport::runsAsRoot())
        GTEST_SKIP() << "root may write every file";
    folder.write("file", "content");
    fs::permissions(folder / "file", fs::perms(0400));

    EXPECT_EQ(codeThrownBy([&] { openedToWrite("file"); }), errc::permission_denied);
    EXPECT_EQ(folder.read("file"), "content");
}

TEST_F(OutputStreams, ClearTheCodeOfAnEarlierFailure) {
    error_code code(2, boost::system::generic_category());

    auto const out = files.createOutputStream(folder.corePath("file"), WritePart, code);

    EXPECT_FALSE(code);
    EXPECT_NE(out, nullptr);
}

// ------------------------------------------------------------------------------------------------- writes that fail

TEST_F(OutputStreams, ThrowWithTheSystemsCodeWhenTheDeviceIsFull) {
    auto const fail = [&](auto write) {
        auto const out = files.createOutputStream(u"/dev/full", WritePart);
        write(*out);
    };
    auto const flush = [](std::ostream& out) { out << "content" << std::flush; };
    auto const largeWrite = [](std::ostream& out) { out << std::string(2 * Buffer, 'x'); };
    auto const tellPosition = [](std::ostream& out) { (out << "content").tellp(); };
    auto const singleBytes = [](std::ostream& out) {
        for (std::size_t i = 0; i <= Buffer; ++i)
            out.put('x');
    };
    auto const insertion = [](std::ostream& out) {
        std::istringstream source(std::string(2 * Buffer, 'x'));
        out << source.rdbuf();
    };

    EXPECT_THAT([&] { fail(flush); }, throwsPackageError("Could not write \"/dev/full\": No space left on device"));
    EXPECT_EQ(codeThrownBy([&] { fail(flush); }), errc::no_space_on_device);
    EXPECT_EQ(codeThrownBy([&] { fail(largeWrite); }), errc::no_space_on_device);
    EXPECT_EQ(codeThrownBy([&] { fail(tellPosition); }), errc::no_space_on_device);
    EXPECT_EQ(codeThrownBy([&] { fail(singleBytes); }), errc::no_space_on_device);
    EXPECT_EQ(codeThrownBy([&] { fail(insertion); }), errc::no_space_on_device);
}

TEST_F(OutputStreams, SetABitWithoutThrowingWhenTheDeviceIsFullAndFailuresAreReported) {
    error_code code;
    std::string const large(2 * Buffer, 'x');
    std::istringstream source(large);

    auto const flushed = files.createOutputStream(u"/dev/full", WritePart, code);
    EXPECT_NO_THROW(*flushed << "content" << std::flush);
    EXPECT_TRUE(flushed->bad());

    auto const written = files.createOutputStream(u"/dev/full", WritePart, code);
    EXPECT_NO_THROW(*written << large);
    EXPECT_TRUE(written->bad());

    auto const inserted = files.createOutputStream(u"/dev/full", WritePart, code);
    EXPECT_NO_THROW(*inserted << source.rdbuf());
    EXPECT_TRUE(inserted->fail());

    EXPECT_FALSE(code); // it told of the opening alone
}

TEST_F(OutputStreams, LeaveADeviceInItsPlaceWhenItIsFull) {
    fs::create_symlink("/dev/full", folder / "link");
    error_code code;
    {
        auto const throwing = files.createOutputStream(u"/dev/full", WritePart);
        EXPECT_THROW(*throwing << "content" << std::flush, opc::Exception);
        auto const reporting = files.createOutputStream(u"/dev/full", WritePart, code);
        *reporting << "content" << std::flush;
        *openedToWrite("link") << "content";
    }

    EXPECT_TRUE(fs::is_character_file("/dev/full"));
    EXPECT_TRUE(fs::is_symlink(folder / "link"));
}

TEST_F(OutputStreams, FailInLaterWritesOnceOneFailed) {
    auto const throwing = files.createOutputStream(u"/dev/full", WritePart);
    EXPECT_THROW(*throwing << "content" << std::flush, opc::Exception);

    EXPECT_THROW(*throwing << "more" << std::flush, std::exception);
    throwing->clear(); // even then: what follows a gap is worth nothing
    EXPECT_EQ(codeThrownBy([&] { *throwing << "more" << std::flush; }), errc::io_error);

    error_code code;
    auto const reporting = files.createOutputStream(u"/dev/full", WritePart, code);
    *reporting << "content" << std::flush;
    EXPECT_TRUE(reporting->bad());
    reporting->clear();
    *reporting << "more" << std::flush;
    EXPECT_TRUE(reporting->bad());
}

TEST_F(OutputStreams, FailInLaterWritesThoughThereIsRoomAgain) {
    auto throwing = openedToWrite("throwing");
    auto reporting = openedToWriteReporting("reporting");
    {
        FileSizeLimit const full(3);
        EXPECT_THROW(*throwing << "content" << std::flush, opc::Exception);
        *reporting << "content" << std::flush;
    }
    EXPECT_TRUE(reporting->bad());

    throwing->clear();
    EXPECT_THROW(*throwing << "more" << std::flush, opc::Exception);
    reporting->clear();
    *reporting << "more" << std::flush;
    EXPECT_TRUE(reporting->bad());
    throwing.reset();
    reporting.reset();

    EXPECT_THAT(folder.entries(), IsEmpty());
}

/// How a test writes a file; each releases the stream in the end.
struct Writing {
    char const* name;
    void (*write)(std::ostream& out, std::string const& content);
};

std::vector<Writing> const waysToWrite = {
    {"one write", [](std::ostream& out, std::string const& content) { out << content; }},
    {"single bytes",
     [](std::ostream& out, std::string const& content) {
         for (char const byte : content)
             out.put(byte);
     }},
    {"an inserted buffer",
     [](std::ostream& out, std::string const& content) {
         std::istringstream source(content);
         out << source.rdbuf();
     }},
    {"a write and a flush", [](std::ostream& out, std::string const& content) { out << content << std::flush; }},
    {"two writes with a flush between",
     [](std::ostream& out, std::string const& content) {
         out << content.substr(0, content.size() / 2) << std::flush << content.substr(content.size() / 2);
     }},
};

class FullDisk : public FileStreams {
protected:
    /// Writes a file on a disk with room for so many bytes, with both forms, and looks at what is there afterwards.
    void expectAWholeFileOrNone(std::string const& content, std::uint64_t room, Writing const& writing) {
        for (bool const throwing : {true, false}) {
            folder.write("file", "an older file");
            bool failed = false;
            {
                auto out = throwing ? openedToWrite("file") : openedToWriteReporting("file");
                FileSizeLimit const limit(room);
                try {
                    writing.write(*out, content);
                } catch (opc::Exception const&) {
                    failed = true;
                }
                failed = failed || out->fail();
                out.reset();
            }

            SCOPED_TRACE(std::string(writing.name) + " with room for " + std::to_string(room));
            if (room >= content.size())
                EXPECT_EQ(folder.read("file"), content);
            else
                EXPECT_THAT(folder.entries(), IsEmpty());
            EXPECT_FALSE(failed && room >= content.size());
        }
    }
};

TEST_F(FullDisk, LeavesASmallFileWholeOrNotAtAllAtEveryByteCount) {
    auto const content = numberedText(40);

    for (auto const& writing : waysToWrite)
        for (std::uint64_t room = 0; room <= content.size() + 1; ++room)
            expectAWholeFileOrNone(content, room, writing);
}

TEST_F(FullDisk, LeavesALargeFileWholeOrNotAtAll) {
    auto const content = numberedText(2 * Buffer + 100);

    for (auto const& writing : waysToWrite)
        for (std::uint64_t const room : {std::size_t{0}, std::size_t{1}, Buffer - 1, Buffer, Buffer + 1, 2 * Buffer,
                                         content.size() - 1, content.size(), content.size() + 1})
            expectAWholeFileOrNone(content, room, writing);
}

TEST_F(FullDisk, IsToldByAnExceptionOrABitWhenFlushed) {
    auto const throwing = openedToWrite("throwing");
    auto const reporting = openedToWriteReporting("reporting");
    error_code code;
    bool bad = false;
    {
        FileSizeLimit const limit(3);
        code = codeThrownBy([&] { *throwing << "content" << std::flush; });
        bad = !(*reporting << "content" << std::flush);
    }

    EXPECT_EQ(code, errc::file_too_large);
    EXPECT_TRUE(bad);
}

TEST_F(OutputStreams, RemoveAFileWhoseInsertedSourceFailedHalfWay) {
    FailingSource forThrowing("the first half");
    FailingSource forReporting("the first half");
    auto throwing = openedToWrite("throwing");
    auto reporting = openedToWriteReporting("reporting");

    EXPECT_THAT([&] { *throwing << &forThrowing; }, throwsPackageError("the source failed"));
    EXPECT_NO_THROW(*reporting << &forReporting);
    EXPECT_TRUE(reporting->fail());
    throwing.reset();
    reporting.reset();

    EXPECT_THAT(folder.entries(), IsEmpty());
}

TEST_F(OutputStreams, RemoveAFileWhoseInsertedSourceFailedAfterManyBuffers) {
    FailingSource source(numberedText(3 * Buffer));
    auto out = openedToWrite("file");

    EXPECT_THROW(*out << &source, opc::Exception);
    out.reset();

    EXPECT_THAT(folder.entries(), IsEmpty());
}

TEST_F(OutputStreams, RemoveAFileThatWasReadFromABadDisk) {
    auto const in = files.createInputStream(u"/proc/self/mem", ReadPart);
    auto out = openedToWriteReporting("file");
    *out << "a first part that went well";

    *out << in->rdbuf();
    out.reset();

    EXPECT_THAT(folder.entries(), IsEmpty());
}

// An empty source sets the fail bit just as one does that failed at once; only the writer knows which it was.
TEST_F(OutputStreams, KeepTheFileOfAnEmptySourceOnceTheWriterClearsTheBit) {
    std::istringstream empty;
    auto out = openedToWriteReporting("file");
    *out << empty.rdbuf();
    EXPECT_EQ(out->rdstate(), std::ios_base::failbit);

    out->clear();
    out.reset();

    EXPECT_EQ(folder.read("file"), "");
}

TEST_F(OutputStreams, LeaveAFileAloneThatSomebodyElsePutInThePlaceOfTheirs) {
    auto out = openedToWriteReporting("file");
    {
        FileSizeLimit const limit(3);
        *out << "content" << std::flush;
    }
    fs::rename(folder / "file", folder / "moved");
    folder.write("file", "somebody else's");

    out.reset();

    EXPECT_EQ(folder.read("file"), "somebody else's");
}

TEST_F(OutputStreams, LeaveAFileAloneThatStandsWhereTheirLinkedFolderLeadsNow) {
    std::string other = "/dev/shm/textpackage_test_XXXXXX";
    if (::mkdtemp(other.data()) == nullptr)
        GTEST_SKIP() << "there is no /dev/shm to write to";
    struct stat here {};
    struct stat there {};
    ASSERT_EQ(::stat(folder.path().c_str(), &here), 0);
    ASSERT_EQ(::stat(other.c_str(), &there), 0);
    std::ofstream(other + "/file") << "somebody else's, on another file system";
    fs::create_directory(folder / "real");
    fs::create_symlink("real", folder / "link");
    auto out = openedToWriteReporting("link/file");
    {
        FileSizeLimit const limit(3);
        *out << "content" << std::flush;
    }
    fs::remove(folder / "link");
    fs::create_symlink(other, folder / "link");

    out.reset();

    EXPECT_EQ(folder.read("link/file"), "somebody else's, on another file system");
    fs::remove_all(other);
    if (here.st_dev == there.st_dev)
        GTEST_SKIP() << "the temporary folder lies on /dev/shm as well";
}

TEST_F(OutputStreams, EndQuietlyWhenAFileStandsInThePlaceOfTheirFolder) {
    fs::create_directory(folder / "inner");
    auto out = openedToWriteReporting("inner/file");
    {
        FileSizeLimit const limit(3);
        *out << "content" << std::flush;
    }
    fs::remove_all(folder / "inner");
    folder.write("inner", "somebody else's");

    EXPECT_NO_THROW(out.reset());

    EXPECT_EQ(folder.read("inner"), "somebody else's");
}

// A network file system may tell no earlier than when a file is closed that it could not be written.
TEST_F(OutputStreams, RemoveAFileThatCouldNotBeClosed) {
    for (bool const throwing : {true, false}) {
        auto out = throwing ? openedToWrite("file") : openedToWriteReporting("file");
        *out << "content" << std::flush;
        CloseWatch const watch([&](std::string const& path) { return path == folder / "file" ? EIO : 0; });

        out.reset();

        EXPECT_THAT(folder.entries(), IsEmpty());
    }
}

TEST_F(OutputStreams, CutAFileBackThatCouldNotBeClosedAfterAppending) {
    folder.write("file", "before");
    auto out = openedToWrite("file", WritePart | StreamMode::App);
    *out << " and after" << std::flush;
    CloseWatch const watch([&](std::string const& path) { return path == folder / "file" ? ENOSPC : 0; });

    out.reset();

    EXPECT_EQ(folder.read("file"), "before");
}

TEST_F(OutputStreams, KeepAFileThatASignalInterruptedTheClosingOf) {
    auto out = openedToWrite("file");
    *out << "content";
    CloseWatch const watch([&](std::string const& path) { return path == folder / "file" ? EINTR : 0; });

    out.reset();

    EXPECT_EQ(folder.read("file"), "content");
}

TEST_F(OutputStreams, EndQuietlyWhenTheirFileIsGone) {
    auto out = openedToWriteReporting("file");
    {
        FileSizeLimit const limit(3);
        *out << "content" << std::flush;
    }
    fs::remove(folder / "file");

    EXPECT_NO_THROW(out.reset());

    EXPECT_THAT(folder.entries(), IsEmpty());
}

TEST_F(OutputStreams, LeaveNoHalfFileBehindALinkEither) {
    folder.write("real", "an older file");
    fs::create_symlink("real", folder / "link");
    auto out = openedToWriteReporting("link");
    {
        FileSizeLimit const limit(3);
        *out << "content" << std::flush;
    }

    out.reset();

    EXPECT_FALSE(fs::exists(folder / "link")) << folder.read("link");
}

} // namespace
