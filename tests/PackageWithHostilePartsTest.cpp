#include <textpackage/TextFilePhysicalPackage.hpp>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include <boost/system/error_code.hpp>

#include <opccore/StringConversion.hpp>
#include <tests/support/PackageFixture.hpp>

using opc::interfaces::OpenMode;
using opc::textpackage::FilePartMode;
using opc::textpackage::TextFilePhysicalPackage;
using ::testing::Contains;
using testsupport::contentOf;
using testsupport::namesIn;
using testsupport::partOf;
using testsupport::PartText;
using testsupport::throwsPackageError;
using testsupport::toNativePath;
using testsupport::treeOf;
using testsupport::writeInto;
using Tree = std::map<std::string, std::string>;

namespace {

std::string const Bytes("\0\1\2\3\4", 5);
char const WorkingCopy[] = "/_zkopc_packageCopy.txt";

/// Packages whose part names reach for files that are not the part's own. The temporary area lies deep in the folder,
/// so that all that a name could reach is under the eyes of the test.
class PackageWithHostileParts : public testsupport::PackageFixture {
protected:
    PackageWithHostileParts() {
        folder.write("outer/inner/tmp/neighbour", "of somebody else");
        folder.write("outer/inner/evil", "of somebody else");
        folder.write("outer/evil", "of somebody else");
        folder.write("evil", "of somebody else");
        ::setenv("TMPDIR", (folder / "outer/inner/tmp").c_str(), 1);
    }

    /// Writes a package with these parts and two good ones.
    std::u16string writeHostile(std::vector<PartText> const& hostile) {
        std::vector<PartText> parts{{"/good.txt", "good text"}, {"/good.bin", "AAECAwQ=", true}};
        parts.insert(parts.begin() + 1, hostile.begin(), hostile.end());
        return writePackage(parts);
    }

    /// Everything in the folder but what is in the package's own folders.
    Tree surroundingsOf(TextFilePhysicalPackage const& package) const {
        Tree surroundings;
        for (auto const& [name, content] : treeOf(folder.path())) {
            auto const whole = (folder / name).string();
            auto const isBelow = [&](std::u16string const& root) {
                return !root.empty() && (whole + "/").rfind(toNativePath(root).string() + "/", 0) == 0;
            };
            if (!isBelow(package.getExtractedPackageRoot()) && !isBelow(package.getModifiedPackageRoot()))
                surroundings[name] = content;
        }
        return surroundings;
    }

    void expectGoodPartsReadable(TextFilePhysicalPackage& package) {
        EXPECT_EQ(contentOf(package, u"/a.xml"), "<a/>");
        EXPECT_EQ(contentOf(package, u"/good.txt"), "good text");
        EXPECT_EQ(contentOf(package, u"/good.bin"), Bytes);
    }
};

struct HostileName {
    std::string label;
    std::string name;
    std::string message; // of the refusal
};

void PrintTo(HostileName const& hostile, std::ostream* out) {
    *out << hostile.label;
}

HostileName refused(std::string const& label, std::string const& name, std::string const& reason) {
    return {label, name, "Not a usable part name: \"" + name + "\": " + reason};
}

std::vector<HostileName> hostileNames() {
    return {
        refused("Parent", "/..", "it has a dot segment"),
        refused("BesideTheFolder", "/../evil", "it has a dot segment"),
        refused("FarAbove", "/../../../evil", "it has a dot segment"),
        refused("DownAndUp", "/a/../../evil", "it has a dot segment"),
        refused("Here", "/.", "it has a dot segment"),
        refused("HereInside", "/a/./b", "it has a dot segment"),
        refused("ParentWithoutSlash", "../evil", "it has a dot segment"),
        refused("SlashOnly", "/", "it is empty"),
        refused("Empty", "", "it is empty"),
        {"Nul", std::string("/a\0/../evil", 11), "Not a usable part name: \"/a\xEF\xBF\xBD/../evil\": it holds a NUL"},
        refused("TwoSlashes", "//evil", "it has an empty segment"),
        refused("EmptySegment", "/a//b", "it has an empty segment"),
        refused("SlashAtTheEnd", "/a/", "it has an empty segment"),
        refused("LikeAShortenedName", "/" + std::string(218, 'n') + "~01234567-89ab-cdef-0123-456789abcdef",
                "it could be taken for a longer name that was shortened"),
    };
}

class PackageWithHostileName : public PackageWithHostileParts, public ::testing::WithParamInterface<HostileName> {};

} // namespace

TEST_P(PackageWithHostileName, OpensAndReadsAllButThatPart) {
    auto const name = opc::toString(GetParam().name, true);
    TextFilePhysicalPackage package(writeHostile({{GetParam().name, "AAECAwQ=", true}}));
    auto const before = treeOf(folder.path());
    package.open(OpenMode::ReadWrite);
    EXPECT_THAT(namesIn(package), Contains(GetParam().name));
    auto& hostile = partOf(package, name);

    EXPECT_THAT([&] { hostile.getInputStream(); }, throwsPackageError(GetParam().message, {}));
    EXPECT_THAT([&] { hostile.extractToTempFile(); }, throwsPackageError(GetParam().message, {}));
    EXPECT_THAT([&] { hostile.getOutputStream(); }, throwsPackageError(GetParam().message, {}));

    EXPECT_EQ(hostile.getMode(), FilePartMode::BufferBase64);
    EXPECT_FALSE(hostile.isModified());
    expectGoodPartsReadable(package);
    EXPECT_EQ(surroundingsOf(package), before);
    package.close(true);
    EXPECT_EQ(treeOf(folder.path()), before);
}

TEST_P(PackageWithHostileName, ReadsThePartWhereItIsTextAndNeedsNoFile) {
    auto const name = opc::toString(GetParam().name, true);
    TextFilePhysicalPackage package(writeHostile({{GetParam().name, "hostile text"}}));
    auto const before = treeOf(folder.path());
    package.open(OpenMode::Read);

    EXPECT_EQ(contentOf(package, name), "hostile text");

    EXPECT_EQ(surroundingsOf(package), before);
    package.close(false);
    EXPECT_EQ(treeOf(folder.path()), before);
}

INSTANTIATE_TEST_SUITE_P(All, PackageWithHostileName, ::testing::ValuesIn(hostileNames()),
                         [](auto const& test) { return test.param.label; });

TEST_F(PackageWithHostileParts, RefusesToExtractAPartWhoseNameIsTooLongForAnyPath) {
    std::string const name = "/" + std::string(10'000, 'n');
    TextFilePhysicalPackage package(writeHostile({{name, "AAECAwQ=", true}}));
    auto const before = treeOf(folder.path());
    package.open(OpenMode::ReadWrite);
    auto& hostile = partOf(package, opc::toString(name, true));
    char const message[] = "Could not create directory structure for part output stream: File name too long";
    boost::system::error_code const tooLong(ENAMETOOLONG, boost::system::generic_category());

    EXPECT_THAT([&] { hostile.getInputStream(); }, throwsPackageError(message, tooLong));
    EXPECT_THAT([&] { hostile.getOutputStream(); }, throwsPackageError(message, tooLong));

    expectGoodPartsReadable(package);
    EXPECT_EQ(surroundingsOf(package), before);
    package.close(true);
    EXPECT_EQ(treeOf(folder.path()), before);
}

TEST_F(PackageWithHostileParts, KeepsItsWorkingCopyWhateverAPartIsCalled) {
    for (std::string const name : {"/_zkopc_packageCopy.txt", "/_zkopc_packageCopy.txt/x"}) {
        auto const coreName = opc::toString(name, true);
        TextFilePhysicalPackage package(writeHostile({{name, "AAEC", true}}));
        package.open(OpenMode::Read);
        auto const copy = toNativePath(package.getExtractedPackageRoot() + u"/_zkopc_packageCopy.txt");

        EXPECT_EQ(contentOf(package, coreName), std::string("\0\1\2", 3)) << name;
        EXPECT_EQ(testsupport::readFile(copy), packageFile());
        package.deletePart(coreName);

        EXPECT_EQ(testsupport::readFile(copy), packageFile());
        expectGoodPartsReadable(package);
    }
}

TEST_F(PackageWithHostileParts, LeavesAPartAloneWhoseNameOnlyBeginsLikeThatOfTheWorkingCopy) {
    TextFilePhysicalPackage package(writeHostile({{"/_zkopc_packageCopy.txt2", "AAEC", true}}));
    package.open(OpenMode::Read);

    EXPECT_EQ(contentOf(package, u"/_zkopc_packageCopy.txt2"), std::string("\0\1\2", 3));

    EXPECT_EQ(treeOf(toNativePath(package.getExtractedPackageRoot())),
              (Tree{{"_zkopc_packageCopy.txt", packageFile()}, {"_zkopc_packageCopy.txt2", std::string("\0\1\2", 3)}}));
    expectGoodPartsReadable(package);
}

TEST_F(PackageWithHostileParts, KeepsItsWorkingCopyWhenAPartOfThatNameIsExtracted) {
    TextFilePhysicalPackage package(writeHostile({{WorkingCopy, "text of a part"}}));
    package.open(OpenMode::Read);
    auto& part = partOf(package, u"/_zkopc_packageCopy.txt");

    part.extractToTempFile();

    EXPECT_EQ(contentOf(package, u"/_zkopc_packageCopy.txt"), "text of a part");
    EXPECT_EQ(testsupport::readFile(toNativePath(package.getExtractedPackageRoot()) / "_zkopc_packageCopy.txt"),
              packageFile());
    expectGoodPartsReadable(package);
}

TEST_F(PackageWithHostileParts, ChangesAPartThatIsCalledLikeTheWorkingCopy) {
    TextFilePhysicalPackage package(writeHostile({{WorkingCopy, "AAECAwQ=", true}}));
    package.open(OpenMode::ReadWrite);

    writeInto(partOf(package, u"/_zkopc_packageCopy.txt"), "changed");

    EXPECT_EQ(treeOf(toNativePath(package.getModifiedPackageRoot())), (Tree{{"_zkopc_packageCopy.txt", "changed"}}));
    EXPECT_EQ(contentOf(package, u"/_zkopc_packageCopy.txt"), Bytes);
    expectGoodPartsReadable(package);
}

TEST_F(PackageWithHostileParts, KeepsApartPartsWhoseNamesAreMadeToMeet) {
    std::vector<std::string> const names{
        WorkingCopy,
        "/" + std::string(500, 'x') + WorkingCopy,
        "/" + std::string(250, 'x') + "_x/" + std::string(250, 'x') + "_x" + WorkingCopy,
        "/" + std::string(300, 'n'),
        "/" + std::string(250, 'n') + "_x/" + std::string(50, 'n'),
        "/" + std::string(251, 'n') + "/b",
        "/" + std::string(250, 'n') + "_x/n/b",
        "/" + std::string(250, 'n') + "/n/b",
    };
    std::vector<PartText> parts;
    for (std::size_t i = 0; i < names.size(); ++i)
        parts.push_back({names[i], std::string("QUJD\nQUJ") + "DEFGHIJK"[i], true});
    TextFilePhysicalPackage package(writeHostile(parts));
    package.open(OpenMode::Read);
    for (auto const& name : names)
        contentOf(package, opc::toString(name, true));
    package.closeParts();

    for (std::size_t i = 0; i < names.size(); ++i) {
        auto const expected = "ABCAB" + std::string(1, static_cast<char>('C' + i));
        EXPECT_EQ(contentOf(package, opc::toString(names[i], true)), expected) << names[i];
    }
    expectGoodPartsReadable(package);
}

TEST_F(PackageWithHostileParts, ReadsTheFirstOfTwoPartsOneOfWhichIsTheFolderOfTheOther) {
    for (bool const isFolderFirst : {false, true}) {
        TextFilePhysicalPackage package(writeHostile({{"/p", "AAEC", true}, {"/p/q", "AAECAwQ=", true}}));
        package.open(OpenMode::Read);
        std::u16string const first = isFolderFirst ? u"/p/q" : u"/p";
        std::u16string const second = isFolderFirst ? u"/p" : u"/p/q";
        auto const content = contentOf(package, first);

        EXPECT_THAT([&] { partOf(package, second).getInputStream(); },
                    throwsPackageError("Failed to create or open file system output stream: " +
                                           opc::toUDEString(package.getExtractedPackageRoot() + second),
                                       {}));

        EXPECT_EQ(partOf(package, second).getMode(), FilePartMode::BufferBase64);
        partOf(package, first).close();
        EXPECT_EQ(contentOf(package, first), content);
        expectGoodPartsReadable(package);
    }
}

TEST_F(PackageWithHostileParts, RefusesTheFileOfAPartWhoseNameDiffersFromAnotherInTheFirstSlashAlone) {
    auto const refusal = throwsPackageError(
        "Not a usable part name: \"twin.bin\": another part's differs from it in the first slash alone", {});
    TextFilePhysicalPackage package(writeHostile({{"/twin.bin", "YWE=", true}, {"twin.bin", "YmI=", true}}));
    auto const before = packageFile();

    package.open(OpenMode::Read);
    EXPECT_THAT([&] { contentOf(package, u"twin.bin"); }, refusal);
    package.close(true);

    package.open(OpenMode::ReadWrite);
    EXPECT_EQ(contentOf(package, u"/twin.bin"), "aa");
    EXPECT_THAT([&] { contentOf(package, u"twin.bin"); }, refusal);
    writeInto(partOf(package, u"/good.txt"), "changed");
    EXPECT_THAT([&] { package.close(false); }, refusal);

    EXPECT_EQ(packageFile(), before);
}

TEST_F(PackageWithHostileParts, ReadsTextPartsOneOfWhichIsTheFolderOfTheOther) {
    TextFilePhysicalPackage package(writeHostile({{"/p", "one"}, {"/p/q", "two"}}));
    package.open(OpenMode::Read);

    EXPECT_EQ(contentOf(package, u"/p"), "one");
    EXPECT_EQ(contentOf(package, u"/p/q"), "two");
}
