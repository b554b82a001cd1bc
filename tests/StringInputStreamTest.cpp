#include <textpackage/StringInputStream.hpp>

#include <cstdint>
#include <string>

#include <gmock/gmock.h>

#include <tests/support/PackageText.hpp>

using opc::textpackage::StringInputStream;
using testsupport::readAll;

namespace {

/// Up to `count` bytes from where the stream stands.
std::string readPiece(opc::interfaces::IPhysicalInputStream& stream, std::int64_t count) {
    std::string piece(static_cast<std::size_t>(count), '?');
    auto const got = stream.read(piece.data(), count);
    piece.resize(static_cast<std::size_t>(got));
    return piece;
}

std::string allByteValues() {
    std::string bytes;
    for (int value = 0; value < 256; ++value)
        bytes += static_cast<char>(value);
    return bytes;
}

TEST(StringInputStreamTest, IsOpenAtTheFirstByteFromTheStart) {
    StringInputStream stream("abc");

    EXPECT_FALSE(stream.atEnd());
    EXPECT_EQ(readAll(stream), "abc");
}

TEST(StringInputStreamTest, KeepsACopyOfTheBytes) {
    std::string bytes = "before";
    StringInputStream stream(bytes);

    bytes = "after!";

    EXPECT_EQ(readAll(stream), "before");
}

TEST(StringInputStreamTest, ReadsInPieces) {
    StringInputStream stream("abcdefgh");

    EXPECT_EQ(readPiece(stream, 3), "abc");
    EXPECT_EQ(readPiece(stream, 1), "d");
    EXPECT_EQ(readPiece(stream, 3), "efg");
    EXPECT_EQ(readPiece(stream, 3), "h");
    EXPECT_EQ(readPiece(stream, 3), "");
}

TEST(StringInputStreamTest, KeepsEveryByteValue) {
    StringInputStream stream(allByteValues());

    EXPECT_EQ(readAll(stream), allByteValues());
}

TEST(StringInputStreamTest, GivesWhatIsLeftWhenMoreIsAskedForAndThenNothing) {
    StringInputStream stream("abc");

    EXPECT_EQ(readPiece(stream, 10), "abc");
    EXPECT_EQ(readPiece(stream, 10), "");
    EXPECT_TRUE(stream.atEnd());
}

TEST(StringInputStreamTest, IsAtTheEndOnlyAfterAReadWentBeyondTheLastByte) {
    StringInputStream stream("abc");

    EXPECT_EQ(readPiece(stream, 3), "abc");
    EXPECT_FALSE(stream.atEnd());

    EXPECT_EQ(readPiece(stream, 1), "");
    EXPECT_TRUE(stream.atEnd());
}

TEST(StringInputStreamTest, IsAtTheEndOfEmptyContentOnlyAfterARead) {
    StringInputStream stream("");

    EXPECT_FALSE(stream.atEnd());
    EXPECT_EQ(readPiece(stream, 1), "");
    EXPECT_TRUE(stream.atEnd());
}

TEST(StringInputStreamTest, LeavesTheBufferAloneAtTheEnd) {
    StringInputStream stream("abc");
    readAll(stream);
    char buffer[] = "untouched";

    EXPECT_EQ(stream.read(buffer, 5), 0);

    EXPECT_STREQ(buffer, "untouched");
}

TEST(StringInputStreamTest, MovesNothingForACountOfZeroOrLess) {
    for (std::int64_t const count : {std::int64_t{0}, std::int64_t{-1}, INT64_MIN}) {
        SCOPED_TRACE(count);
        StringInputStream stream("abc");
        char buffer[] = "untouched";

        EXPECT_EQ(stream.read(buffer, count), 0);

        EXPECT_STREQ(buffer, "untouched");
        EXPECT_FALSE(stream.atEnd());
        EXPECT_EQ(readAll(stream), "abc");
    }
}

TEST(StringInputStreamTest, ReadsAllOverAgainAfterOpenAtTheEnd) {
    StringInputStream stream("abc");
    readAll(stream);

    stream.open();

    EXPECT_FALSE(stream.atEnd());
    EXPECT_EQ(readAll(stream), "abc");
}

TEST(StringInputStreamTest, RewindsWhenItIsOpenedInTheMiddle) {
    StringInputStream stream("abc");
    readPiece(stream, 2);

    stream.open();

    EXPECT_EQ(readAll(stream), "abc");
}

TEST(StringInputStreamTest, GivesNothingOnceClosed) {
    StringInputStream stream("abc");
    char buffer[] = "untouched";

    stream.close();

    EXPECT_TRUE(stream.atEnd());
    EXPECT_EQ(stream.read(buffer, 3), 0);
    EXPECT_STREQ(buffer, "untouched");
}

TEST(StringInputStreamTest, ReadsFromTheStartAfterCloseAndOpen) {
    StringInputStream stream("abc");
    readPiece(stream, 2);
    stream.close();
    stream.close();

    stream.open();

    EXPECT_FALSE(stream.atEnd());
    EXPECT_EQ(readAll(stream), "abc");
}

TEST(StringInputStreamTest, CanBeClosedAtTheEndAndOpenedAgain) {
    StringInputStream stream("abc");
    readAll(stream);
    stream.close();

    stream.open();

    EXPECT_EQ(readAll(stream), "abc");
}

TEST(StringInputStreamTest, AsksItsOverriddenEndTestBeforeItReads) {
    class AlwaysAtEnd : public StringInputStream {
    public:
        using StringInputStream::StringInputStream;
        bool atEnd() override { return true; }
    };
    AlwaysAtEnd stream("abc");

    EXPECT_EQ(readPiece(stream, 3), "");
}

TEST(StringInputStreamTest, IsReadThroughTheInterface) {
    StringInputStream stream("abc");
    opc::interfaces::IPhysicalInputStream& interface = stream;

    EXPECT_EQ(readAll(interface), "abc");
    interface.close();
    EXPECT_EQ(readAll(interface), "");
    interface.open();
    EXPECT_EQ(readAll(interface), "abc");
}

} // namespace
