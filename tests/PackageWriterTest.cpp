#include <filesystem>
#include <fstream>
#include <ios>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include <opccore/Base64.hpp>
#include <opccore/Exception.hpp>
#include <opccore/StringConversion.hpp>
#include <tests/support/Base64Lines.hpp>
#include <tests/support/PackageFixture.hpp>
#include <tests/support/Throws.hpp>
#include <textpackage/FilePart.hpp>
#include <textpackage/FilePartInfo.hpp>
#include <textpackage/TextFilePhysicalPackage.hpp>

namespace fs = std::filesystem;

using opc::interfaces::OpenMode;
using opc::textpackage::FilePart;
using opc::textpackage::FilePartInfo;
using opc::textpackage::FilePartMode;
using opc::textpackage::TextFilePhysicalPackage;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsSupersetOf;
using ::testing::Not;
using ::testing::StartsWith;
using ::testing::StrEq;
using ::testing::ThrowsMessage;
using testsupport::addPart;
using testsupport::base64Lines;
using testsupport::codeThrownBy;
using testsupport::contentOf;
using testsupport::mixedBytes;
using testsupport::openingParts;
using testsupport::packageText;
using testsupport::partOf;
using testsupport::throwsPackageError;
using testsupport::toNativePath;
using testsupport::writeInto;

namespace {

std::string const PartBegin = "__ZKOPC_PART_BEGIN__ ";

std::string headerWrittenBy(TextFilePhysicalPackage const& package) {
    std::ostringstream out;
    package.writeHeaderToStream(out);
    EXPECT_TRUE(out.good());
    return out.str();
}

std::string partsWrittenBy(TextFilePhysicalPackage const& package) {
    std::ostringstream out;
    package.writePartsToStream(out);
    EXPECT_TRUE(out.good());
    return out.str();
}

std::string written(FilePart& part, bool encode) {
    std::ostringstream out;
    part.writeToStream(out, encode);
    EXPECT_TRUE(out.good());
    return out.str();
}

/// What the part-begin lines say, in their order.
std::vector<std::string> beginLinesIn(std::string const& text) {
    std::istringstream lines(text);
    std::vector<std::string> found;
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, PartBegin.size(), PartBegin) == 0)
            found.push_back(line.substr(PartBegin.size()));
    }
    return found;
}

void replaceContent(fs::path const& path, std::string const& content) {
    fs::remove(path); // emptying a file instead may wait for the disk
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    file.close();
    EXPECT_TRUE(file.good());
}

class PackageWriter : public testsupport::PackageFixture {
protected:
    /// The names of new parts, created in this order beside the content types part, in the order of the file.
    std::vector<std::string> orderOf(std::vector<std::u16string> const& names) {
        TextFilePhysicalPackage package(folder.corePath("package.txt"));
        package.open(OpenMode::Create);
        writeInto(*package.getContentTypesPart(), "");
        for (auto const& name : names)
            addPart(package, name, u"text/xml", "");
        return beginLinesIn(partsWrittenBy(package));
    }
};

TEST_F(PackageWriter, WritesTheBeginLineAloneWithoutAHeader) {
    TextFilePhysicalPackage const package(folder.corePath("package.txt"));

    EXPECT_EQ(headerWrittenBy(package), "__ZKOPC_PACKAGE_BEGIN__ V3508k\n");
}

TEST_F(PackageWriter, WritesTheHeaderAsItIsAndOneLineBreakBeforeTheBeginLine) {
    std::vector<std::pair<std::u16string, std::string>> const cases = {
        {u"one line", "one line\n"},
        {u"Generated file; do not edit.\nSecond line", "Generated file; do not edit.\nSecond line\n"},
        {u"ends in LF\n", "ends in LF\n\n"},
        {u"\n", "\n\n"},
        {u"\r\nCR LF\r\n", "\r\nCR LF\r\n\n"},
        {u"Gr\u00FC\u00DFe \u4E2D \U0001D11E", "Gr\xC3\xBC\xC3\x9F"
                                               "e \xE4\xB8\xAD \xF0\x9D\x84\x9E\n"},
        {u"__ZKOPC_PART_BEGIN__ /a", "__ZKOPC_PART_BEGIN__ /a\n"},
    };
    TextFilePhysicalPackage package(folder.corePath("package.txt"));
    for (auto const& [header, expected] : cases) {
        package.setTextFileHeader(header);

        EXPECT_EQ(headerWrittenBy(package), expected + "__ZKOPC_PACKAGE_BEGIN__ V3508k\n");
    }
}

TEST_F(PackageWriter, WritesTheHeaderThatItHasRead) {
    TextFilePhysicalPackage package(writePackage({}, "first\n\nthird\r"));
    package.open(OpenMode::Read);

    EXPECT_EQ(headerWrittenBy(package), "first\n\nthird\r\n__ZKOPC_PACKAGE_BEGIN__ V3508k\n");
}

TEST_F(PackageWriter, WritesAPackageOfAContentTypesPartAlone) {
    TextFilePhysicalPackage package(writeText(packageText({{"/[Content_Types].xml", "<Types/>"}})));
    package.open(OpenMode::Read);

    EXPECT_EQ(headerWrittenBy(package) + partsWrittenBy(package), "__ZKOPC_PACKAGE_BEGIN__ V3508k\n"
                                                                  "__ZKOPC_PART_BEGIN__ /[Content_Types].xml\n"
                                                                  "<Types/>\n"
                                                                  "__ZKOPC_PACKAGE_END__\n");
}

TEST_F(PackageWriter, WritesTheSameBytesEachTimeItIsAsked) {
    TextFilePhysicalPackage package(writePackage({{"/b.bin", "AAECAwQ=", true}}));
    package.open(OpenMode::ReadWrite);
    addPart(package, u"/new.xml", u"text/xml", "new");
    auto const first = partsWrittenBy(package);

    EXPECT_EQ(partsWrittenBy(package), first);
    EXPECT_THAT(first, HasSubstr("__ZKOPC_PART_BEGIN__ /new.xml\nnew\n"));
}

TEST_F(PackageWriter, NeverLooksAtTheStateOfTheStream) {
    TextFilePhysicalPackage package(writePackage());
    package.open(OpenMode::Read);
    std::ostringstream bad;
    bad.setstate(std::ios_base::badbit);

    EXPECT_NO_THROW(package.writeHeaderToStream(bad));
    EXPECT_NO_THROW(package.writePartsToStream(bad));

    EXPECT_EQ(bad.str(), "");
}

TEST_F(PackageWriter, WritesTheReservedPartsFirstAndTheOthersSorted) {
    EXPECT_THAT(orderOf({u"/b", u"/A", u"/metadata/z", u"/Metadata/a", u"/_rels/.rels"}),
                ElementsAre("/[Content_Types].xml", "/_rels/.rels", "/Metadata/a", "/metadata/z", "/A", "/b"));
}

TEST_F(PackageWriter, TakesForMetadataOnlyWhatLiesInThatFolder) {
    EXPECT_THAT(orderOf({u"/metadata", u"/METADATA/x", u"/data/metadata/a", u"/metadata2/a", u"/a", u"/metadat"}),
                ElementsAre("/[Content_Types].xml", "/METADATA/x", "/a", "/data/metadata/a", "/metadat", "/metadata",
                            "/metadata2/a"));
}

TEST_F(PackageWriter, SortsByUtf16UnitsWithoutRegardToTheCaseOfAsciiLetters) {
    EXPECT_THAT(orderOf({u"/\uFF21", u"/\U0001D11E", u"/_", u"/Z", u"/a", u"/B", u"/b1", u"/\u00C4", u"/\u00E4"}),
                ElementsAre("/[Content_Types].xml", "/_", "/a", "/B", "/b1", "/Z", "/\xC3\x84", "/\xC3\xA4",
                            "/\xF0\x9D\x84\x9E", "/\xEF\xBC\xA1"));
}

TEST_F(PackageWriter, FindsTheReservedPartsInAnyCase) {
    auto const order = orderOf({u"/A", u"/_RELS/.Rels", u"/[CONTENT_types].XML"});

    ASSERT_EQ(order.size(), 4U);
    EXPECT_THAT(std::vector<std::string>(order.begin(), order.begin() + 2),
                ::testing::UnorderedElementsAre("/[Content_Types].xml", "/[CONTENT_types].XML"));
    EXPECT_THAT(std::vector<std::string>(order.begin() + 2, order.end()), ElementsAre("/_RELS/.Rels", "/A"));
}

TEST_F(PackageWriter, WritesBothOfTwoPartsWhoseNamesDifferOnlyInCase) {
    EXPECT_THAT(orderOf({u"/a", u"/A"}), IsSupersetOf({"/a", "/A"}));
}

TEST_F(PackageWriter, WritesEachOfManyPartsWhoseNamesDifferOnlyInCase) {
    std::vector<std::u16string> names;
    std::vector<std::string> expected{"/[Content_Types].xml"};
    for (unsigned capitals = 0; capitals < 64; ++capitals) {
        std::u16string name = u"/abcdef";
        for (std::size_t i = 0; i < 6; ++i)
            name[i + 1] = static_cast<char16_t>(name[i + 1] - ((capitals >> i & 1) != 0 ? u'a' - u'A' : 0));
        names.push_back(name);
        expected.push_back(opc::detail::toUTF8String(name, true));
    }

    EXPECT_THAT(orderOf(names), ::testing::UnorderedElementsAreArray(expected));
}

TEST_F(PackageWriter, PutsChangedAndStoredPartsIntoOneOrder) {
    TextFilePhysicalPackage package(writePackage({{"/c.xml", "c"}, {"/e.xml", "e"}}));
    package.open(OpenMode::ReadWrite);
    addPart(package, u"/d.xml", u"", "d");
    addPart(package, u"/b.xml", u"", "b");
    writeInto(partOf(package, u"/e.xml"), "changed");

    EXPECT_THAT(beginLinesIn(partsWrittenBy(package)),
                ElementsAre("/[Content_Types].xml", "/_rels/.rels", "/a.xml", "/b.xml", "/c.xml", "/d.xml", "/e.xml"));
}

TEST_F(PackageWriter, WritesPartNamesAsTheyAre) {
    TextFilePhysicalPackage package(folder.corePath("package.txt"));
    package.open(OpenMode::Create);
    addPart(package, u"/Gr\u00FC\u00DFe.xml", u"", "umlaut");
    addPart(package, u"/a b.xml", u"", "space");
    addPart(package, u"/x\ny.xml", u"", "line break");
    addPart(package, u"/%41.xml", u"", "escape");

    package.close(false);

    EXPECT_EQ(packageFile(), "__ZKOPC_PACKAGE_BEGIN__ V3508k\n"
                             "__ZKOPC_PART_BEGIN__ /[Content_Types].xml\n\n"
                             "__ZKOPC_PART_BEGIN__ /%41.xml\nescape\n"
                             "__ZKOPC_PART_BEGIN__ /a b.xml\nspace\n"
                             "__ZKOPC_PART_BEGIN__ /Gr\xC3\xBC\xC3\x9F"
                             "e.xml\numlaut\n"
                             "__ZKOPC_PART_BEGIN__ /x\ny.xml\nline break\n"
                             "__ZKOPC_PACKAGE_END__\n");
}

TEST_F(PackageWriter, RefusesANameThatIsNoUnicodeAndLeavesTheFileAsItWas) {
    auto const path = writePackage();
    auto const before = packageFile();
    TextFilePhysicalPackage package(path);
    package.open(OpenMode::ReadWrite);
    addPart(package, u"/\xD800.xml", u"", "lone surrogate");

    EXPECT_THAT([&] { package.close(false); },
                throwsPackageError("Ill-formed UTF-16 at unit 1 of \"/\xEF\xBF\xBD.xml\""));

    EXPECT_EQ(packageFile(), before);
}

TEST_F(PackageWriter, FlagsABinaryPartAndEncodesItsContent) {
    struct Case {
        std::u16string contentType;
        std::string expected;
    };
    std::vector<Case> const cases = {
        {u"", "/new\nabc\n"},
        {u"application/xml", "/new\nabc\n"},
        {u"application/octet-stream", "/new\nabc\n"},
        {u"image/svg+xml", "/new\nabc\n"},
        {u"Image/PNG", "/new\nabc\n"},
        {u"image/png", "/new BASE64\nYWJj\n"},
        {u"application/binary", "/new BASE64\nYWJj\n"},
        {u"application/vnd.x-encryption-info", "/new BASE64\nYWJj\n"},
    };
    for (auto const& [contentType, expected] : cases) {
        TextFilePhysicalPackage package(folder.corePath("package.txt"));
        package.open(OpenMode::Create);
        writeInto(*package.getContentTypesPart(), "");
        addPart(package, u"/new", contentType, "abc");

        EXPECT_EQ(partsWrittenBy(package), "__ZKOPC_PART_BEGIN__ /[Content_Types].xml\n\n__ZKOPC_PART_BEGIN__ " +
                                               expected + "__ZKOPC_PACKAGE_END__\n");
    }
}

TEST_F(PackageWriter, WritesTheWorkedExampleOfAHeaderATextPartAndABinaryPart) {
    TextFilePhysicalPackage package(folder.corePath("package.txt"));
    package.setTextFileHeader(u"Generated file; do not edit.\nSecond header line");
    package.open(OpenMode::Create);
    writeInto(*package.getContentTypesPart(), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Types/>");
    addPart(package, u"/data/blob.bin", u"application/binary", std::string("\0\1\2\3\4", 5));
    addPart(package, u"/_rels/.rels", u"", "<Relationships/>");

    package.close(false);

    EXPECT_EQ(packageFile(), "Generated file; do not edit.\n"
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
}

TEST_F(PackageWriter, WritesAnEmptyBinaryPartAsAnEmptyLineThatIsReadBackAsNothing) {
    auto const path = folder.corePath("package.txt");
    TextFilePhysicalPackage package(path);
    package.open(OpenMode::Create);
    package.createPart(u"/empty.bin", u"image/png", FilePartInfo());

    package.close(false);

    EXPECT_THAT(packageFile(), HasSubstr("__ZKOPC_PART_BEGIN__ /empty.bin BASE64\n\n__ZKOPC_PACKAGE_END__\n"));
    package.open(OpenMode::Read);
    EXPECT_TRUE(partOf(package, u"/empty.bin").isBinary());
    EXPECT_EQ(contentOf(package, u"/empty.bin"), "");
}

TEST_F(PackageWriter, WritesOneMoreLineBreakAfterAPartThatEndsInOne) {
    TextFilePhysicalPackage package(writePackage());
    package.open(OpenMode::ReadWrite);
    writeInto(partOf(package, u"/a.xml"), "two\nlines\n");

    package.close(false);

    EXPECT_EQ(packageFile(), packageText({{"/[Content_Types].xml", "<Types/>"},
                                          {"/_rels/.rels", "<Relationships/>"},
                                          {"/a.xml", "two\nlines\n"}}));
    package.open(OpenMode::Read);
    EXPECT_EQ(contentOf(package, u"/a.xml"), "two\nlines\n");
}

TEST_F(PackageWriter, PassesOnThatATemporaryFileIsMissingAndKeepsWhatItHasWritten) {
    TextFilePhysicalPackage package(writePackage({{"/z.xml", "<z/>"}}));
    package.open(OpenMode::ReadWrite);
    auto& part = partOf(package, u"/a.xml");
    writeInto(part, "changed");
    auto const file = toNativePath(part.getModifiedFullPath());
    fs::remove(file);
    std::ostringstream out;

    EXPECT_THAT([&] { package.writePartsToStream(out); },
                throwsPackageError("Could not open \"" + file.string() + "\": No such file or directory"));

    EXPECT_EQ(out.str(), "__ZKOPC_PART_BEGIN__ /[Content_Types].xml\n<Types/>\n"
                         "__ZKOPC_PART_BEGIN__ /_rels/.rels\n<Relationships/>\n"
                         "__ZKOPC_PART_BEGIN__ /a.xml\n");
}

class PartWriter : public testsupport::PackageFixture {
protected:
    /// A new part with this content in a new package.
    FilePart& newPart(std::u16string const& contentType, std::string const& content) {
        package.open(OpenMode::Create);
        return addPart(package, u"/new", contentType, content);
    }

    /// A part of this content in a package opened for reading and writing.
    FilePart& storedPart(std::string const& content, bool isBase64) {
        writePackage({{"/part", content, isBase64}});
        package.open(OpenMode::ReadWrite);
        return partOf(package, u"/part");
    }

    void TearDown() override {
        package.close(true);
        PackageFixture::TearDown();
    }

    TextFilePhysicalPackage package{folder.corePath("package.txt")};
};

std::vector<std::string> const oddContents = {
    "plain", "two\nlines", "ends in LF\n", "CR LF\r\nwithin\r\n", "\n", "not Base64!", "YWJj\r\nZA==", "YW\nJj",
};

TEST_F(PartWriter, CopiesAStoredPartUnchangedWhateverItIsAskedToEncode) {
    for (bool const isBase64 : {false, true}) {
        for (auto const& content : oddContents) {
            auto& part = storedPart(content, isBase64);

            EXPECT_EQ(written(part, true), content);
            EXPECT_EQ(written(part, false), content);

            package.close(true);
        }
    }
}

TEST_F(PartWriter, CopiesBase64LinesUnchangedOnceTheyAreInATemporaryFile) {
    for (auto const& content : oddContents) {
        auto& part = storedPart(content, true);
        part.extractToTempFile();
        ASSERT_EQ(part.getMode(), FilePartMode::TempFileBase64);

        EXPECT_EQ(written(part, true), content);
        EXPECT_EQ(written(part, false), content);

        package.close(true);
    }
}

TEST_F(PartWriter, WritesNothingForAnEmptySliceAndLeavesTheStreamGood) {
    writeText("__ZKOPC_PACKAGE_BEGIN__\n"
              "__ZKOPC_PART_BEGIN__ /[Content_Types].xml\n"
              "__ZKOPC_PART_BEGIN__ /part BASE64\n"
              "__ZKOPC_PART_BEGIN__ /line\n\n"
              "__ZKOPC_PACKAGE_END__\n");
    package.open(OpenMode::ReadWrite);

    for (auto const* const name : {u"/[Content_Types].xml", u"/part", u"/line"}) {
        auto& part = partOf(package, name);
        EXPECT_EQ(written(part, false), ""); // which looks at the stream's state
        EXPECT_EQ(written(part, true), "");
    }
}

TEST_F(PartWriter, WritesNothingForAnEmptyTemporaryFileAndLeavesTheStreamGood) {
    auto& part = newPart(u"text/xml", "");
    auto& binary = addPart(package, u"/new.bin", u"image/png", "");
    auto& lines = addPart(package, u"/other", u"", "");

    EXPECT_EQ(written(part, false), "");
    EXPECT_EQ(written(binary, true), "");
    EXPECT_EQ(written(lines, true), "");
}

TEST_F(PartWriter, CopiesATemporaryFileUnchangedWhereItIsNotToEncode) {
    auto const content = mixedBytes(200000); // several blocks of a stream

    EXPECT_EQ(written(newPart(u"image/png", content), false), content);
}

TEST_F(PartWriter, EncodesTheModifiedFileOfAPartThatWasRead) {
    auto& part = storedPart("YWJj", true);
    EXPECT_EQ(contentOf(package, u"/part"), "abc");
    EXPECT_EQ(written(part, true), "YWJj");
    writeInto(part, "changed");

    EXPECT_EQ(written(part, true), "Y2hhbmdlZA==");
    EXPECT_EQ(written(part, false), "changed");
}

TEST_F(PartWriter, EncodesADecodedPartInLinesOfItsOwn) {
    auto& part = storedPart("YW\r\nJj\n\n", true); // undecodable a line at a time
    EXPECT_THROW(part.getInputStream(), foundation::crypto::utils::Exception);
    EXPECT_EQ(written(part, true), "YW\r\nJj\n\n");
    package.close(true);

    auto& decodable = storedPart("YWJj\r\nYWJj\n\nZA==", true);
    EXPECT_EQ(contentOf(package, u"/part"), "abcabcd");

    EXPECT_EQ(written(decodable, true), "YWJjYWJjZA==");
}

TEST_F(PartWriter, CutsBase64IntoLinesOf76Characters) {
    struct Case {
        std::size_t bytes;
        std::vector<std::size_t> lineLengths;
        std::size_t padding;
    };
    std::vector<Case> const cases = {{1, {4}, 2},        {2, {4}, 1},           {3, {4}, 0},           {56, {76}, 1},
                                     {57, {76}, 0},      {58, {76, 4}, 2},      {59, {76, 4}, 1},      {60, {76, 4}, 0},
                                     {114, {76, 76}, 0}, {115, {76, 76, 4}, 2}, {152, {76, 76, 52}, 1}};
    auto& part = newPart(u"image/png", "");
    for (auto const& [bytes, lineLengths, padding] : cases) {
        replaceContent(toNativePath(part.getModifiedFullPath()), mixedBytes(bytes));

        std::istringstream lines(written(part, true));
        std::vector<std::size_t> lengths;
        std::string line;
        while (std::getline(lines, line))
            lengths.push_back(line.size());

        EXPECT_EQ(lengths, lineLengths) << bytes << " bytes";
        EXPECT_EQ(line.size() - (line.find_last_not_of('=') + 1), padding) << bytes << " bytes";
    }
}

TEST_F(PartWriter, EncodesContentOfEveryLength) {
    auto& part = newPart(u"image/png", "");
    for (std::size_t bytes = 0; bytes <= 400; ++bytes) {
        auto const content = mixedBytes(bytes);
        replaceContent(toNativePath(part.getModifiedFullPath()), content);

        EXPECT_EQ(written(part, true), base64Lines(content)) << bytes << " bytes";
    }
}

TEST_F(PartWriter, EncodesContentAroundTheBordersOfItsBlocks) {
    constexpr std::size_t Block = 57 * 1024;
    auto& part = newPart(u"image/png", "");
    for (std::size_t const border : {Block, 2 * Block, 3 * Block, std::size_t{65536}, std::size_t{131072}}) {
        for (std::size_t bytes = border - 4; bytes <= border + 4; ++bytes) {
            auto const content = mixedBytes(bytes);
            replaceContent(toNativePath(part.getModifiedFullPath()), content);

            EXPECT_EQ(written(part, true), base64Lines(content)) << bytes << " bytes";
        }
    }
}

TEST_F(PartWriter, UsesEveryCharacterOfTheAlphabet) {
    std::string everyByte;
    for (int byte = 0; byte < 256; ++byte)
        everyByte += static_cast<char>(byte);

    auto const lines = written(newPart(u"image/png", everyByte), true);

    EXPECT_EQ(lines, base64Lines(everyByte));
    for (char const c : std::string("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"))
        EXPECT_NE(lines.find(c), std::string::npos) << c;
}

TEST_F(PartWriter, ReportsThatAFileCanNotBeReadAsAFailureToEncode) {
    auto& part = newPart(u"image/png", "content");
    auto const file = toNativePath(part.getModifiedFullPath());
    fs::remove(file);
    fs::create_symlink("/proc/self/mem", file); // whose first byte can't be read
    std::ostringstream out;

    EXPECT_THAT([&] { part.writeToStream(out, true); }, ThrowsMessage<foundation::crypto::utils::Exception>(StrEq(
                                                            "Unable to encode in Base64. Reason=Could not read \"" +
                                                            file.string() + "\": Input/output error")));

    EXPECT_EQ(out.str(), "");
}

TEST_F(PartWriter, RefusesToCommitAPartThatItCanNotEncode) {
    writePackage();
    auto const before = packageFile();
    package.open(OpenMode::ReadWrite);
    auto const file = toNativePath(addPart(package, u"/new.bin", u"image/png", "content").getModifiedFullPath());
    fs::remove(file);
    fs::create_symlink("/proc/self/mem", file);

    EXPECT_THAT([&] { package.close(false); }, ThrowsMessage<foundation::crypto::utils::Exception>(
                                                   StartsWith("Unable to encode in Base64. Reason=Could not read ")));

    EXPECT_EQ(packageFile(), before);
    EXPECT_THAT(folder.entries(), ElementsAre("package.txt"));
}

class TextFileHeader : public testsupport::PackageFixture {
protected:
    TextFilePhysicalPackage package{folder.corePath("package.txt")};
};

std::u16string lineBreaks(std::size_t count) {
    return std::u16string(count, u'\n');
}

TEST_F(TextFileHeader, IsRefusedWithTheFirstThingThatIsWrongAndTheEarlierOneIsKept) {
    std::string const marker = "Header must not contain the __ZKOPC_PACKAGE_BEGIN__ marker";
    std::string const zip = "Header must not start with the characters 'PK'";
    std::string const lines = "Header must not have more than 20 lines";
    std::vector<std::pair<std::u16string, std::string>> const cases = {
        {u"__ZKOPC_PACKAGE_BEGIN__", marker},
        {u"__ZKOPC_PACKAGE_BEGIN__ V3508k\n", marker},
        {u"in the middle __ZKOPC_PACKAGE_BEGIN__of a line", marker},
        {u"first line\n__ZKOPC_PACKAGE_BEGIN__", marker},
        {u"PK and the marker __ZKOPC_PACKAGE_BEGIN__", marker},
        {lineBreaks(21) + u"__ZKOPC_PACKAGE_BEGIN__", marker},
        {u"PK", zip},
        {u"PK\x0003\x0004", zip},
        {u"PKzip", zip},
        {u"PK" + lineBreaks(21), zip},
        {lineBreaks(21), lines},
        {u"text" + lineBreaks(100) + u"text", lines},
    };
    package.setTextFileHeader(u"earlier");
    for (auto const& refused : cases) {
        SCOPED_TRACE(opc::toUDEString(refused.first));
        auto const set = [&] { package.setTextFileHeader(refused.first); };

        EXPECT_THAT(set, throwsPackageError(refused.second));

        EXPECT_FALSE(codeThrownBy(set));
        EXPECT_EQ(headerWrittenBy(package), "earlier\n__ZKOPC_PACKAGE_BEGIN__ V3508k\n");
    }
}

TEST_F(TextFileHeader, IsTakenExactlyAsItIs) {
    std::vector<std::u16string> const cases = {
        u"pk",
        u"Pk",
        u"pK",
        u"P",
        u" PK",
        u"\nPK",
        u"KP",
        u"__ZKOPC_PACKAGE_BEGIN_",
        u"__zkopc_package_begin__",
        u"__ZKOPC_PART_BEGIN__ /a",
        u"__ZKOPC_PACKAGE_END__",
        u" \t ",
        lineBreaks(19),
        lineBreaks(20),
        std::u16string(100, u'\r'),
        std::u16string(u"a NUL \0 within", 14),
        u"\u00FC \U0001D11E",
    };
    for (auto const& header : cases) {
        package.setTextFileHeader(header);

        EXPECT_EQ(headerWrittenBy(package), testsupport::toUtf8(header) + "\n__ZKOPC_PACKAGE_BEGIN__ V3508k\n");
    }
}

TEST_F(TextFileHeader, IsRemovedByAnEmptyOne) {
    writePackage({}, "header");
    package.open(OpenMode::ReadWrite);
    addPart(package, u"/new.xml", u"", "new");
    package.setTextFileHeader(u"");

    package.close(false);

    EXPECT_EQ(packageFile(), packageText(openingParts({{"/new.xml", "new"}})));
}

TEST_F(TextFileHeader, IsWrittenAtTheNextCommitAndReplacesTheOneInTheFile) {
    writePackage({}, "earlier");
    package.open(OpenMode::ReadWrite);
    addPart(package, u"/new.xml", u"", "new");
    package.setTextFileHeader(u"first\nsecond");

    package.close(false);

    EXPECT_EQ(packageFile(), packageText(openingParts({{"/new.xml", "new"}}), "first\nsecond"));
}

TEST_F(TextFileHeader, IsNoChangeThatACommitIsMadeFor) {
    writePackage({}, "earlier");
    auto const before = packageFile();
    package.open(OpenMode::ReadWrite);
    package.setTextFileHeader(u"later");

    package.close(false);

    EXPECT_EQ(packageFile(), before);
}

TEST_F(TextFileHeader, SurvivesClosing) {
    package.setTextFileHeader(u"header");
    package.open(OpenMode::Create);
    package.close(true);
    package.open(OpenMode::Create);

    package.close(false);

    EXPECT_THAT(packageFile(), StartsWith("header\n__ZKOPC_PACKAGE_BEGIN__ V3508k\n"));
    EXPECT_EQ(headerWrittenBy(package), "header\n__ZKOPC_PACKAGE_BEGIN__ V3508k\n");
}

TEST_F(TextFileHeader, IsReadBackWithAsManyLineBreaksAsItMayHave) {
    for (auto const& header : {std::u16string(u"first") + lineBreaks(20), u"first" + lineBreaks(19) + u"\nlast"}) {
        {
            TextFilePhysicalPackage written(folder.corePath("package.txt"));
            written.setTextFileHeader(header);
            written.open(OpenMode::Create);
            written.close(false);
        }
        TextFilePhysicalPackage readBack(folder.corePath("package.txt"));

        readBack.open(OpenMode::Read);

        EXPECT_EQ(headerWrittenBy(readBack), testsupport::toUtf8(header) + "\n__ZKOPC_PACKAGE_BEGIN__ V3508k\n");
    }
}

TEST_F(TextFileHeader, FailsTheCommitWhereItIsNoUnicodeAndLeavesTheFileAsItWas) {
    writePackage();
    auto const before = packageFile();
    package.open(OpenMode::ReadWrite);
    addPart(package, u"/new.xml", u"", "new");
    package.setTextFileHeader(u"lone \xDC00");

    EXPECT_THAT([&] { package.close(false); },
                throwsPackageError("Ill-formed UTF-16 at unit 5 of \"lone \xEF\xBF\xBD\""));

    EXPECT_EQ(packageFile(), before);
    EXPECT_THAT(folder.entries(), ElementsAre("package.txt"));
}

} // namespace
