#include <textpackage/BufferInputStream.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include <gmock/gmock.h>

#include <tests/support/PackageText.hpp>
#include <tests/support/TemporaryFolder.hpp>
#include <textpackage/TextFileBuffer.hpp>

using opc::textpackage::BufferInputStream;
using opc::textpackage::TextFileBuffer;
using testsupport::readAll;

namespace {

class BufferInputStreamTest : public ::testing::Test {
protected:
    /// A stream on 40 bytes, "0123456789" four times, in the middle of a file.
    testsupport::TemporaryFolder folder;
    TextFileBuffer file{folder.write("text", "before0123456789012345678901234567890123456789after")};
    BufferInputStream stream{file.getStreambuf(6, 46)};
    std::array<char, 100> block{};

    std::string read(std::int64_t count) {
        auto const got = stream.read(block.data(), count);
        return {block.data(), static_cast<std::size_t>(got)};
    }
};

} // namespace

TEST_F(BufferInputStreamTest, IsClosedUntilItIsOpened) {
    EXPECT_EQ(read(10), "");
    EXPECT_TRUE(stream.atEnd());
    EXPECT_FALSE(stream.isBad());
}

TEST_F(BufferInputStreamTest, StandsAtTheFirstByteOfItsSliceOnceItIsOpen) {
    stream.open();

    EXPECT_FALSE(stream.atEnd());
    EXPECT_EQ(read(3), "012");
    EXPECT_EQ(read(3), "345");
    EXPECT_FALSE(stream.atEnd());
}

TEST_F(BufferInputStreamTest, ReadsWhatIsLeftWhereMoreIsAskedForAndThenNothing) {
    stream.open();

    EXPECT_EQ(read(100), "0123456789012345678901234567890123456789");
    EXPECT_TRUE(stream.atEnd());
    EXPECT_EQ(read(100), "");
    EXPECT_TRUE(stream.atEnd());
    EXPECT_FALSE(stream.isBad());
}

TEST_F(BufferInputStreamTest, NoticesTheEndOnlyWhenMoreIsAskedForThanThereIs) {
    stream.open();

    EXPECT_EQ(read(40).size(), 40U);
    EXPECT_FALSE(stream.atEnd());
    EXPECT_EQ(read(1), "");
    EXPECT_TRUE(stream.atEnd());
}

TEST_F(BufferInputStreamTest, StaysWhereItIsWhenItIsOpenedWhileOpen) {
    stream.open();
    read(5);

    stream.open();

    EXPECT_EQ(read(3), "567");
}

TEST_F(BufferInputStreamTest, StaysAtItsEndWhenItIsOpenedWhileOpen) {
    stream.open();
    readAll(stream);

    stream.open();

    EXPECT_TRUE(stream.atEnd());
    EXPECT_EQ(read(10), "");
}

TEST_F(BufferInputStreamTest, ReadsNothingOnceItIsClosed) {
    stream.open();
    read(5);

    stream.close();

    EXPECT_EQ(read(10), "");
    EXPECT_TRUE(stream.atEnd());
}

TEST_F(BufferInputStreamTest, MayBeClosedTwice) {
    stream.open();

    stream.close();
    stream.close();

    EXPECT_TRUE(stream.atEnd());
}

TEST_F(BufferInputStreamTest, StartsAgainAtTheFirstByteWhenItIsOpenedAfterClosing) {
    stream.open();
    readAll(stream);
    stream.close();

    stream.open();

    EXPECT_FALSE(stream.atEnd());
    EXPECT_EQ(read(3), "012");
}

TEST_F(BufferInputStreamTest, ReadsNothingForACountThatIsNotPositive) {
    stream.open();

    EXPECT_EQ(read(0), "");
    EXPECT_EQ(read(-1), "");
    EXPECT_EQ(read(INT64_MIN), "");

    EXPECT_FALSE(stream.atEnd());
    EXPECT_EQ(read(3), "012");
}

TEST_F(BufferInputStreamTest, ReadsNothingFromAnEmptySlice) {
    BufferInputStream empty(file.getStreambuf(6, 6));
    empty.open();

    EXPECT_FALSE(empty.atEnd());
    EXPECT_EQ(empty.read(block.data(), 1), 0);
    EXPECT_TRUE(empty.atEnd());
    EXPECT_FALSE(empty.isBad());
}
