#include <textpackage/TextFilePhysicalPackage.hpp>

#include <cstddef>
#include <map>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <sys/mman.h>

#include <gmock/gmock.h>

#include <opccore/Exception.hpp>
#include <tests/support/PackageFixture.hpp>
#include <textpackage/TextFileBuffer.hpp>

using opc::interfaces::OpenMode;
using opc::textpackage::FilePart;
using opc::textpackage::FilePartMode;
using opc::textpackage::TextFilePhysicalPackage;
using ::testing::ElementsAre;
using testsupport::contentOf;
using testsupport::namesIn;
using testsupport::openingParts;
using testsupport::packageText;
using testsupport::partOf;
using testsupport::readAll;
using testsupport::throwsPackageError;
using testsupport::toUtf8;
using testsupport::withCrLf;

namespace {

char const ContentTypesMissing[] = "Content types stream does not exist";

std::string const Begin = "__ZKOPC_PACKAGE_BEGIN__ V3508k\n";
std::string const ContentTypes = "__ZKOPC_PART_BEGIN__ /[Content_Types].xml\n<Types/>\n";
std::string const End = "__ZKOPC_PACKAGE_END__\n";

class PackageReadParts : public testsupport::PackageFixture {
protected:
    std::u16string path = folder.corePath("package.txt");
};

/// Name, whether it is stored as Base64, and the stored content.
using StoredPart = std::tuple<std::string, bool, std::string>;

StoredPart storedPart(FilePart& part) {
    std::ostringstream content;
    part.writeToStream(content, false);
    return {toUtf8(part.getName()), part.getMode() == FilePartMode::BufferBase64, content.str()};
}

/// The listed parts, in the order of the list.
std::vector<StoredPart> storedPartsIn(TextFilePhysicalPackage& package) {
    std::vector<StoredPart> parts;
    for (auto* const part : package.getParts())
        parts.push_back(storedPart(dynamic_cast<FilePart&>(*part)));
    return parts;
}

} // namespace

TEST_F(PackageReadParts, ReadAWholeFile) {
    TextFilePhysicalPackage package(writeText("Generated file; do not edit.\n"
                                              "Second header line\n"
                                              "__ZKOPC_PACKAGE_BEGIN__ V3508k\n"
                                              "__ZKOPC_PART_BEGIN__ /[Content_Types].xml\n"
                                              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                                              "<Types/>\n"
                                              "__ZKOPC_PART_BEGIN__ /_rels/.rels\n"
                                              "<Relationships/>\n"
                                              "__ZKOPC_PART_BEGIN__ /data/blob.bin BASE64\n"
                                              "AAECAwQ=\n"
                                              "__ZKOPC_PACKAGE_END__\n"));

    package.open(OpenMode::Read);

    EXPECT_EQ(readAll(*package.getContentTypeInputStream()), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Types/>");
    EXPECT_THAT(namesIn(package), ElementsAre("/_rels/.rels", "/data/blob.bin"));
    EXPECT_EQ(contentOf(package, u"/_rels/.rels"), "<Relationships/>");
    EXPECT_EQ(contentOf(package, u"/data/blob.bin"), std::string("\0\1\2\3\4", 5));
}

TEST_F(PackageReadParts, TakeTheContentUpToItsLastLineBreak) {
    struct Case {
        std::string afterBeginLine;
        std::string content;
    };
    for (auto const& [afterBeginLine, content] : {
             Case{"\n", ""},
             Case{"\n\n", ""},
             Case{"\n\n\n", "\n"},
             Case{"\ntext\n", "text"},
             Case{"\none\ntwo\n", "one\ntwo"},
             Case{"\ntext\n\n", "text\n"},
             Case{"\n\ntext\n", "\ntext"},
             Case{"\n text \n", " text "},
             Case{"\r\n", ""}, // never a slice that ends before it begins
             Case{"\r\n\r\n", ""},
             Case{"\r\n\r\n\r\n", "\r\n"},
             Case{"\r\ntext\r\n", "text"},
             Case{"\r\none\r\ntwo\r\n", "one\r\ntwo"},
             Case{"\r\ntext\n", "text"},
             Case{"\r\n\n", ""},
             Case{"\n\r\n", ""},
             Case{"\ntext\r\n", "text"},
             Case{"\ntext\r\r\n", "text\r"},
             Case{"\none\r\ntwo\n", "one\r\ntwo"},
             Case{"\none\rtwo\n", "one\rtwo"},
             Case{std::string("\na\0b\xFF\n", 6), std::string("a\0b\xFF", 4)},
             Case{"\n __ZKOPC_PART_BEGIN__ /b\n", " __ZKOPC_PART_BEGIN__ /b"},
             Case{"\n__ZKOPC_PACKAGE_END__ \n", "__ZKOPC_PACKAGE_END__ "},
             Case{"\n__ZKOPC_PACKAGE_END_\n", "__ZKOPC_PACKAGE_END_"},
             Case{"\nx__ZKOPC_PACKAGE_END__\n", "x__ZKOPC_PACKAGE_END__"},
             Case{"\n__ZKOPC_PACKAGE_BEGIN__ V3508k\n", "__ZKOPC_PACKAGE_BEGIN__ V3508k"},
             Case{"\n__ZKOPC_PART_BEGIN_\n", "__ZKOPC_PART_BEGIN_"},
         }) {
        for (std::string const end : {"__ZKOPC_PACKAGE_END__\n", "__ZKOPC_PACKAGE_END__", "__ZKOPC_PACKAGE_END__\r\n",
                                      "__ZKOPC_PACKAGE_END__\r", "__ZKOPC_PART_BEGIN__ /last"}) {
            SCOPED_TRACE(::testing::PrintToString(afterBeginLine + end));
            TextFilePhysicalPackage package(
                writeText(Begin + ContentTypes + "__ZKOPC_PART_BEGIN__ /a" + afterBeginLine + end));

            package.open(OpenMode::Read);

            EXPECT_THAT(storedPartsIn(package), ElementsAre(StoredPart("/a", false, content)));
            EXPECT_EQ(contentOf(package, u"/a"), content);
        }
    }
}

TEST_F(PackageReadParts, TakeNameAndFlagFromThePartBeginLine) {
    struct Case {
        std::string line;
        std::string name;
        bool isBinary;
    };
    for (auto const& [line, name, isBinary] : {
             Case{"__ZKOPC_PART_BEGIN__ /a", "/a", false},
             Case{"__ZKOPC_PART_BEGIN__ /a BASE64", "/a", true},
             Case{"__ZKOPC_PART_BEGIN__ /a BASE64\r", "/a", true},
             Case{"__ZKOPC_PART_BEGIN__\t/a BASE64", "/a", true},
             Case{"__ZKOPC_PART_BEGIN__x/a", "/a", false},
             Case{"__ZKOPC_PART_BEGIN__ /a base64", "/a", false},
             Case{"__ZKOPC_PART_BEGIN__ /a BASE64 ", "/a", false},
             Case{"__ZKOPC_PART_BEGIN__ /a  BASE64", "/a", false},
             Case{"__ZKOPC_PART_BEGIN__ /a BASE65", "/a", false},
             Case{"__ZKOPC_PART_BEGIN__ /a ", "/a", false},
             Case{"__ZKOPC_PART_BEGIN__ ", "", false},
             Case{"__ZKOPC_PART_BEGIN__  BASE64", "", true},
             Case{"__ZKOPC_PART_BEGIN__ a", "a", false},
             Case{"__ZKOPC_PART_BEGIN__ /\xC3\xA4\xF0\x9F\x98\x80", "/\xC3\xA4\xF0\x9F\x98\x80", false},
         }) {
        TextFilePhysicalPackage package(writeText(Begin + ContentTypes + line + "\nAAEC\n" + End));

        package.open(OpenMode::Read);

        EXPECT_THAT(storedPartsIn(package), ElementsAre(StoredPart(name, isBinary, "AAEC"))) << line;
    }
}

TEST_F(PackageReadParts, KeepCarriageReturnsInsideThePartsOfAFileWithCrLf) {
    auto const text = packageText(openingParts({{"/b.txt", "one\ntwo"}, {"/c.bin", "AAEC\nAwQ=", true}}));
    TextFilePhysicalPackage package(writeText(withCrLf(text)));

    package.open(OpenMode::Read);

    EXPECT_EQ(readAll(*package.getContentTypeInputStream()), "<Types/>");
    EXPECT_EQ(contentOf(package, u"/b.txt"), "one\r\ntwo");
    EXPECT_EQ(contentOf(package, u"/c.bin"), std::string("\0\1\2\3\4", 5));
}

TEST_F(PackageReadParts, DropAPartThatIsNeverEnded) {
    TextFilePhysicalPackage package(writeText(Begin + ContentTypes +
                                              "__ZKOPC_PART_BEGIN__ /a\na\n"
                                              "__ZKOPC_PART_BEGIN__ /lost\nlost\n"));

    package.open(OpenMode::Read);

    EXPECT_THAT(namesIn(package), ElementsAre("/a"));
}

TEST_F(PackageReadParts, DoNotReadBehindThePackageEndLine) {
    TextFilePhysicalPackage package(
        writeText(packageText(openingParts()) + "stray\n__ZKOPC_PART_BEGIN__\n__ZKOPC_PART_BEGIN__ /b\n" + End));

    package.open(OpenMode::Read);

    EXPECT_THAT(namesIn(package), ElementsAre("/_rels/.rels", "/a.xml"));
}

TEST_F(PackageReadParts, SkipEmptyLinesBeforeTheFirstPart) {
    TextFilePhysicalPackage package(writeText(Begin + "\n\r\n\n" + ContentTypes + End));

    package.open(OpenMode::Read);

    EXPECT_EQ(readAll(*package.getContentTypeInputStream()), "<Types/>");
}

TEST_F(PackageReadParts, DropPartsWhoseNamesBeginWithTrash) {
    TextFilePhysicalPackage package(writePackage({{"/[trash]", "x"},
                                                  {"/[trash]/0000.dat", "x"},
                                                  {"/[trash]less", "x"},
                                                  {"/b/[trash]/kept", "x"},
                                                  {"/[Trash]/kept", "x"},
                                                  {"[trash]/kept", "x"}}));

    package.open(OpenMode::Read);

    EXPECT_THAT(namesIn(package),
                ElementsAre("/[Trash]/kept", "/_rels/.rels", "/a.xml", "/b/[trash]/kept", "[trash]/kept"));
}

TEST_F(PackageReadParts, TakeTheLastOfSeveralPartsOfOneName) {
    TextFilePhysicalPackage package(writePackage({{"/b", "first"}, {"/b", "AAEC", true}, {"/b", "last"}}));

    package.open(OpenMode::Read);

    EXPECT_THAT(namesIn(package), ElementsAre("/_rels/.rels", "/a.xml", "/b"));
    EXPECT_EQ(contentOf(package, u"/b"), "last");
    EXPECT_FALSE(partOf(package, u"/b").isBinary());
}

TEST_F(PackageReadParts, TellNamesApartThatDifferInCase) {
    TextFilePhysicalPackage package(writePackage({{"/A.XML", "other"}, {"/[content_types].XML", "other"}}));

    package.open(OpenMode::Read);

    EXPECT_THAT(namesIn(package), ElementsAre("/A.XML", "/[content_types].XML", "/_rels/.rels", "/a.xml"));
}

TEST_F(PackageReadParts, ReadABase64ContentTypesPart) {
    TextFilePhysicalPackage package(writeText(packageText({{"/[Content_Types].xml", "PFR5cGVzLz4=", true}})));

    package.open(OpenMode::Read);

    EXPECT_EQ(readAll(*package.getContentTypeInputStream()), "<Types/>");
}

TEST_F(PackageReadParts, AddPartsFromAnyStreamToAPackageThatIsNotOpen) {
    TextFilePhysicalPackage package(path);
    std::istringstream stream(ContentTypes + "__ZKOPC_PART_BEGIN__ /a BASE64\nAAEC\n__ZKOPC_PART_BEGIN__ /b\n\n" + End);

    package.readParts(stream);

    EXPECT_THAT(namesIn(package), ElementsAre("/a", "/b"));
    EXPECT_TRUE(partOf(package, u"/a").isBinary());
    EXPECT_FALSE(partOf(package, u"/b").isBinary());
    EXPECT_FALSE(package.isOpen());
    EXPECT_THAT([&] { partOf(package, u"/b").getInputStream(); },
                throwsPackageError("Package is not open for reading", {}));
}

TEST_F(PackageReadParts, CountOffsetsFromTheStartOfAStreamThatStandsAnywhere) {
    auto const text = packageText(openingParts({{"/b", "one\ntwo"}}), "header");
    TextFilePhysicalPackage package(writeText(text));
    package.open(OpenMode::Read);
    auto const before = storedPartsIn(package);
    std::istringstream stream(text);
    stream.seekg(testsupport::offsetAfterLine(text, 2));

    package.readParts(stream);

    EXPECT_EQ(storedPartsIn(package), before);
}

TEST_F(PackageReadParts, AddNothingFromAStreamThatIsNotGood) {
    for (auto const state : {std::ios_base::failbit, std::ios_base::badbit, std::ios_base::eofbit}) {
        TextFilePhysicalPackage package(path);
        std::istringstream stream(ContentTypes + End);
        stream.setstate(state);

        package.readParts(stream);

        EXPECT_THAT([&] { package.getParts(); }, throwsPackageError(ContentTypesMissing, {}));
    }
}

TEST_F(PackageReadParts, AddNothingFromAnEmptyStreamOrOneThatEndsAtOnce) {
    for (std::string const text : {"", "\n", "__ZKOPC_PACKAGE_END__\n", "__ZKOPC_PACKAGE_END__"}) {
        TextFilePhysicalPackage package(path);
        std::istringstream stream(text);

        package.readParts(stream);

        EXPECT_THAT([&] { package.getParts(); }, throwsPackageError(ContentTypesMissing, {}));
    }
}

TEST_F(PackageReadParts, KeepADisplacedPartUsableUntilThePackageIsClosed) {
    auto const text = packageText(openingParts({{"/b.bin", "AAECAwQ=", true}}));
    TextFilePhysicalPackage package(writeText(text));
    package.open(OpenMode::Read);
    auto& displaced = partOf(package, u"/a.xml");
    auto& displacedBinary = partOf(package, u"/b.bin");
    std::istringstream stream(text);
    stream.seekg(testsupport::offsetAfterLine(text, 1));

    package.readParts(stream);

    EXPECT_NE(&partOf(package, u"/a.xml"), &displaced);
    EXPECT_EQ(displaced.getName(), u"/a.xml");
    EXPECT_EQ(readAll(*displaced.getInputStream()), "<a/>");
    EXPECT_EQ(readAll(*displacedBinary.getInputStream()), std::string("\0\1\2\3\4", 5));
}

TEST_F(PackageReadParts, FindAllOf20000Parts) {
    std::vector<testsupport::PartText> many;
    for (int i = 0; i < 20'000; ++i)
        many.push_back({"/folder" + std::to_string(i % 100) + "/part" + std::to_string(i), std::to_string(i)});
    TextFilePhysicalPackage package(writePackage(many));

    package.open(OpenMode::Read);

    std::map<std::string, std::string> expected{{"/_rels/.rels", "<Relationships/>"}, {"/a.xml", "<a/>"}};
    for (auto const& part : many)
        expected[part.name] = part.content;
    std::map<std::string, std::string> found;
    for (auto* const part : package.getParts())
        found[toUtf8(part->getName())] = readAll(*part->getInputStream());
    EXPECT_EQ(found, expected);
}

TEST_F(PackageReadParts, FindAPartAtAnyDistanceFromTheOneBefore) {
    std::vector<testsupport::PartText> parts;
    std::map<std::string, std::string> expected{{"/_rels/.rels", "<Relationships/>"}, {"/a.xml", "<a/>"}};
    for (std::size_t size = 0; size < 4200; ++size) {
        std::string content(size, 'x');
        for (auto const& lineBreak : {"\n_", "\n__ZKOPC_P"}) { // not all of a marker's beginning
            if (content.size() > 100)
                content.replace(content.size() / 2, std::string(lineBreak).size(), lineBreak);
        }
        expected["/" + std::to_string(size)] = content;
        parts.push_back({"/" + std::to_string(size), content});
    }
    TextFilePhysicalPackage package(writePackage(parts));

    package.open(OpenMode::Read);

    std::map<std::string, std::string> found;
    for (auto* const part : package.getParts())
        found[toUtf8(part->getName())] = readAll(*part->getInputStream());
    EXPECT_EQ(found, expected);
}

TEST_F(PackageReadParts, LookAtNothingBehindTheEndOfTheFile) {
    constexpr std::size_t PageBytes = 4096;
    constexpr std::size_t FileBytes = 2048 * PageBytes; // more than what is free between the libraries in memory
    constexpr std::size_t NoAccessBytes = std::size_t{1} << 30;
    // The system maps downwards: the file's last page comes to stand right before these, which nobody may read.
    auto* const noAccess =
        ::mmap(nullptr, NoAccessBytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(noAccess, MAP_FAILED);
    // How much of the file stands above the content of the last part.
    for (std::size_t const contentBegin : {PageBytes - 1, PageBytes, PageBytes + 1, FileBytes - 100}) {
        auto const above = Begin + ContentTypes;
        std::string const lastBeginLine = "__ZKOPC_PART_BEGIN__ /a.xml\n";
        std::string const padding(contentBegin - above.size() - lastBeginLine.size() - 2, 'x');
        auto text = above + padding + "\n\n" + lastBeginLine;
        text.resize(FileBytes, 'x');
        TextFilePhysicalPackage package(writeText(text));

        package.open(OpenMode::Read);

        EXPECT_THAT(namesIn(package), ElementsAre()); // the part is never ended
    }
    EXPECT_EQ(::munmap(noAccess, NoAccessBytes), 0);
}

// A second reading of the format, plain and slow, against which the package is held

namespace {

struct Reading {
    std::string failure;
    std::map<std::string, StoredPart> parts; // those read before the failure too
};

/// Reads lines one by one, beginning behind the package-begin line, and keeps what a package should keep.
class PlainReader {
public:
    explicit PlainReader(std::string text) : text_(std::move(text)), stream_(text_) {}

    Reading read() {
        while (nextLine() && takeLine()) {
        }
        return reading_;
    }

private:
    bool nextLine() {
        if (!std::getline(stream_, line_))
            return false;
        position_ += line_.size() + (stream_.eof() ? 0 : 1);
        return true;
    }

    bool takeLine() {
        if (!line_.empty() && line_.back() == '\r')
            line_.pop_back();
        if (line_ == "__ZKOPC_PACKAGE_END__") {
            endPart();
            return false;
        }
        if (line_.substr(0, 20) == "__ZKOPC_PART_BEGIN__") {
            endPart();
            return beginPart();
        }
        if (!isInPart_ && !line_.empty())
            return fail("Didn't find ZKOPC_PART_BEGIN marker");
        contentEnd_ = position_;
        return true;
    }

    bool beginPart() {
        if (line_.size() == 20)
            return fail("out of range");
        auto const rest = line_.substr(21);
        name_ = rest.substr(0, rest.find(' '));
        isBase64_ = rest.size() > name_.size() && rest.substr(name_.size() + 1) == "BASE64";
        isInPart_ = true;
        contentBegin_ = contentEnd_ = position_;
        return true;
    }

    void endPart() {
        if (!isInPart_ || name_.substr(0, 8) == "/[trash]")
            return;
        auto content = text_.substr(contentBegin_, contentEnd_ - contentBegin_);
        for (char const lineBreak : {'\n', '\r'}) {
            if (!content.empty() && content.back() == lineBreak)
                content.pop_back();
        }
        reading_.parts[name_] = {name_, isBase64_, content};
    }

    bool fail(std::string const& message) {
        reading_.failure = message;
        return false;
    }

    std::string text_;
    std::istringstream stream_;
    std::string line_;
    std::size_t position_ = 0; // behind the line
    bool isInPart_ = false;
    std::string name_;
    bool isBase64_ = false;
    std::size_t contentBegin_ = 0;
    std::size_t contentEnd_ = 0;
    Reading reading_;
};

/// Texts that are made of marker lines and what resembles them. Part names differ from text to text.
class TextGenerator {
public:
    explicit TextGenerator(unsigned seed) : random_(seed) {}

    std::string next() {
        ++count_;
        std::string text = below(5) == 0 ? "" : partBeginLine() + lineBreak();
        for (auto lines = below(12); lines > 0; --lines)
            text += line() + (below(10) == 0 ? "" : lineBreak());
        if (below(3) != 0)
            text += "__ZKOPC_PACKAGE_END__" + (below(3) == 0 ? "" : lineBreak());
        return text;
    }

private:
    std::size_t below(std::size_t count) { return std::uniform_int_distribution<std::size_t>(0, count - 1)(random_); }

    std::string oneOf(std::vector<std::string> const& choices) { return choices[below(choices.size())]; }

    std::string lineBreak() { return oneOf({"\n", "\n", "\n", "\r\n", "\r\n", "\r\r\n", "\n\n"}); }

    std::string partBeginLine() {
        auto const folder = oneOf({" ", " ", " ", "\t"}) + "/" + std::to_string(count_) + "/";
        return "__ZKOPC_PART_BEGIN__" + folder +
               oneOf({"a", "a", "a BASE64", "A", "b base64", "b BASE64 ", "b  BASE64", " BASE64", "", "[trash]"});
    }

    std::string line() {
        if (below(3) == 0)
            return partBeginLine();
        return oneOf({"", "", "", "\r", "text", "a line of text", "x\xC3\xA4", "_", "__ZKOPC_PA", "__ZKOPC_PART_BEGIN_",
                      "__ZKOPC_PART_BEGIN__ ", "__ZKOPC_PART_BEGIN__ /[trash]/x", " __ZKOPC_PART_BEGIN__ /n",
                      "_\n__ZKOPC_PART_BEGIN__ /o", "__ZKOPC_PACKAGE_BEGIN__", "__ZKOPC_PACKAGE_END_",
                      "__ZKOPC_PACKAGE_END__ ", " __ZKOPC_PACKAGE_END__",
                      below(5) == 0 ? "__ZKOPC_PART_BEGIN__" : "__ZKOPC_PACKAGE_END__\r"});
    }

    std::mt19937 random_;
    int count_ = 0;
};

/// Why the package can't read the parts of the stream; empty where it can.
std::string failureToReadParts(TextFilePhysicalPackage& package, std::istream& stream) {
    try {
        package.readParts(stream);
        return "";
    } catch (opc::Exception const& failure) {
        return failure.what();
    } catch (std::out_of_range const&) {
        return "out of range";
    }
}

class PackageReading : public PackageReadParts, public ::testing::WithParamInterface<unsigned> {};

} // namespace

TEST_P(PackageReading, AgreesWithReadingThePlainWay) {
    // One mapped file holds all texts, behind the end of a package, so that the offsets fit.
    std::string file = Begin + ContentTypes + End;
    std::vector<std::size_t> ends{file.size()};
    TextGenerator texts(GetParam());
    for (int i = 0; i < 2000; ++i)
        ends.push_back((file += texts.next()).size());
    TextFilePhysicalPackage package(writeText(file));
    package.open(OpenMode::Read);

    std::map<std::string, StoredPart> expected;
    int failures = 0;
    for (std::size_t i = 1; i < ends.size(); ++i) {
        auto const text = file.substr(ends[i - 1], ends[i] - ends[i - 1]);
        auto const reading = PlainReader(text).read();
        auto const buffer = package.getTextFileBuffer().getStreambuf(0, ends[i]);
        std::istream stream(buffer.get());
        stream.seekg(static_cast<std::streamoff>(ends[i - 1]));

        EXPECT_EQ(failureToReadParts(package, stream), reading.failure) << ::testing::PrintToString(text);

        failures += reading.failure.empty() ? 0 : 1;
        for (auto const& [name, part] : reading.parts)
            expected[name] = part;
    }

    std::map<std::string, StoredPart> found;
    for (auto const& part : storedPartsIn(package))
        found[std::get<0>(part)] = part;
    EXPECT_EQ(found, expected);
    EXPECT_GT(expected.size(), 2000U); // else the texts would prove little
    EXPECT_GT(failures, 200);
    EXPECT_LT(failures, 1000);
}

INSTANTIATE_TEST_SUITE_P(Seeds, PackageReading, ::testing::Range(1U, 11U));
