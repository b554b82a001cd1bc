#include <tests/support/PackageFixture.hpp>

#include <algorithm>
#include <stdexcept>

#include <opccore/IPhysicalOutputStream.hpp>
#include <opccore/StringConversion.hpp>
#include <textpackage/FilePartInfo.hpp>

namespace testsupport {

namespace fs = std::filesystem;

using opc::textpackage::FilePart;
using opc::textpackage::TextFilePhysicalPackage;

PackageFixture::~PackageFixture() {
    EXPECT_THAT(temporaryArea.entries(), ::testing::IsEmpty()) << "left in the temporary area";
}

std::u16string PackageFixture::writePackage(std::vector<PartText> const& more, std::string const& header) const {
    return writeText(packageText(openingParts(more), header));
}

std::u16string PackageFixture::writeText(std::string const& text) const {
    return folder.write("package.txt", text);
}

std::vector<fs::path> PackageFixture::temporaryPaths() const {
    std::vector<fs::path> paths;
    for (auto const& name : temporaryArea.entries())
        paths.push_back(temporaryArea.folder() / name);
    return paths;
}

std::string toUtf8(std::u16string const& text) {
    return opc::detail::toUTF8String(text, true);
}

fs::path toNativePath(std::u16string const& path) {
    return opc::detail::makeNativePath(path);
}

void expectClosedWithNothingLeft(TextFilePhysicalPackage& package) {
    EXPECT_FALSE(package.isOpen());
    EXPECT_EQ(package.getExtractedPackageRoot(), u"");
    EXPECT_EQ(package.getModifiedPackageRoot(), u"");
    EXPECT_THAT([&] { package.getParts(); }, throwsPackageError("Content types stream does not exist", {}));
}

CommitCounter::CommitCounter(TextFilePhysicalPackage& package) {
    package.setCommitOptions({false, u"", [this](std::u16string const&) { ++count_; }});
}

std::vector<std::string> namesIn(TextFilePhysicalPackage& package) {
    std::vector<std::string> names;
    for (auto const* const part : package.getParts())
        names.push_back(toUtf8(part->getName()));
    return names;
}

FilePart& partOf(TextFilePhysicalPackage& package, std::u16string const& name) {
    auto* const contentTypesPart = package.getContentTypesPart();
    if (contentTypesPart->getName() == name)
        return *contentTypesPart;
    for (auto* const part : package.getParts()) {
        if (part->getName() == name)
            return dynamic_cast<FilePart&>(*part);
    }
    throw std::runtime_error("no part called " + toUtf8(name));
}

std::string contentOf(TextFilePhysicalPackage& package, std::u16string const& name) {
    return readAll(*partOf(package, name).getInputStream());
}

void writeInto(opc::interfaces::IPhysicalPart& part, std::string const& content) {
    auto& stream = *part.getOutputStream();
    auto const count = static_cast<std::int64_t>(content.size());
    EXPECT_EQ(stream.write(content.data(), count), count);
    stream.flush();
    EXPECT_FALSE(stream.hasFailed());
}

FilePart& addPart(TextFilePhysicalPackage& package, std::u16string const& name, std::u16string const& contentType,
                  std::string const& content) {
    auto& part = *package.createPart(name, contentType, opc::textpackage::FilePartInfo());
    writeInto(part, content);
    return dynamic_cast<FilePart&>(part);
}

std::map<std::string, std::string> treeOf(fs::path const& folder) {
    std::map<std::string, std::string> tree;
    for (auto const& entry : fs::recursive_directory_iterator(folder)) {
        auto& content = tree[entry.path().lexically_relative(folder).string()];
        if (entry.is_symlink())
            content = "-> " + fs::read_symlink(entry.path()).string();
        else
            content = entry.is_directory() ? "(folder)" : readFile(entry.path());
    }
    return tree;
}

} // namespace testsupport
