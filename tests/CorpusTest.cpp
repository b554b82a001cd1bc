#include <algorithm>
#include <cctype>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>

#include <opccore/StringConversion.hpp>
#include <tests/support/PackageText.hpp>
#include <tests/support/TemporaryFolder.hpp>
#include <textpackage/MemoryPart.hpp>
#include <textpackage/TextPackageLightweightReader.hpp>

namespace fs = std::filesystem;

using opc::interfaces::OpenMode;
using opc::textpackage::TextPackageLightweightReader;
using ::testing::SizeIs;
using testsupport::readAll;
using testsupport::readFile;
using testsupport::toCorePath;

namespace {

/// The content of each part under its name.
using Contents = std::map<std::u16string, std::string>;

constexpr std::string_view PartBegin = "__ZKOPC_PART_BEGIN__ ";
constexpr std::string_view Flag = " BASE64";

std::vector<fs::path> packageFiles() {
    std::vector<fs::path> files;
    for (auto const& entry : fs::directory_iterator(TEST_DATA_FOLDER "/corpus")) {
        if (entry.path().extension() == ".txt" && entry.path().filename() != "LICENSES.txt")
            files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::string withLf(std::string text) {
    for (auto at = text.find("\r\n"); at != std::string::npos; at = text.find("\r\n", at))
        text.erase(at, 1);
    return text;
}

/// Decodes Base64 lines by the definition: six bits a character, whatever is no digit left out.
std::string decoded(std::string const& text) {
    std::string const digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string bytes;
    std::uint32_t bits = 0;
    int count = 0;
    for (char const c : text) {
        auto const digit = digits.find(c);
        if (digit == std::string::npos)
            continue;
        bits = (bits << 6 | static_cast<std::uint32_t>(digit)) & 0xFFFF;
        count += 6;
        if (count >= 8) {
            count -= 8;
            bytes += static_cast<char>(bits >> count & 0xFF);
        }
    }
    return bytes;
}

/// What a package file holds, found by its markers alone.
Contents parse(std::string const& file) {
    Contents contents;
    for (auto begin = file.find(PartBegin); begin != std::string::npos; begin = file.find(PartBegin, begin + 1)) {
        auto const lineEnd = file.find('\n', begin);
        auto const contentEnd = file.find("\n__ZKOPC_", lineEnd);
        auto name = file.substr(begin + PartBegin.size(), lineEnd - begin - PartBegin.size());
        auto const content = contentEnd > lineEnd ? file.substr(lineEnd + 1, contentEnd - lineEnd - 1) : "";
        bool const isBinary = name.size() > Flag.size() && name.substr(name.size() - Flag.size()) == Flag;
        if (isBinary)
            name.resize(name.size() - Flag.size());
        contents[opc::toString(name, true)] = isBinary ? decoded(content) : withLf(content);
    }
    return contents;
}

Contents contentsOf(TextPackageLightweightReader& reader) {
    Contents contents;
    contents[reader.getContentTypesPart()->getName()] = readAll(*reader.getContentTypeInputStream());
    for (auto* const part : reader.getParts())
        contents[part->getName()] = readAll(*part->getInputStream());
    return contents;
}

class Corpus : public ::testing::TestWithParam<fs::path> {};

TEST_P(Corpus, IsReadWholeWhenEachPartIsAskedFor) {
    auto const expected = parse(readFile(GetParam()));
    ASSERT_GE(expected.size(), 8U);
    TextPackageLightweightReader reader(toCorePath(GetParam()));
    for (auto const& part : expected)
        reader.addRequestedPart(part.first);

    reader.open(OpenMode::Read);

    EXPECT_EQ(contentsOf(reader), expected);
}

TEST_P(Corpus, GivesEachPartThatIsAskedForAlone) {
    for (auto const& [name, content] : parse(readFile(GetParam()))) {
        SCOPED_TRACE(opc::toUDEString(name));
        TextPackageLightweightReader reader(toCorePath(GetParam()));
        reader.addRequestedPart(name);

        reader.open(OpenMode::Read);

        auto const contents = contentsOf(reader);
        ASSERT_EQ(contents.count(name), 1U);
        EXPECT_EQ(contents.at(name), content);
    }
}

std::string testNameOf(::testing::TestParamInfo<fs::path> const& info) {
    auto name = info.param.stem().string();
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(EachPackage, Corpus, ::testing::ValuesIn(packageFiles()), testNameOf);

TEST(CorpusFolder, HoldsPackagesInTextForm) {
    EXPECT_THAT(packageFiles(), SizeIs(::testing::Ge(8U)));
}

/// Guards the tests above: a parse that finds nothing would agree with a reader that finds nothing.
TEST(CorpusFolder, IsParsedRightHere) {
    auto const contents = parse("__ZKOPC_PACKAGE_BEGIN__ V3508k\n"
                                "__ZKOPC_PART_BEGIN__ /a\none\r\n\r\ntwo\r\r\n\n"
                                "__ZKOPC_PART_BEGIN__ /b BASE64\nYWJj\nZA==\n"
                                "__ZKOPC_PART_BEGIN__ /c\n"
                                "__ZKOPC_PART_BEGIN__ /d\n\n"
                                "__ZKOPC_PACKAGE_END__\n");

    EXPECT_EQ(contents, (Contents{{u"/a", "one\n\ntwo\r\n"}, {u"/b", "abcd"}, {u"/c", ""}, {u"/d", ""}}));
}

} // namespace
