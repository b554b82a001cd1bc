#include <textpackage/TextFileBuffer.hpp>

#include <cstdint>
#include <fstream>
#include <ios>
#include <istream>
#include <iterator>
#include <memory>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

#include <sys/stat.h>

#include <gmock/gmock.h>

#include <tests/support/PackageFixture.hpp>
#include <tests/support/Permissions.hpp>
#include <tests/support/TemporaryFolder.hpp>

using opc::textpackage::TextFileBuffer;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::Throws;
using ::testing::ThrowsMessage;
using testsupport::toNativePath;

namespace {

constexpr auto InAndOut = std::ios_base::in | std::ios_base::out;

std::string rest(std::streambuf& buffer) {
    return {std::istreambuf_iterator<char>(&buffer), std::istreambuf_iterator<char>()};
}

std::string mappingsOfThisProcess() {
    std::ostringstream maps;
    maps << std::ifstream("/proc/self/maps").rdbuf();
    return maps.str();
}

class TextFileBufferTest : public ::testing::Test {
protected:
    testsupport::TemporaryFolder folder;
    std::u16string path = folder.write("text", "0123456789");
};

} // namespace

TEST_F(TextFileBufferTest, ReadsTheWholeFile) {
    TextFileBuffer file(path);

    auto const buffer = file.getFullStreambuf();

    EXPECT_EQ(rest(*buffer), "0123456789");
}

TEST_F(TextFileBufferTest, ShowsTheMappedBytesThemselves) {
    TextFileBuffer const file(path);

    EXPECT_EQ(file.content(), "0123456789");
}

TEST_F(TextFileBufferTest, ReadsASliceFromItsBeginUpToButNotWithItsEnd) {
    struct Slice {
        std::uint64_t begin;
        std::uint64_t end;
        std::string bytes;
    };
    TextFileBuffer file(path);

    for (auto const& slice : std::vector<Slice>{
             {0, 10, "0123456789"}, {0, 1, "0"}, {2, 5, "234"}, {9, 10, "9"}, {0, 0, ""}, {4, 4, ""}, {10, 10, ""}}) {
        EXPECT_EQ(rest(*file.getStreambuf(slice.begin, slice.end)), slice.bytes) << slice.begin << " " << slice.end;
    }
}

TEST_F(TextFileBufferTest, GivesTheEndOfTheFileAtOnceForAnEmptySlice) {
    TextFileBuffer file(path);
    auto const buffer = file.getStreambuf(4, 4);
    std::istream stream(buffer.get());

    EXPECT_EQ(stream.get(), std::istream::traits_type::eof());

    EXPECT_TRUE(stream.eof());
    EXPECT_FALSE(stream.bad());
}

TEST_F(TextFileBufferTest, KeepsBytesOfAnyValue) {
    std::string bytes;
    for (int value = 0; value < 256; ++value)
        bytes += static_cast<char>(value);
    TextFileBuffer file(folder.write("bytes", bytes));

    EXPECT_EQ(rest(*file.getFullStreambuf()), bytes);
}

TEST_F(TextFileBufferTest, GivesEachSliceItsOwnPosition) {
    TextFileBuffer file(path);
    auto const first = file.getStreambuf(0, 6);
    auto const second = file.getStreambuf(3, 9);

    EXPECT_EQ(first->sbumpc(), '0');
    EXPECT_EQ(second->sbumpc(), '3');
    EXPECT_EQ(first->sbumpc(), '1');
    EXPECT_EQ(second->sbumpc(), '4');

    EXPECT_EQ(first->pubseekoff(0, std::ios_base::cur, std::ios_base::in), std::streampos(2));
    EXPECT_EQ(second->pubseekoff(0, std::ios_base::cur, std::ios_base::in), std::streampos(2));
}

TEST_F(TextFileBufferTest, CountsPositionsFromTheBeginOfTheSlice) {
    TextFileBuffer file(path);
    auto const buffer = file.getStreambuf(3, 8);

    EXPECT_EQ(buffer->pubseekoff(0, std::ios_base::cur, std::ios_base::in), std::streampos(0));
    EXPECT_EQ(buffer->pubseekoff(2, std::ios_base::beg, std::ios_base::in), std::streampos(2));
    EXPECT_EQ(buffer->sgetc(), '5');
    EXPECT_EQ(buffer->pubseekoff(-1, std::ios_base::end, std::ios_base::in), std::streampos(4));
    EXPECT_EQ(buffer->sgetc(), '7');
}

TEST_F(TextFileBufferTest, SeeksToTheEndOfASliceButNotBeyondIt) {
    TextFileBuffer file(path);
    auto const buffer = file.getStreambuf(3, 8);

    EXPECT_EQ(buffer->pubseekoff(5, std::ios_base::beg, InAndOut), std::streampos(5));
    EXPECT_EQ(buffer->sgetc(), std::streambuf::traits_type::eof());
    EXPECT_THAT([&] { buffer->pubseekoff(6, std::ios_base::beg, InAndOut); },
                ThrowsMessage<std::ios_base::failure>(HasSubstr("bad seek")));
    EXPECT_THAT([&] { buffer->pubseekoff(-1, std::ios_base::beg, InAndOut); },
                ThrowsMessage<std::ios_base::failure>(HasSubstr("bad seek")));
}

TEST_F(TextFileBufferTest, RefusesToWrite) {
    TextFileBuffer file(path);
    auto const buffer = file.getFullStreambuf();

    EXPECT_THAT([&] { buffer->sputc('x'); }, ThrowsMessage<std::ios_base::failure>(HasSubstr("no write access")));

    EXPECT_EQ(folder.read("text"), "0123456789");
}

TEST_F(TextFileBufferTest, MapsAFileWhoseNameIsTooLongForTheFileSystemUnderItsShortenedName) {
    auto const longPath = folder.corePath("") + std::u16string(200, u'\u20AC');
    std::ofstream(toNativePath(longPath)) << "content";

    TextFileBuffer file(longPath);

    EXPECT_EQ(rest(*file.getFullStreambuf()), "content");
}

TEST_F(TextFileBufferTest, PassesOnTheFailureForAFileThatDoesNotExist) {
    EXPECT_THAT([&] { TextFileBuffer file(folder.corePath("missing")); }, Throws<std::ios_base::failure>());
}

TEST_F(TextFileBufferTest, PassesOnTheFailureForAFolder) {
    EXPECT_THAT([&] { TextFileBuffer file(folder.corePath("")); }, Throws<std::ios_base::failure>());
}

TEST_F(TextFileBufferTest, PassesOnTheFailureForAnEmptyFileWhichCannotBeMapped) {
    EXPECT_THAT([&] { TextFileBuffer file(folder.write("empty", "")); }, Throws<std::ios_base::failure>());
}

TEST_F(TextFileBufferTest, PassesOnTheFailureForAFileThatMayNotBeRead) {
    if (testsupport::runsAsRoot())
        GTEST_SKIP() << "root may read every file";
    ::chmod((folder / "text").c_str(), 0);

    EXPECT_THAT([&] { TextFileBuffer file(path); }, Throws<std::ios_base::failure>());
}

TEST_F(TextFileBufferTest, MapsTheFileAsLongAsItLives) {
    auto const mapped = (folder / "text").string();
    auto file = std::make_unique<TextFileBuffer>(path);
    EXPECT_THAT(mappingsOfThisProcess(), HasSubstr(mapped));

    file.reset();

    EXPECT_THAT(mappingsOfThisProcess(), Not(HasSubstr(mapped)));
}
