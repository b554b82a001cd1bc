#include <textpackage/TextPackageHelpers.hpp>

#include <functional>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include <opccore/Exception.hpp>
#include <opccore/StringConversion.hpp>
#include <tests/support/BlockwiseStream.hpp>
#include <tests/support/PackageText.hpp>
#include <tests/support/Throws.hpp>

using namespace opc::textpackage::TextPackageHelpers;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;
using ::testing::StrEq;
using ::testing::ThrowsMessage;
using testsupport::BlockwiseStream;
using testsupport::codeThrownBy;
using testsupport::headerOfLines;
using testsupport::offsetAfterLine;
using testsupport::throwsPackageError;
using testsupport::withCrLf;

namespace {

using Calls = std::vector<std::string>;

/// What a callback throws that has enough.
struct CallbackFailure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Scans a text and writes down each call back, one entry a call, in order.
class Scan {
public:
    explicit Scan(std::string const& text) : stream(text) {}

    Scan& passHeader() {
        findPackageBeginMarker(stream, [this](std::string const& line) { note("header: " + line); });
        return *this;
    }

    Scan& passParts() {
        readParts(
            stream,
            [this](PartBegin const& begin) {
                begins.push_back(begin);
                note("begin: " + opc::detail::toUTF8String(begin.name, true) + (begin.isBase64 ? " (Base64)" : ""));
            },
            [this] {
                note("end");
                return static_cast<int>(begins.size()) < partsWanted;
            },
            [this](std::string const& line) { note("line: " + line); });
        return *this;
    }

    std::string rest() {
        stream.clear();
        return {std::istreambuf_iterator<char>(stream), {}};
    }

    std::istringstream stream;
    int partsWanted = 1000; // the end of this many-th part answers false
    Calls calls;
    std::vector<long> positions; // of the stream, at each call
    std::vector<PartBegin> begins;

private:
    void note(std::string const& call) {
        calls.push_back(call);
        positions.push_back(static_cast<long>(stream.tellg()));
    }
};

Calls callsOfParts(std::string const& text) {
    return Scan(text).passParts().calls;
}

// --- markers

TEST(Markers, AreTheBytesOfTheFormat) {
    EXPECT_EQ(getPackageBegin(), "__ZKOPC_PACKAGE_BEGIN__");
    EXPECT_EQ(getPartSeparator(), "__ZKOPC_PART_BEGIN__");
    EXPECT_EQ(getPackageEnd(), "__ZKOPC_PACKAGE_END__");
}

TEST(Markers, HaveTheLengthsOfTheFormat) {
    EXPECT_THAT(getPackageBegin(), SizeIs(23));
    EXPECT_THAT(getPartSeparator(), SizeIs(20));
    EXPECT_THAT(getPackageEnd(), SizeIs(21));
}

TEST(Markers, AreTheSameObjectsAtEachCall) {
    EXPECT_EQ(&getPackageBegin(), &getPackageBegin());
    EXPECT_EQ(&getPartSeparator(), &getPartSeparator());
    EXPECT_EQ(&getPackageEnd(), &getPackageEnd());
}

TEST(MaximumHeaderLines, IsTwenty) {
    EXPECT_EQ(getMaximumHeaderLines(), 20);
}

// --- findPackageBeginMarker

TEST(FindPackageBeginMarker, ReportsTheHeaderLinesAndStopsAfterTheBeginLine) {
    Scan scan("first\n\nthird\n__ZKOPC_PACKAGE_BEGIN__ V3508k\nnext\n");

    scan.passHeader();

    EXPECT_THAT(scan.calls, ElementsAre("header: first", "header: ", "header: third"));
    EXPECT_EQ(scan.rest(), "next\n");
}

TEST(FindPackageBeginMarker, ReportsNothingWhereTheInputStartsWithTheBeginLine) {
    Scan scan("__ZKOPC_PACKAGE_BEGIN__ V3508k\nnext\n");

    scan.passHeader();

    EXPECT_THAT(scan.calls, IsEmpty());
    EXPECT_EQ(scan.rest(), "next\n");
}

TEST(FindPackageBeginMarker, TakesWhateverFollowsTheMarkerInItsLine) {
    for (auto const* const line : {"__ZKOPC_PACKAGE_BEGIN__", "__ZKOPC_PACKAGE_BEGIN__ ", "__ZKOPC_PACKAGE_BEGIN__\r",
                                   "__ZKOPC_PACKAGE_BEGIN__ V3508k\r", "__ZKOPC_PACKAGE_BEGIN__ V9999z and more",
                                   "__ZKOPC_PACKAGE_BEGIN__\tV1", "__ZKOPC_PACKAGE_BEGIN__V1"}) {
        SCOPED_TRACE(line);
        Scan scan(std::string("header\n") + line + "\nnext\n");

        scan.passHeader();

        EXPECT_THAT(scan.calls, ElementsAre("header: header"));
        EXPECT_EQ(scan.rest(), "next\n");
    }
}

TEST(FindPackageBeginMarker, TakesABeginLineWithoutALineBreak) {
    Scan scan("header\n__ZKOPC_PACKAGE_BEGIN__");

    scan.passHeader();

    EXPECT_THAT(scan.calls, ElementsAre("header: header"));
}

TEST(FindPackageBeginMarker, TakesTheMarkerForHeaderTextUnlessItBeginsTheLineInCapitals) {
    Scan scan(" __ZKOPC_PACKAGE_BEGIN__\n"
              "__zkopc_package_begin__\n"
              "\xEF\xBB\xBF__ZKOPC_PACKAGE_BEGIN__\n"
              "__ZKOPC_PACKAGE_BEGIN_\n"
              "__ZKOPC_PART_BEGIN__ /a\n"
              "__ZKOPC_PACKAGE_END__\n"
              "__ZKOPC_PACKAGE_BEGIN__\n");

    scan.passHeader();

    EXPECT_THAT(scan.calls, ElementsAre("header:  __ZKOPC_PACKAGE_BEGIN__", "header: __zkopc_package_begin__",
                                        "header: \xEF\xBB\xBF__ZKOPC_PACKAGE_BEGIN__", "header: __ZKOPC_PACKAGE_BEGIN_",
                                        "header: __ZKOPC_PART_BEGIN__ /a", "header: __ZKOPC_PACKAGE_END__"));
}

TEST(FindPackageBeginMarker, HandsAHeaderLineOnAsItIs) {
    std::string const odd("\0 \xFF\t ", 5);
    Scan scan("with CR\r\n\r\n" + odd + "\n__ZKOPC_PACKAGE_BEGIN__\r\n");

    scan.passHeader();

    EXPECT_THAT(scan.calls, ElementsAre("header: with CR\r", "header: \r", "header: " + odd));
}

TEST(FindPackageBeginMarker, AcceptsUpToTwentyOneHeaderLines) {
    for (int const lines : {0, 1, 20, 21}) {
        SCOPED_TRACE(lines);
        Scan scan(testsupport::packageText({}, headerOfLines(lines)));

        scan.passHeader();

        EXPECT_THAT(scan.calls, SizeIs(static_cast<std::size_t>(lines)));
        if (lines > 0) {
            EXPECT_EQ(scan.calls.back(), "header: header line " + std::to_string(lines));
        }
        EXPECT_EQ(scan.rest(), "__ZKOPC_PACKAGE_END__\n");
    }
}

TEST(FindPackageBeginMarker, RefusesTwentyTwoHeaderLinesWithoutReportingTheLast) {
    for (auto const& text :
         {testsupport::packageText({}, headerOfLines(22)), testsupport::packageText({}, headerOfLines(23)),
          headerOfLines(22), headerOfLines(22) + "\n"}) {
        SCOPED_TRACE(text);
        Scan scan(text);

        EXPECT_THAT([&] { scan.passHeader(); }, throwsPackageError("Didn't find ZKOPC_PACKAGE_BEGIN marker"));

        EXPECT_THAT(scan.calls, SizeIs(21));
        EXPECT_EQ(scan.calls.back(), "header: header line 21");
    }
}

TEST(FindPackageBeginMarker, RefusesInputThatEndsBeforeTheMarker) {
    struct Case {
        std::string text;
        std::size_t headerLines;
    };
    std::vector<Case> const cases{{"", 0},
                                  {"\n", 1},
                                  {"no package", 1},
                                  {"no package\n", 1},
                                  {"__ZKOPC_PACKAGE_BEGIN_", 1},
                                  {headerOfLines(21), 21},
                                  {headerOfLines(21) + "\n", 21}};

    for (auto const& c : cases) {
        SCOPED_TRACE(c.text);
        Scan scan(c.text);

        EXPECT_THAT([&] { scan.passHeader(); },
                    throwsPackageError("Reached end of file without finding ZKOPC_PACKAGE_BEGIN marker"));

        EXPECT_THAT(scan.calls, SizeIs(c.headerLines));
    }
}

TEST(FindPackageBeginMarker, TakesAStreamThatHasFailedForOneAtItsEnd) {
    Scan scan("__ZKOPC_PACKAGE_BEGIN__\n");
    scan.stream.setstate(std::ios_base::badbit);

    EXPECT_THAT([&] { scan.passHeader(); },
                throwsPackageError("Reached end of file without finding ZKOPC_PACKAGE_BEGIN marker"));
}

TEST(FindPackageBeginMarker, FailsWithAnEmptyErrorCode) {
    EXPECT_EQ(codeThrownBy([] { Scan("no package").passHeader(); }), boost::system::error_code());
    EXPECT_EQ(codeThrownBy([] { Scan(headerOfLines(22)).passHeader(); }), boost::system::error_code());
}

TEST(FindPackageBeginMarker, NeedsItsCallbackForAHeaderLineOnly) {
    std::istringstream withHeader("header\n__ZKOPC_PACKAGE_BEGIN__\n");
    std::istringstream withoutHeader("__ZKOPC_PACKAGE_BEGIN__\n");

    EXPECT_THROW(findPackageBeginMarker(withHeader, nullptr), std::bad_function_call);
    EXPECT_NO_THROW(findPackageBeginMarker(withoutHeader, nullptr));
}

TEST(FindPackageBeginMarker, LetsAnExceptionFromTheCallbackPass) {
    std::istringstream stream("header\n__ZKOPC_PACKAGE_BEGIN__\n");

    EXPECT_THAT([&] { findPackageBeginMarker(stream, [](std::string const&) { throw CallbackFailure("enough"); }); },
                ThrowsMessage<CallbackFailure>(StrEq("enough")));
}

// --- readParts: what is reported

TEST(ReadParts, ReportsBeginLinesAndEndOfEachPartInTheOrderOfTheFile) {
    auto const calls = callsOfParts("__ZKOPC_PART_BEGIN__ /b\n"
                                    "first\n"
                                    "second\n"
                                    "__ZKOPC_PART_BEGIN__ /a BASE64\n"
                                    "AAECAwQ=\n"
                                    "__ZKOPC_PART_BEGIN__ /empty\n"
                                    "__ZKOPC_PART_BEGIN__ /c\n"
                                    "\n"
                                    "__ZKOPC_PACKAGE_END__\n");

    EXPECT_THAT(calls, ElementsAre("begin: /b", "line: first", "line: second", "end", "begin: /a (Base64)",
                                   "line: AAECAwQ=", "end", "begin: /empty", "end", "begin: /c", "line: ", "end"));
}

TEST(ReadParts, GoesOnWhereTheHeaderEnded) {
    Scan scan("Generated file; do not edit.\n"
              "Second header line\n"
              "__ZKOPC_PACKAGE_BEGIN__ V3508k\n"
              "__ZKOPC_PART_BEGIN__ /[Content_Types].xml\n"
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<Types/>\n"
              "__ZKOPC_PART_BEGIN__ /_rels/.rels\n"
              "<Relationships/>\n"
              "__ZKOPC_PART_BEGIN__ /data/blob.bin BASE64\n"
              "AAECAwQ=\n"
              "__ZKOPC_PACKAGE_END__\n");

    scan.passHeader().passParts();

    EXPECT_THAT(scan.calls,
                ElementsAre("header: Generated file; do not edit.", "header: Second header line",
                            "begin: /[Content_Types].xml", "line: <?xml version=\"1.0\" encoding=\"UTF-8\"?>",
                            "line: <Types/>", "end", "begin: /_rels/.rels", "line: <Relationships/>", "end",
                            "begin: /data/blob.bin (Base64)", "line: AAECAwQ=", "end"));
}

TEST(ReadParts, RemovesOneCarriageReturnFromTheEndOfALine) {
    auto const calls = callsOfParts("__ZKOPC_PART_BEGIN__ /a\n"
                                    "one\r\n"
                                    "two\r\r\n"
                                    "in\rside\n"
                                    "\r\n"
                                    "\r\r\n"
                                    "last\r\n"
                                    "__ZKOPC_PACKAGE_END__\r\n");

    EXPECT_THAT(calls, ElementsAre("begin: /a", "line: one", "line: two\r", "line: in\rside", "line: ", "line: \r",
                                   "line: last", "end"));
}

TEST(ReadParts, ReportsTheSameForCrLfAsForLf) {
    std::string const text = "\n__ZKOPC_PART_BEGIN__ /a\none\n\ntwo\n__ZKOPC_PART_BEGIN__ /b BASE64\nAAEC\n"
                             "__ZKOPC_PACKAGE_END__\n";

    EXPECT_EQ(callsOfParts(withCrLf(text)), callsOfParts(text));
}

TEST(ReadParts, SkipsEmptyLinesBeforeTheFirstPartOnly) {
    auto const calls = callsOfParts("\n\r\n\n__ZKOPC_PART_BEGIN__ /a\n\n\none\n\n__ZKOPC_PACKAGE_END__\n");

    EXPECT_THAT(calls, ElementsAre("begin: /a", "line: ", "line: ", "line: one", "line: ", "end"));
}

TEST(ReadParts, HandsAContentLineOnAsItIs) {
    std::string const odd(" \0\xFF\xC3\x28\t", 6);
    std::string const longLine(1 << 20, 'x');

    auto const calls = callsOfParts("__ZKOPC_PART_BEGIN__ /a\n" + odd + "\n" + longLine + "\n__ZKOPC_PACKAGE_END__\n");

    EXPECT_THAT(calls, ElementsAre("begin: /a", "line: " + odd, "line: " + longLine, "end"));
}

TEST(ReadParts, TakesForContentWhatIsNearlyAMarker) {
    std::vector<std::string> const lines{
        "__ZKOPC_PACKAGE_BEGIN__ V3508k", "__ZKOPC_PACKAGE_BEGIN__",  "__ZKOPC_PACKAGE_END__ ",
        "__ZKOPC_PACKAGE_END__x",         " __ZKOPC_PACKAGE_END__",   "__zkopc_package_end__",
        "__ZKOPC_PACKAGE_END_",           " __ZKOPC_PART_BEGIN__ /b", "x__ZKOPC_PART_BEGIN__ /b",
        "__zkopc_part_begin__ /b",        "__ZKOPC_PART_BEGIN_"};

    for (auto const& line : lines) {
        SCOPED_TRACE(line);

        auto const calls = callsOfParts("__ZKOPC_PART_BEGIN__ /a\n" + line + "\n__ZKOPC_PACKAGE_END__\n");

        EXPECT_THAT(calls, ElementsAre("begin: /a", "line: " + line, "end"));
    }
}

// --- readParts: the part-begin line

TEST(ReadParts, TakesNameAndFlagFromThePartBeginLine) {
    struct Case {
        std::string afterTheMarker;
        std::u16string name;
        bool isBase64;
    };
    std::vector<Case> const cases{
        {" /a", u"/a", false},
        {" /a\r", u"/a", false},
        {"\t/a", u"/a", false},
        {"x/a", u"/a", false},
        {"/a", u"a", false},
        {" a", u"a", false},
        {" /a BASE64", u"/a", true},
        {"\t/a BASE64", u"/a", true},
        {" /a BASE64\r", u"/a", true},
        {" /a BASE64\r\r", u"/a", false},
        {" /a BASE64 ", u"/a", false},
        {" /a  BASE64", u"/a", false},
        {" /a base64", u"/a", false},
        {" /a Base64", u"/a", false},
        {" /a BASE6", u"/a", false},
        {" /a BASE641", u"/a", false},
        {" /a BASE64 BASE64", u"/a", false},
        {" /a b BASE64", u"/a", false},
        {" /a ", u"/a", false},
        {" /a\tBASE64", u"/a\tBASE64", false},
        {" /aBASE64", u"/aBASE64", false},
        {" ", u"", false},
        {"x", u"", false},
        {"  /a", u"", false},
        {"  BASE64", u"", true},
        {" BASE64", u"BASE64", false},
        {" /Grüße/日本.xml", u"/Grüße/日本.xml", false},
        {" /🎨 BASE64", u"/🎨", true},
        {" /%20;#?[trash]", u"/%20;#?[trash]", false},
    };

    for (auto const& c : cases) {
        SCOPED_TRACE(c.afterTheMarker);

        auto const begins = Scan("__ZKOPC_PART_BEGIN__" + c.afterTheMarker + "\n").passParts().begins;

        ASSERT_THAT(begins, SizeIs(1));
        EXPECT_EQ(begins[0].name, c.name);
        EXPECT_EQ(begins[0].isBase64, c.isBase64);
    }
}

TEST(ReadParts, RefusesANameInIllFormedUtf8WithoutReportingThePart) {
    Scan scan("__ZKOPC_PART_BEGIN__ /a\n__ZKOPC_PART_BEGIN__ /\xC3(\n");

    EXPECT_THAT([&] { scan.passParts(); }, ThrowsMessage<opc::Exception>(StartsWith("Ill-formed UTF-8 at byte 1")));

    EXPECT_THAT(scan.calls, ElementsAre("begin: /a", "end"));
}

TEST(ReadParts, FailsOutOfRangeForAPartBeginLineThatIsOnlyTheMarker) {
    for (auto const* const line : {"__ZKOPC_PART_BEGIN__\n", "__ZKOPC_PART_BEGIN__\r\n", "__ZKOPC_PART_BEGIN__"}) {
        SCOPED_TRACE(line);
        Scan first(line);
        Scan later(std::string("__ZKOPC_PART_BEGIN__ /a\n") + line);

        EXPECT_THROW(first.passParts(), std::out_of_range);
        EXPECT_THROW(later.passParts(), std::out_of_range);

        EXPECT_THAT(first.calls, IsEmpty());
        EXPECT_THAT(later.calls, ElementsAre("begin: /a", "end"));
    }
}

TEST(ReadParts, FailsForALineBeforeTheFirstPartThatIsNotEmpty) {
    for (auto const* const line :
         {"text\n", "text", " \n", "\t\n", "\r\r\n", "__ZKOPC_PACKAGE_BEGIN__ V3508k\n", "__ZKOPC_PACKAGE_END__ \n",
          "__ZKOPC_PACKAGE_END__x\n", "__ZKOPC_PART_BEGIN_\n", "__zkopc_part_begin__ /a\n"}) {
        SCOPED_TRACE(line);
        auto const text = std::string("\n") + line + "__ZKOPC_PART_BEGIN__ /a\n__ZKOPC_PACKAGE_END__\n";
        Scan scan(text);

        EXPECT_THAT([&] { scan.passParts(); }, throwsPackageError("Didn't find ZKOPC_PART_BEGIN marker"));

        EXPECT_THAT(scan.calls, IsEmpty());
        EXPECT_EQ(codeThrownBy([&] { callsOfParts(text); }), boost::system::error_code());
    }
}

// --- readParts: where it ends

TEST(ReadParts, EndsAtThePackageEndLineAndReadsNothingAfterIt) {
    for (auto const* const endLine : {"__ZKOPC_PACKAGE_END__\n", "__ZKOPC_PACKAGE_END__\r\n"}) {
        SCOPED_TRACE(endLine);
        std::string const after = "not looked at\n__ZKOPC_PART_BEGIN__\n";
        Scan scan(std::string("__ZKOPC_PART_BEGIN__ /a\none\n") + endLine + after);

        scan.passParts();

        EXPECT_THAT(scan.calls, ElementsAre("begin: /a", "line: one", "end"));
        EXPECT_EQ(scan.rest(), after);
    }
}

TEST(ReadParts, TakesAPackageEndLineWithoutALineBreak) {
    EXPECT_THAT(callsOfParts("__ZKOPC_PART_BEGIN__ /a\none\n__ZKOPC_PACKAGE_END__"),
                ElementsAre("begin: /a", "line: one", "end"));
    EXPECT_THAT(callsOfParts("__ZKOPC_PART_BEGIN__ /a\none\n__ZKOPC_PACKAGE_END__\r"),
                ElementsAre("begin: /a", "line: one", "end"));
}

TEST(ReadParts, ReportsOneEndForAPackageWithoutParts) {
    EXPECT_THAT(callsOfParts("__ZKOPC_PACKAGE_END__\n"), ElementsAre("end"));
    EXPECT_THAT(callsOfParts("\n\n__ZKOPC_PACKAGE_END__\n"), ElementsAre("end"));
}

TEST(ReadParts, ReportsNoEndForTheLastPartOfAFileWithoutPackageEndLine) {
    EXPECT_THAT(callsOfParts("__ZKOPC_PART_BEGIN__ /a\none\n__ZKOPC_PART_BEGIN__ /b\ntwo\n"),
                ElementsAre("begin: /a", "line: one", "end", "begin: /b", "line: two"));
    EXPECT_THAT(callsOfParts("__ZKOPC_PART_BEGIN__ /a\ncut of"), ElementsAre("begin: /a", "line: cut of"));
    EXPECT_THAT(callsOfParts("__ZKOPC_PART_BEGIN__ /a"), ElementsAre("begin: /a"));
}

TEST(ReadParts, ReportsNothingForEmptyInput) {
    EXPECT_THAT(callsOfParts(""), IsEmpty());
    EXPECT_THAT(callsOfParts("\n\n"), IsEmpty());
}

TEST(ReadParts, StopsAtAPartBeginLineWhenTheEndOfThePartBeforeAnswersFalse) {
    Scan scan("__ZKOPC_PART_BEGIN__ /a\none\n__ZKOPC_PART_BEGIN__ /b\ntwo\n__ZKOPC_PACKAGE_END__\n");
    scan.partsWanted = 1;

    scan.passParts();

    EXPECT_THAT(scan.calls, ElementsAre("begin: /a", "line: one", "end"));
    EXPECT_EQ(scan.rest(), "two\n__ZKOPC_PACKAGE_END__\n");
}

TEST(ReadParts, LooksNoFurtherIntoThePartBeginLineAtWhichItStops) {
    for (auto const* const line : {"__ZKOPC_PART_BEGIN__\n", "__ZKOPC_PART_BEGIN__ /\xFF\n"}) {
        SCOPED_TRACE(line);
        Scan scan(std::string("__ZKOPC_PART_BEGIN__ /a\n") + line + "rest\n");
        scan.partsWanted = 1;

        scan.passParts();

        EXPECT_THAT(scan.calls, ElementsAre("begin: /a", "end"));
        EXPECT_EQ(scan.rest(), "rest\n");
    }
}

TEST(ReadParts, KeepsNothingFromOneCallForTheNext) {
    EXPECT_THROW(callsOfParts("__ZKOPC_PART_BEGIN__ /a\n__ZKOPC_PART_BEGIN__\n"), std::out_of_range);

    EXPECT_THAT([] { callsOfParts("line\n"); }, throwsPackageError("Didn't find ZKOPC_PART_BEGIN marker"));
    EXPECT_THAT(callsOfParts("__ZKOPC_PART_BEGIN__ /a\n"), ElementsAre("begin: /a"));
}

// --- the stream's position

TEST(ScannerPosition, IsRightAfterTheLineThatWasTakenAtEachCall) {
    std::string const file = "header\n"                         // line 1
                             "\n"                               // 2
                             "__ZKOPC_PACKAGE_BEGIN__ V3508k\n" // 3
                             "\n"                               // 4
                             "__ZKOPC_PART_BEGIN__ /a\n"        // 5
                             "one\n"                            // 6
                             "\n"                               // 7
                             "__ZKOPC_PART_BEGIN__ /b BASE64\n" // 8
                             "__ZKOPC_PART_BEGIN__ /Grüße\n"    // 9
                             "zwölf\n"                          // 10
                             "__ZKOPC_PACKAGE_END__\n"          // 11
                             "not looked at\n";
    std::vector<std::pair<std::string, int>> const callsAndLines{
        {"header: header", 1},     {"header: ", 2}, {"begin: /a", 5},
        {"line: one", 6},          {"line: ", 7},   {"end", 8},
        {"begin: /b (Base64)", 8}, {"end", 9},      {"begin: /Grüße", 9},
        {"line: zwölf", 10},       {"end", 11}};

    for (auto const& text : {file, withCrLf(file)}) {
        SCOPED_TRACE(text);
        Scan scan(text);

        scan.passHeader().passParts();

        ASSERT_THAT(scan.positions, SizeIs(callsAndLines.size()));
        for (std::size_t i = 0; i < callsAndLines.size(); ++i) {
            auto const& [call, line] = callsAndLines[i];
            EXPECT_THAT(scan.calls[i], StartsWith(call)); // a header line keeps its CR
            EXPECT_EQ(scan.positions[i], offsetAfterLine(text, line)) << call;
        }
        EXPECT_EQ(scan.stream.tellg(), offsetAfterLine(text, 11));
    }
}

TEST(ScannerPosition, IsRightAfterThePackageBeginLineBetweenTheStages) {
    Scan scan("header\n__ZKOPC_PACKAGE_BEGIN__ V3508k\nnext\n");

    scan.passHeader();

    EXPECT_EQ(scan.stream.tellg(), 38);
}

// --- the stream's blocks and state

auto const noEnd = "__ZKOPC_PART_BEGIN__ /a\none\n\n__ZKOPC_PART_BEGIN__ /b\n__ZKOPC_PA\nlast";

/// The content lines that come out of a stream.
std::vector<std::string> linesOf(std::istream& stream) {
    std::vector<std::string> lines;
    readParts(
        stream, [](PartBegin const&) {}, [] { return true; }, [&](std::string const& line) { lines.push_back(line); });
    return lines;
}

TEST(ScannerStream, MayComeInBlocksOfAnySize) {
    for (std::size_t blockBytes = 0; blockBytes < 40; ++blockBytes) {
        SCOPED_TRACE(blockBytes);
        BlockwiseStream stream(noEnd, blockBytes);

        EXPECT_THAT(linesOf(stream), ElementsAre("one", "", "__ZKOPC_PA", "last"));
    }
}

TEST(ScannerStream, IsLeftAtItsEndLikeOneThatWasReadToItsLastLine) {
    for (std::string const text : {noEnd, "__ZKOPC_PART_BEGIN__ /a\nlast\n", ""}) {
        SCOPED_TRACE(text);
        std::istringstream stream(text);

        linesOf(stream);

        EXPECT_TRUE(stream.eof());
        EXPECT_TRUE(stream.fail());
        EXPECT_FALSE(stream.bad());
    }
}

TEST(ScannerStream, IsGoodAfterThePackageEndLineUnlessThatHasNoLineBreak) {
    std::istringstream whole("__ZKOPC_PACKAGE_END__\n");
    std::istringstream withoutLineBreak("__ZKOPC_PACKAGE_END__");

    linesOf(whole);
    linesOf(withoutLineBreak);

    EXPECT_TRUE(whole.good());
    EXPECT_TRUE(withoutLineBreak.eof());
    EXPECT_FALSE(withoutLineBreak.fail());
}

TEST(ScannerStream, GivesNoLineOnceItHasFailed) {
    std::istringstream stream(noEnd);
    stream.setstate(std::ios_base::failbit);

    EXPECT_THAT(linesOf(stream), IsEmpty());
    EXPECT_FALSE(stream.eof());
}

TEST(ScannerStream, ThrowsAtItsEndWhereItsOwnerWantsThat) {
    std::istringstream stream(noEnd);
    stream.exceptions(std::ios_base::failbit);

    EXPECT_THROW(linesOf(stream), std::ios_base::failure);
}

/// A buffer that holds a few lines and then fails.
class FailingBuffer : public std::stringbuf {
public:
    FailingBuffer() : std::stringbuf("__ZKOPC_PART_BEGIN__ /a\none\ntw") {}

protected:
    int_type underflow() override { throw std::runtime_error("the disk is broken"); }
};

TEST(ScannerStream, PassesOnTheExceptionOfItsBufferWhereItsOwnerWantsThat) {
    FailingBuffer buffer;
    std::istream stream(&buffer);
    stream.exceptions(std::ios_base::badbit);

    EXPECT_THAT([&] { linesOf(stream); }, ThrowsMessage<std::runtime_error>(StrEq("the disk is broken")));
    EXPECT_TRUE(stream.bad());
}

TEST(ScannerStream, EndsAtTheExceptionOfItsBufferWhereItsOwnerAsksForNone) {
    FailingBuffer buffer;
    std::istream stream(&buffer);

    EXPECT_THAT(linesOf(stream), ElementsAre("one"));
    EXPECT_TRUE(stream.bad());
    EXPECT_FALSE(stream.eof());
}

TEST(ScannerStream, FlushesTheStreamThatIsTiedToIt) {
    std::istringstream stream(noEnd);
    struct Flushed : std::stringbuf {
        int sync() override { return ++flushes, 0; }
        int flushes = 0;
    } buffer;
    std::ostream tied(&buffer);
    stream.tie(&tied);

    linesOf(stream);

    EXPECT_GT(buffer.flushes, 0);
}

// --- callbacks

auto const ignorePartBegin = [](PartBegin const&) {};
auto const goOn = [] { return true; };
auto const ignoreLine = [](std::string const&) {};

TEST(ReadPartsCallbacks, AreNeededOnlyWhenTheirCallComes) {
    struct Case {
        std::string text;
        bool needsPartBegin;
        bool needsPartEnd;
        bool needsContentLine;
    };
    std::vector<Case> const cases{
        {"", false, false, false},
        {"\n\n", false, false, false},
        {"__ZKOPC_PACKAGE_END__\n", false, true, false},
        {"__ZKOPC_PART_BEGIN__ /a\n", true, false, false},
        {"__ZKOPC_PART_BEGIN__ /a\nline\n", true, false, true},
        {"__ZKOPC_PART_BEGIN__ /a\n\n", true, false, true},
        {"__ZKOPC_PART_BEGIN__ /a\n__ZKOPC_PART_BEGIN__ /b\n", true, true, false},
        {"__ZKOPC_PART_BEGIN__ /a\nline\n__ZKOPC_PACKAGE_END__\n", true, true, true},
    };
    auto const expectNeeded = [](bool isNeeded, std::function<void()> const& scan) {
        if (isNeeded) {
            EXPECT_THROW(scan(), std::bad_function_call);
        } else {
            EXPECT_NO_THROW(scan());
        }
    };

    for (auto const& c : cases) {
        SCOPED_TRACE(c.text);
        std::istringstream withoutPartBegin(c.text);
        std::istringstream withoutPartEnd(c.text);
        std::istringstream withoutContentLine(c.text);

        expectNeeded(c.needsPartBegin, [&] { readParts(withoutPartBegin, nullptr, goOn, ignoreLine); });
        expectNeeded(c.needsPartEnd, [&] { readParts(withoutPartEnd, ignorePartBegin, nullptr, ignoreLine); });
        expectNeeded(c.needsContentLine, [&] { readParts(withoutContentLine, ignorePartBegin, goOn, nullptr); });
    }
}

TEST(ReadPartsCallbacks, MayThrowWhateverTheyLike) {
    std::string const text = "__ZKOPC_PART_BEGIN__ /a\nline\n__ZKOPC_PART_BEGIN__ /b\n__ZKOPC_PACKAGE_END__\n";
    std::istringstream first(text);
    std::istringstream second(text);
    std::istringstream third(text);
    std::istringstream fourth("__ZKOPC_PACKAGE_END__\n");
    auto const failAtEnd = []() -> bool { throw CallbackFailure("at the end"); };

    EXPECT_THAT(
        [&] {
            readParts(
                first, [](PartBegin const&) { throw CallbackFailure("at begin"); }, goOn, ignoreLine);
        },
        ThrowsMessage<CallbackFailure>(StrEq("at begin")));
    EXPECT_THAT([&] { readParts(second, ignorePartBegin, failAtEnd, ignoreLine); },
                ThrowsMessage<CallbackFailure>(StrEq("at the end")));
    EXPECT_THAT(
        [&] { readParts(third, ignorePartBegin, goOn, [](std::string const&) { throw CallbackFailure("a line"); }); },
        ThrowsMessage<CallbackFailure>(StrEq("a line")));
    EXPECT_THAT([&] { readParts(fourth, ignorePartBegin, failAtEnd, ignoreLine); },
                ThrowsMessage<CallbackFailure>(StrEq("at the end")));
}

TEST(ReadPartsCallbacks, AreAskedForTheEndAtThePackageEndLineButNotObeyed) {
    std::istringstream stream("__ZKOPC_PART_BEGIN__ /a\n__ZKOPC_PACKAGE_END__\nrest\n");
    int ends = 0;

    readParts(
        stream, ignorePartBegin,
        [&] {
            ++ends;
            return false;
        },
        ignoreLine);

    EXPECT_EQ(ends, 1);
    EXPECT_EQ(stream.tellg(), 46);
}

} // namespace
