#include <textpackage/MemoryPart.hpp>

#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>

#include <opccore/Base64.hpp>
#include <tests/support/FailingAllocations.hpp>
#include <tests/support/PackageText.hpp>
#include <textpackage/TextPackageLightweightReader.hpp>

using opc::textpackage::MemoryPart;
using opc::textpackage::TextPackageLightweightReader;
using ::testing::StartsWith;
using ::testing::ThrowsMessage;
using testsupport::attemptWithout;
using testsupport::readAll;
using Lines = std::vector<std::string>;

namespace {

auto throwsDecodingError() {
    return ThrowsMessage<foundation::crypto::utils::Exception>(StartsWith("Unable to decode Base64: "));
}

class MemoryPartTest : public ::testing::Test {
protected:
    std::unique_ptr<MemoryPart> partWith(Lines const& lines, bool isBase64) {
        auto part = std::make_unique<MemoryPart>(reader, u"/part", isBase64);
        for (auto const& line : lines)
            part->processLine(line);
        return part;
    }

    std::unique_ptr<MemoryPart> textPart(Lines const& lines) { return partWith(lines, false); }
    std::unique_ptr<MemoryPart> binaryPart(Lines const& lines) { return partWith(lines, true); }

    TextPackageLightweightReader reader{u"/no/such/package"};
};

TEST_F(MemoryPartTest, IsAPartThatCanNotBeCopied) {
    EXPECT_TRUE((std::is_base_of_v<opc::interfaces::IPhysicalPart, MemoryPart>));
    EXPECT_FALSE(std::is_copy_constructible_v<MemoryPart>);
    EXPECT_FALSE(std::is_copy_assignable_v<MemoryPart>);
}

TEST_F(MemoryPartTest, TellsItsNameAsGiven) {
    for (auto const* const name : {u"/[Content_Types].xml", u"/Word/Grüße 🎨.xml", u"", u"no slash"}) {
        MemoryPart const part(reader, name, false);

        EXPECT_EQ(part.getName(), name);
    }
}

TEST_F(MemoryPartTest, HasNoContentTypeWhateverItsName) {
    for (auto const* const name : {u"/[Content_Types].xml", u"/_rels/.rels", u"/a.xml"}) {
        MemoryPart const part(reader, name, false);

        EXPECT_EQ(part.getContentType(), u"");
    }
}

TEST_F(MemoryPartTest, HasNoOutputStream) {
    auto const part = textPart({"a"});

    EXPECT_EQ(part->getOutputStream(), nullptr);
    EXPECT_EQ(readAll(*part->getInputStream()), "a");
}

TEST_F(MemoryPartTest, JoinsTheLinesOfATextByLineFeeds) {
    struct Case {
        Lines lines;
        std::string content;
    };
    std::vector<Case> const cases{
        {{}, ""},
        {{""}, ""},
        {{"", ""}, "\n"},
        {{"a"}, "a"},
        {{"a", "b"}, "a\nb"},
        {{"a", ""}, "a\n"},
        {{"", "a"}, "\na"},
        {{"a", "", "", "b"}, "a\n\n\nb"},
        {{"a\r", "b\rc"}, "a\r\nb\rc"},
        {{std::string("\0\x01", 2), "\xFF\x80"}, std::string("\0\x01\n\xFF\x80", 5)},
        {{"AAECAwQ="}, "AAECAwQ="},
        {{std::string(1 << 20, 'x'), "y"}, std::string(1 << 20, 'x') + "\ny"},
    };

    for (auto const& c : cases) {
        SCOPED_TRACE(c.content.substr(0, 40));

        EXPECT_EQ(readAll(*textPart(c.lines)->getInputStream()), c.content);
    }
}

TEST_F(MemoryPartTest, DecodesEachBase64LineByItselfAndJoinsTheBytes) {
    struct Case {
        Lines lines;
        std::string content;
    };
    std::vector<Case> const cases{
        {{}, ""},
        {{""}, ""},
        {{"", "", ""}, ""},
        {{"YQ=="}, "a"},
        {{"YWI=", "Y2Q="}, "abcd"},
        {{"YWJj", "ZGVm", "Zw=="}, "abcdefg"},
        {{"YWJj", "", "ZGVm"}, "abcdef"},
        {{"YWJj\r", "ZGVm\r"}, "abcdef"},
        {{"AAECAwQ="}, std::string("\0\x01\x02\x03\x04", 5)},
        {{"+/+/"}, "\xFB\xFF\xBF"},
    };

    for (auto const& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.lines));

        EXPECT_EQ(readAll(*binaryPart(c.lines)->getInputStream()), c.content);
    }
}

TEST_F(MemoryPartTest, RefusesABase64UnitThatGoesOnInTheNextLine) {
    auto const part = binaryPart({"YW", "Jj"});

    EXPECT_THAT([&] { part->getInputStream(); }, throwsDecodingError());
}

TEST_F(MemoryPartTest, DecodesOnlyTheLinesAfterABadOneAtTheNextCall) {
    auto const part = binaryPart({"YQ==", "not Base64!", "Yg==", "Yw=="});

    EXPECT_THAT([&] { part->getInputStream(); }, throwsDecodingError());

    EXPECT_EQ(readAll(*part->getInputStream()), "bc");
    part->close();
    EXPECT_EQ(readAll(*part->getInputStream()), "bc");
}

TEST_F(MemoryPartTest, FailsOnceForEachBadLine) {
    auto const part = binaryPart({"?", "YQ==", "?", "Yg=="});

    EXPECT_THAT([&] { part->getInputStream(); }, throwsDecodingError());
    EXPECT_THAT([&] { part->getInputStream(); }, throwsDecodingError());

    EXPECT_EQ(readAll(*part->getInputStream()), "b");
}

TEST_F(MemoryPartTest, IsEmptyAfterABadLastLine) {
    auto const part = binaryPart({"YQ==", "?"});

    EXPECT_THAT([&] { part->getInputStream(); }, throwsDecodingError());

    EXPECT_EQ(readAll(*part->getInputStream()), "");
    part->close();
    EXPECT_EQ(readAll(*part->getInputStream()), "");
}

TEST_F(MemoryPartTest, HasNothingToCloseAfterAFailedDecoding) {
    auto const part = binaryPart({"?", "YQ=="});
    EXPECT_THAT([&] { part->getInputStream(); }, throwsDecodingError());

    part->close();

    EXPECT_EQ(readAll(*part->getInputStream()), "a");
}

TEST_F(MemoryPartTest, HandsOutTheSameStreamWhereItsReaderLeftIt) {
    auto const part = textPart({"abcdef"});
    char buffer[3];
    auto* const first = part->getInputStream();
    first->read(buffer, sizeof buffer);

    auto* const second = part->getInputStream();

    EXPECT_EQ(second, first);
    EXPECT_EQ(readAll(*second), "def");
}

TEST_F(MemoryPartTest, HandsOutTheSameStreamWhenItIsExhaustedOrClosed) {
    auto const part = textPart({"abc"});
    auto* const first = part->getInputStream();
    readAll(*first);

    EXPECT_EQ(part->getInputStream(), first);
    EXPECT_TRUE(part->getInputStream()->atEnd());

    first->open();
    first->close();
    EXPECT_EQ(part->getInputStream(), first);
    EXPECT_EQ(readAll(*part->getInputStream()), "");
}

TEST_F(MemoryPartTest, GivesANewStreamFromTheFirstByteAfterClose) {
    struct Case {
        std::unique_ptr<MemoryPart> part;
        std::string content;
    };
    std::vector<Case> cases;
    cases.push_back({textPart({"a", "b"}), "a\nb"});
    cases.push_back({binaryPart({"YWJj", "ZA=="}), "abcd"});
    cases.push_back({binaryPart({}), ""});

    for (auto const& c : cases) {
        SCOPED_TRACE(c.content);
        char byte;
        c.part->getInputStream()->read(&byte, 1);

        c.part->close();

        EXPECT_FALSE(c.part->getInputStream()->atEnd());
        EXPECT_EQ(readAll(*c.part->getInputStream()), c.content);
    }
}

TEST_F(MemoryPartTest, CanBeClosedWithoutAStreamAndTwice) {
    auto const part = textPart({"a"});

    part->close();
    EXPECT_EQ(readAll(*part->getInputStream()), "a");
    part->close();
    part->close();

    EXPECT_EQ(readAll(*part->getInputStream()), "a");
}

TEST_F(MemoryPartTest, MakesItsBytesOnceUnlessTheyAreEmpty) {
    auto const full = textPart({"a"});
    auto const empty = textPart({});
    for (auto* const part : {full.get(), empty.get()}) {
        part->getInputStream();
        part->close();
        part->processLine("late");
    }

    EXPECT_EQ(readAll(*full->getInputStream()), "a");
    EXPECT_EQ(readAll(*empty->getInputStream()), "late");
}

TEST_F(MemoryPartTest, TakesNoLineInPartWhereMemoryFails) {
    std::string const line(100, 'a');
    for (std::size_t number = 0;; ++number) {
        auto const part = textPart({"first"});

        auto const attempt = attemptWithout(number, [&] { part->processLine(line); });
        EXPECT_EQ(attempt.failed, attempt.ranOutOfMemory) << number;

        if (!attempt.ranOutOfMemory)
            break;
    }
}

TEST_F(MemoryPartTest, DecodesFromTheBeginningAgainWhereMemoryFailed) {
    auto const line = [](char c) { return std::string(76, c); };
    auto const content = readAll(*binaryPart({line('A'), line('B'), line('C')})->getInputStream());
    for (std::size_t number = 0;; ++number) {
        auto const part = binaryPart({line('A'), line('B'), line('C')});

        auto const attempt = attemptWithout(number, [&] { part->getInputStream(); });
        EXPECT_EQ(attempt.failed, attempt.ranOutOfMemory) << number;
        EXPECT_EQ(readAll(*part->getInputStream()), content) << number;

        if (!attempt.ranOutOfMemory)
            break;
    }
}

TEST_F(MemoryPartTest, IsReadThroughTheInterface) {
    std::unique_ptr<opc::interfaces::IPhysicalPart> const part = binaryPart({"YWJj"});

    EXPECT_EQ(part->getName(), u"/part");
    EXPECT_EQ(readAll(*part->getInputStream()), "abc");
}

} // namespace
