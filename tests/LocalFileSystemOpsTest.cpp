#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <istream>
#include <ostream>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <opccore/CommitOptions.hpp>
#include <opccore/LocalFileSystemOps.hpp>
#include <opccore/StringConversion.hpp>
#include <tests/support/CloseWatch.hpp>
#include <tests/support/FailingAllocations.hpp>
#include <tests/support/FileSizeLimit.hpp>
#include <tests/support/Permissions.hpp>
#include <tests/support/SmallDisk.hpp>
#include <tests/support/TemporaryFolder.hpp>
#include <tests/support/Throws.hpp>

namespace opc {

void PrintTo(ExistsMode mode, std::ostream* out) {
    *out << (mode == ExistsMode::Fail ? "Fail" : "Overwrite");
}

} // namespace opc

namespace {

using namespace std::string_literals;
namespace fs = std::filesystem;
namespace errc = boost::system::errc;
using boost::system::error_code;
using opc::ExistsMode;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;
using testing::ThrowsMessage;
using testsupport::attemptWithout;
using testsupport::CloseWatch;
using testsupport::codeThrownBy;
using testsupport::FileSizeLimit;
using testsupport::permissionsOf;
using testsupport::runsAsRoot;
using testsupport::throwsPackageError;
using testsupport::toCorePath;
using testsupport::Umask;

error_code systemCode(errc::errc_t value) {
    return errc::make_error_code(value);
}

/// A code that an earlier call left behind.
error_code staleCode() {
    return systemCode(errc::owner_dead);
}

class LocalFileSystemOps : public testing::Test {
protected:
    std::u16string path(std::string_view name) const { return folder.corePath(name); }
    std::string native(std::string_view name) const { return (folder / name).native(); }

    void makeFolder(std::string_view name) const { fs::create_directories(folder / name); }
    void makeLink(std::string_view name, fs::path const& target) const { fs::create_symlink(target, folder / name); }
    void makeFifo(std::string_view name) const { ASSERT_EQ(::mkfifo((folder / name).c_str(), 0600), 0); }

    opc::LocalFileSystemOps const files{};
    testsupport::TemporaryFolder folder;
};

TEST_F(LocalFileSystemOps, IsAFileSystemOpsThatIsMadeFromNothingAndCopied) {
    EXPECT_TRUE((std::is_base_of_v<opc::FileSystemOps, opc::LocalFileSystemOps>));
    EXPECT_TRUE(std::is_default_constructible_v<opc::LocalFileSystemOps>);
    EXPECT_TRUE(std::is_copy_constructible_v<opc::LocalFileSystemOps>);
    EXPECT_TRUE(std::has_virtual_destructor_v<opc::FileSystemOps>);
    EXPECT_TRUE(std::is_abstract_v<opc::FileSystemOps>);
}

// ------------------------------------------------------------------------------------------------------- appendPath

using AppendPath = LocalFileSystemOps;

TEST_F(AppendPath, JoinsFolderAndNameByOneSlash) {
    EXPECT_EQ(files.appendPath(u"/tmp/x", u"/word/document.xml"), u"/tmp/x/word/document.xml");
    EXPECT_EQ(files.appendPath(u"/tmp/x", u"word/document.xml"), u"/tmp/x/word/document.xml");
    EXPECT_EQ(files.appendPath(u"/tmp/x/", u"/word"), u"/tmp/x/word");
    EXPECT_EQ(files.appendPath(u"/tmp/x/", u"word"), u"/tmp/x/word");
    EXPECT_EQ(files.appendPath(u"/", u"/word"), u"/word");
    EXPECT_EQ(files.appendPath(u"..", u"/word"), u"../word"); // the folder is the caller's word
}

TEST_F(AppendPath, GivesARelativePathForAnEmptyFolder) {
    EXPECT_EQ(files.appendPath(u"", u"/word/document.xml"), u"word/document.xml");
    EXPECT_EQ(files.appendPath(u"", u"word"), u"word");
}

TEST_F(AppendPath, TakesNamesThatOnlyLookDangerous) {
    for (auto const* name : {u"...", u"..a", u"a..", u".a", u"a.", u".rels", u"a/.../b", u"~", u"a\\..\\b", u" ",
                             u"[Content_Types].xml", u"%2E%2E", u"a\nb", u"\uFF0E\uFF0E", u"\u4E2D\U0001F600"})
        EXPECT_EQ(files.appendPath(u"/x", name), u"/x/"s + name);
    EXPECT_EQ(files.appendPath(u"/x", {0xD800}), (std::u16string{u'/', u'x', u'/', 0xD800}));
}

TEST_F(AppendPath, RefusesNamesThatNameNoFileInsideTheFolder) {
    struct {
        std::u16string name;
        std::string message;
    } const refusals[] = {
        {u"", "Not a usable part name: \"\": it is empty"},
        {u"/", "Not a usable part name: \"/\": it is empty"},
        {u"//", "Not a usable part name: \"//\": it has an empty segment"},
        {u"//a", "Not a usable part name: \"//a\": it has an empty segment"},
        {u"/a//b", "Not a usable part name: \"/a//b\": it has an empty segment"},
        {u"/a/", "Not a usable part name: \"/a/\": it has an empty segment"},
        {u".", "Not a usable part name: \".\": it has a dot segment"},
        {u"..", "Not a usable part name: \"..\": it has a dot segment"},
        {u"/..", "Not a usable part name: \"/..\": it has a dot segment"},
        {u"/../etc/passwd", "Not a usable part name: \"/../etc/passwd\": it has a dot segment"},
        {u"/a/../b", "Not a usable part name: \"/a/../b\": it has a dot segment"},
        {u"/a/./b", "Not a usable part name: \"/a/./b\": it has a dot segment"},
        {u"/a/..", "Not a usable part name: \"/a/..\": it has a dot segment"},
    };

    for (auto const& [name, message] : refusals)
        for (auto const* in : {u"/tmp/x", u"/tmp/x/", u""})
            EXPECT_THAT(([&, &wanted = name] { files.appendPath(in, wanted); }), throwsPackageError(message));
}

TEST_F(AppendPath, RefusesANameThatHoldsNulAndSaysWhy) {
    for (auto const& name : {u"/a\0b"s, u"/a/b\0"s, u"\0"s})
        EXPECT_THAT([&] { files.appendPath(u"/tmp/x", name); },
                    ThrowsMessage<opc::Exception>(
                        testing::AllOf(StartsWith("Not a usable part name: \""), HasSubstr("it holds a NUL"))));
}

TEST_F(AppendPath, TakesNamesThatAreLongerThanTheFileSystemTakes) {
    std::u16string const ascii(300, u'a');
    std::u16string const chinese(199, u'\u4E2D'); // 597 bytes

    EXPECT_EQ(files.appendPath(u"/x", u"/" + ascii + u"/b"), u"/x/" + ascii + u"/b");
    EXPECT_EQ(files.appendPath(u"/x", chinese), u"/x/" + chinese);
}

TEST_F(AppendPath, RefusesANameThatAShortenedOneHas) {
    auto const shortened = opc::toString(opc::detail::makeNativePath(std::u16string(300, u'a')), true);

    EXPECT_THAT([&] { files.appendPath(u"/x", u"/" + shortened); },
                throwsPackageError("Not a usable part name: \"/" + opc::toUDEString(shortened) +
                                   "\": it could be taken for a longer name that was shortened"));
}

TEST_F(AppendPath, TakesLongNamesThatNoShortenedOneHas) {
    std::u16string const head(218, u'a');

    for (auto const& name :
         {std::u16string(255, u'a'), head + u"~" + std::u16string(36, u'g'), head + u"-" + std::u16string(36, u'0'),
          u"~"s + std::u16string(36, u'0'), std::u16string(100, u'a') + u"~" + std::u16string(36, u'0'),
          std::u16string(214, u'a') + u"~" + std::u16string(36, u'0')}) // one byte too short
        EXPECT_EQ(files.appendPath(u"/x", name), u"/x/" + name);
}

TEST_F(AppendPath, NeverGivesTwoNamesTheSameFile) {
    std::vector<std::u16string> const names = {
        u"/a",
        u"/A",
        u"/a/b",
        u"/a\\b",
        u"/\u00E9",  // one character
        u"/e\u0301", // two that look the same
        u"/\uFFFD",
        {u'/', 0xD800},
        {u'/', 0xDC00},
        u"/" + std::u16string(300, u'a'),
        u"/" + std::u16string(301, u'a'),
        u"/" + std::u16string(300, u'a') + u"/b",
    };

    std::set<std::string> natives;
    for (auto const& name : names)
        natives.insert(opc::detail::makeNativePath(files.appendPath(path(""), name)));

    EXPECT_THAT(natives, SizeIs(names.size()));
}

// -------------------------------------------------------------------------------------- getFilename, getParentPath

struct PathParts {
    char16_t const* path;
    char16_t const* parent;
    char16_t const* filename;
};

TEST_F(LocalFileSystemOps, TakesPathsApart) {
    PathParts const table[] = {
        {u"", u"", u""},
        {u"a", u"", u"a"},
        {u"a/", u"", u"a"},
        {u"a//", u"", u"a"},
        {u"a/b", u"a", u"b"},
        {u"a/b/", u"a", u"b"},
        {u"a//b", u"a", u"b"},
        {u"a/b/c", u"a/b", u"c"},
        {u"/", u"/", u""},
        {u"//", u"/", u""},
        {u"/a", u"/", u"a"},
        {u"//a", u"/", u"a"},
        {u"/a/", u"/", u"a"},
        {u"/a/b", u"/a", u"b"},
        {u"/a/b//", u"/a", u"b"},
        {u"/a/b.txt", u"/a", u"b.txt"},
        {u"/a/.hidden", u"/a", u".hidden"},
        {u"./a", u".", u"a"},
        {u"../a", u"..", u"a"},
        {u"/a/..", u"/a", u".."},
        {u"/\u4E2D/\U0001F600.txt", u"/\u4E2D", u"\U0001F600.txt"},
        {u"a\\b/c\\d", u"a\\b", u"c\\d"},
    };

    for (auto const& [wholePath, parent, filename] : table) {
        EXPECT_EQ(files.getParentPath(wholePath), parent) << testing::PrintToString(wholePath);
        EXPECT_EQ(files.getFilename(wholePath), filename) << testing::PrintToString(wholePath);
    }
}

// ------------------------------------------------------------------------------------------------------ getTempName

using GetTempName = LocalFileSystemOps;

TEST_F(GetTempName, GivesAPathInTheTemporaryAreaWhereNothingExists) {
    testsupport::PrivateTemporaryArea const area;

    auto const name = files.getTempName(u"prefix-\u4E2D");

    EXPECT_THAT(opc::toUDEString(name), StartsWith(area.folder().path().native() + "/prefix-\u4E2D"));
    EXPECT_EQ(files.getParentPath(name), toCorePath(area.folder().path()));
    EXPECT_THAT(area.entries(), IsEmpty()); // the name is all that it makes
}

TEST_F(GetTempName, TakesAnEmptyPrefix) {
    testsupport::PrivateTemporaryArea const area;

    EXPECT_EQ(files.getParentPath(files.getTempName(u"")), toCorePath(area.folder().path()));
}

TEST_F(GetTempName, AddsAtLeast64BitsThatNobodyCanGuess) {
    constexpr std::size_t Names = 1000;
    std::set<std::u16string> names;
    std::vector<std::set<char16_t>> seenAtPlace(64);
    std::size_t shortest = 64;
    for (std::size_t i = 0; i < Names; ++i) {
        auto const random = files.getFilename(files.getTempName(u"p")).substr(1);
        names.insert(random);
        shortest = std::min(shortest, random.size());
        for (std::size_t place = 0; place < random.size(); ++place)
            seenAtPlace.at(place).insert(random[place]);
    }

    EXPECT_THAT(names, SizeIs(Names));
    EXPECT_GE(shortest, 16U); // of 16 digits each
    for (std::size_t place = 0; place < shortest; ++place)
        EXPECT_THAT(seenAtPlace[place], SizeIs(16)) << "the text is not random at " << place;
}

TEST_F(GetTempName, UsesTmpWhereTmpdirIsUnsetOrEmpty) {
    testsupport::PrivateTemporaryArea const restoresTmpdir;

    ::unsetenv("TMPDIR");
    EXPECT_EQ(files.getParentPath(files.getTempName(u"p")), u"/tmp");
    ::setenv("TMPDIR", "", 1);
    EXPECT_EQ(files.getParentPath(files.getTempName(u"p")), u"/tmp");
}

TEST_F(GetTempName, TakesTmpdirAtItsWordThoughItIsUnusable) {
    testsupport::PrivateTemporaryArea const restoresTmpdir;
    folder.write("file", "");

    ::setenv("TMPDIR", native("missing").c_str(), 1);
    EXPECT_EQ(files.getParentPath(files.getTempName(u"p")), path("missing"));
    ::setenv("TMPDIR", native("file").c_str(), 1);
    auto const underAFile = files.getTempName(u"p");
    EXPECT_EQ(files.getParentPath(underAFile), path("file"));
    EXPECT_NE(codeThrownBy([&] { files.createFolders(underAFile); }), error_code()); // here it shows
}

TEST_F(GetTempName, TakesAPrefixOfAnyLength) {
    testsupport::PrivateTemporaryArea const area;
    std::u16string const prefix(250, u'\u4E2D'); // 750 bytes

    auto const name = files.getTempName(prefix);
    files.createFolders(name);

    EXPECT_EQ(files.getFilename(name).substr(0, prefix.size()), prefix);
    EXPECT_THAT(area.entries(), SizeIs(1));
}

TEST_F(GetTempName, RefusesAPrefixThatLeadsOutOfTheArea) {
    EXPECT_THROW(files.getTempName(u"../"), opc::Exception);
    EXPECT_THROW(files.getTempName(u"a/../../b"), opc::Exception);
    EXPECT_THROW(files.getTempName(u"a\0b"s), opc::Exception);
}

// ---------------------------------------------------------------------------------------------------- normalizePath

class NormalizePath : public LocalFileSystemOps {
protected:
    void SetUp() override {
        makeFolder("real/inner");
        folder.write("real/file", "content");
        makeLink("link", "real");
        makeLink("linkToFile", "real/file");
    }

    std::u16string canonical(std::string_view name) const { return toCorePath(fs::canonical(folder.path()) / name); }
};

TEST_F(NormalizePath, LeavesACanonicalPathAsItIs) {
    EXPECT_EQ(files.normalizePath(canonical("real/file")), canonical("real/file"));
    EXPECT_EQ(files.normalizePath(canonical("real")), canonical("real"));
    EXPECT_EQ(files.normalizePath(u"/"), u"/");
}

TEST_F(NormalizePath, FailsForARelativePathWhereTheCurrentFolderIsGone) {
    makeFolder("gone");
    auto const earlier = fs::current_path();
    fs::current_path(folder / "gone");
    fs::remove(folder / "gone");

    EXPECT_THAT([&] { files.normalizePath(u"package.txt"); },
                ThrowsMessage<opc::Exception>(StartsWith("Could not resolve \"package.txt\": ")));

    fs::current_path(earlier);
}

TEST_F(NormalizePath, LeavesAnEmptyPathEmpty) {
    EXPECT_EQ(files.normalizePath(u""), u"");
}

TEST_F(NormalizePath, ResolvesDotsAndExtraSlashes) {
    EXPECT_EQ(files.normalizePath(path("real/./inner/../file")), canonical("real/file"));
    EXPECT_EQ(files.normalizePath(path("real//inner///..//file")), canonical("real/file"));
    EXPECT_EQ(files.normalizePath(u"/.."), u"/");
}

TEST_F(NormalizePath, ResolvesLinksBeforeTheDotsThatFollow) {
    makeLink("toInner", "real/inner");

    EXPECT_EQ(files.normalizePath(path("link/file")), canonical("real/file"));
    EXPECT_EQ(files.normalizePath(path("linkToFile")), canonical("real/file"));
    EXPECT_EQ(files.normalizePath(path("toInner/../file")), canonical("real/file"));
}

TEST_F(NormalizePath, TakesARelativePathFromTheCurrentFolder) {
    auto const earlier = fs::current_path();
    fs::current_path(folder / "real");

    auto const file = files.normalizePath(u"file");
    auto const above = files.normalizePath(u"../real/./file");
    auto const missing = files.normalizePath(u"missing");
    fs::current_path(earlier);

    EXPECT_EQ(file, canonical("real/file"));
    EXPECT_EQ(above, canonical("real/file"));
    EXPECT_EQ(missing, canonical("real/missing"));
}

TEST_F(NormalizePath, KeepsTheTailThatDoesNotExist) {
    EXPECT_EQ(files.normalizePath(path("link/missing/file.txt")), canonical("real/missing/file.txt"));
    EXPECT_EQ(files.normalizePath(path("link/missing/../file.txt")), canonical("real/file.txt"));
}

TEST_F(NormalizePath, KeepsALinkThatLeadsNowhere) {
    makeLink("dangling", "missing");

    EXPECT_EQ(files.normalizePath(path("dangling")), canonical("dangling"));
}

TEST_F(NormalizePath, IsDoneAfterOneTime) {
    for (auto const* name : {"link/file", "link/missing/x", "real/inner/..", "link/"}) {
        auto const once = files.normalizePath(path(name));

        EXPECT_EQ(files.normalizePath(once), once);
    }
}

TEST_F(NormalizePath, RefusesALoopOfLinksAndNamesThePath) {
    makeLink("a", "b");
    makeLink("b", "a");
    auto const normalize = [&] { files.normalizePath(path("a/file")); };

    EXPECT_THAT(normalize, ThrowsMessage<opc::Exception>(HasSubstr(native("a/file"))));
    EXPECT_EQ(codeThrownBy(normalize), errc::too_many_symbolic_link_levels);
}

TEST_F(NormalizePath, RefusesALinkToAPathThatIsNoUtf8AndSaysWhy) {
    for (std::string const name : {"\xFF", "\xFFxyz", "\xED", "\xED\xA0", "\xED\x41\x80", "\xED\xA0\x41"}) {
        makeFolder("odd/" + name);
        makeLink("link to it", "odd/" + name);

        EXPECT_THAT([&] { files.normalizePath(path("link to it")); },
                    ThrowsMessage<opc::Exception>(StartsWith("Ill-formed UTF-8 at byte ")))
            << testing::PrintToString(name);
        fs::remove(folder / "link to it");
    }
}

TEST_F(NormalizePath, KeepsLongNamesUsable) {
    auto const name = path("real") + u"/" + std::u16string(300, u'\u4E2D');
    files.createOutputStream(name, 20).reset();

    auto const normalized = files.normalizePath(name);

    EXPECT_TRUE(files.isFile(normalized));
    EXPECT_EQ(opc::detail::makeNativePath(normalized),
              opc::detail::makeNativePath(canonical("real") + u"/" + std::u16string(300, u'\u4E2D')));
}

TEST_F(NormalizePath, KeepsEveryUnitAtTheBordersOfTheSurrogates) {
    std::u16string const units{0xD7FF, 0xD800, 0xDBFF, 0xDC00, 0xDFFF, 0xE000};
    makeFolder("units");
    for (auto const first : units) {
        for (auto const second : units) {
            auto const name = canonical("units") + u"/" + std::u16string{u'a', first, second, u'z'};
            files.createOutputStream(name, 20).reset();

            EXPECT_EQ(files.normalizePath(name), name) << std::hex << unsigned{first} << ' ' << unsigned{second};
        }
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(folder / "units"), {}), 36);
}

TEST_F(NormalizePath, KeepsALoneSurrogate) {
    auto const name = canonical("real") + u"/" + std::u16string{u'a', 0xD83D};

    EXPECT_EQ(files.normalizePath(name), name);
    files.createOutputStream(name, 20).reset();
    EXPECT_EQ(files.normalizePath(name), name);
}

// --------------------------------------------------------------------------------------------------- exists, isFile

struct Kind {
    char const* name;
    bool exists;
    bool isFile;
};

TEST_F(LocalFileSystemOps, TellsWhatExistsAndWhatIsAFile) {
    folder.write("file", "content");
    folder.write("empty", "");
    makeFolder("folder");
    makeFifo("fifo");
    makeLink("linkToFile", "file");
    makeLink("linkToLink", "linkToFile");
    makeLink("linkToFolder", "folder");
    makeLink("dangling", "missing");
    Kind const kinds[] = {
        {"file", true, true},         {"empty", true, true},          {"folder", true, false},
        {"folder/", true, false},     {"fifo", true, false},          {"linkToFile", true, true},
        {"linkToLink", true, true},   {"linkToFolder", true, false},  {"dangling", false, false},
        {"missing", false, false},    {"missing/file", false, false}, {"file/beneath", false, false},
        {"dangling/x", false, false}, {"folder/../file", true, true},
    };

    for (auto const& [name, exists, isFile] : kinds) {
        EXPECT_EQ(files.exists(path(name)), exists) << name;
        EXPECT_EQ(files.isFile(path(name)), isFile) << name;
    }
    EXPECT_TRUE(files.exists(u"/dev/null"));
    EXPECT_FALSE(files.isFile(u"/dev/null"));
    EXPECT_FALSE(files.exists(u""));
    EXPECT_FALSE(files.isFile(u""));
}

TEST_F(LocalFileSystemOps, SaysThatItCannotTellWhatExistsBehindALoopOfLinks) {
    makeLink("a", "b");
    makeLink("b", "a");

    EXPECT_THAT([&] { files.exists(path("a")); },
                throwsPackageError("Could not examine \"" + native("a") + "\": Too many levels of symbolic links"));
    EXPECT_EQ(codeThrownBy([&] { files.exists(path("a")); }), errc::too_many_symbolic_link_levels);
    EXPECT_EQ(codeThrownBy([&] { files.isFile(path("a/x")); }), errc::too_many_symbolic_link_levels);
}

TEST_F(LocalFileSystemOps, SaysThatItCannotTellWhatExistsInAFolderThatMayNotBeSearched) {
    if (runsAsRoot())
        GTEST_SKIP() << "root may search every folder";
    makeFolder("closed");
    fs::permissions(folder / "closed", fs::perms::none);

    EXPECT_EQ(codeThrownBy([&] { files.exists(path("closed/x")); }), errc::permission_denied);
    EXPECT_EQ(codeThrownBy([&] { files.isFile(path("closed/x")); }), errc::permission_denied);

    fs::permissions(folder / "closed", fs::perms::owner_all);
}

// ---------------------------------------------------------------------------------------------------- createFolders

class CreateFolders : public LocalFileSystemOps {
protected:
    /// Calls the form that reports to a code, which an earlier call has left set.
    error_code reportedFor(std::u16string const& wanted) const {
        auto code = staleCode();
        files.createFolders(wanted, code);
        return code;
    }

    std::string thrownFor(std::u16string const& wanted) const {
        try {
            files.createFolders(wanted);
        } catch (opc::Exception const& failure) {
            return failure.what();
        }
        return "nothing was thrown";
    }
};

TEST_F(CreateFolders, MakesTheFolderAndEveryMissingAncestorForTheOwnerAlone) {
    Umask const nothingMasked(0);
    makeFolder("there");
    fs::permissions(folder / "there", fs::perms(0755));

    files.createFolders(path("there/a/b/c"));

    EXPECT_EQ(permissionsOf(folder / "there"), 0755U); // as it was
    for (auto const* name : {"there/a", "there/a/b", "there/a/b/c"})
        EXPECT_EQ(permissionsOf(folder / name), 0700U) << name;
}

TEST_F(CreateFolders, ClearsTheCodeOnSuccess) {
    EXPECT_EQ(reportedFor(path("a/b")), error_code());
    EXPECT_TRUE(fs::is_directory(folder / "a/b"));
    EXPECT_EQ(reportedFor(path("a/b")), error_code()); // it is there already
}

TEST_F(CreateFolders, LeavesAnExistingFolderAsItIs) {
    folder.write("there/file", "content");
    fs::permissions(folder / "there", fs::perms(0711));

    files.createFolders(path("there"));

    EXPECT_EQ(permissionsOf(folder / "there"), 0711U);
    EXPECT_EQ(folder.read("there/file"), "content");
}

TEST_F(CreateFolders, TakesExtraSlashesAndDotsAndLinksToFolders) {
    makeFolder("real");
    makeLink("link", "real");

    files.createFolders(path("a//b///"));
    files.createFolders(path("a/./c/../d"));
    files.createFolders(path("link/inner"));
    files.createFolders(path("link"));
    files.createFolders(u"/");

    for (auto const* name : {"a/b", "a/c", "a/d", "real/inner"})
        EXPECT_TRUE(fs::is_directory(folder / name)) << name;
}

TEST_F(CreateFolders, TakesARelativePathFromTheCurrentFolder) {
    auto const earlier = fs::current_path();
    fs::current_path(folder.path());

    files.createFolders(u"relative/inner");
    fs::current_path(earlier);

    EXPECT_TRUE(fs::is_directory(folder / "relative/inner"));
}

TEST_F(CreateFolders, RefusesAFileInTheWay) {
    folder.write("file", "content");
    auto const wanted = "Could not create folder \"" + native("file") + "\": File exists";

    for (auto const* name : {"file", "file/inner", "file/inner/most"}) {
        EXPECT_EQ(thrownFor(path(name)), wanted) << name;
        EXPECT_EQ(codeThrownBy([&] { files.createFolders(path(name)); }), errc::file_exists);
        EXPECT_EQ(reportedFor(path(name)), systemCode(errc::file_exists));
    }

    EXPECT_EQ(folder.read("file"), "content");
}

TEST_F(CreateFolders, RefusesALinkThatLeadsNowhere) {
    makeLink("dangling", "missing");

    EXPECT_EQ(thrownFor(path("dangling/inner")), "Could not create folder \"" + native("dangling") + "\": File exists");

    EXPECT_THAT(folder.entries(), ElementsAre("dangling"));
}

TEST_F(CreateFolders, RefusesAnEmptyPath) {
    EXPECT_EQ(thrownFor(u""), "Could not create folder \"\": No such file or directory");
    EXPECT_EQ(reportedFor(u""), systemCode(errc::no_such_file_or_directory));
}

TEST_F(CreateFolders, RefusesAPathThatHoldsNulAndMakesNothing) {
    auto const wanted = path("a/b") + u'\0' + u"/c";

    EXPECT_EQ(thrownFor(wanted), "A path must not hold NUL: \"" + native("a/b") + "\"...");
    EXPECT_EQ(reportedFor(wanted), systemCode(errc::invalid_argument));

    EXPECT_THAT(folder.entries(), IsEmpty());
}

TEST_F(CreateFolders, RefusesAFolderThatMayNotBeWrittenTo) {
    if (runsAsRoot())
        GTEST_SKIP() << "root may write to every folder";
    makeFolder("closed");
    fs::permissions(folder / "closed", fs::perms(0500));

    EXPECT_EQ(thrownFor(path("closed/inner")),
              "Could not create folder \"" + native("closed/inner") + "\": Permission denied");
    EXPECT_EQ(reportedFor(path("closed/inner")), systemCode(errc::permission_denied));
}

// --------------------------------------------------------------------------------------------------- setPermissions

TEST_F(LocalFileSystemOps, SetsThePermissionsOfAFileOrFolder) {
    auto const file = folder.write("file", "content");
    makeFolder("inner");
    fs::permissions(folder / "file", fs::perms(0666));

    files.setPermissions(file, opc::Perms::OwnerReadWrite);
    EXPECT_EQ(permissionsOf(folder / "file"), 0600U);
    files.setPermissions(file, static_cast<opc::Perms::Perms_tag>(0444));
    EXPECT_EQ(permissionsOf(folder / "file"), 0444U);
    files.setPermissions(file, opc::Perms::None);
    EXPECT_EQ(permissionsOf(folder / "file"), 0U);
    files.setPermissions(path("inner"), opc::Perms::OwnerAll);
    EXPECT_EQ(permissionsOf(folder / "inner"), 0700U);
}

TEST_F(LocalFileSystemOps, SetsThePermissionsThatItWasGivenWhateverTheUmask) {
    Umask const mask(0777);
    auto const file = path("file");
    std::ofstream(folder / "file").close();

    files.setPermissions(file, opc::Perms::OwnerReadWrite);

    EXPECT_EQ(permissionsOf(folder / "file"), 0600U);
}

TEST_F(LocalFileSystemOps, RefusesToSetThePermissionsOfAMissingFile) {
    auto const set = [&] { files.setPermissions(path("missing"), opc::Perms::OwnerReadWrite); };

    EXPECT_THAT(set, throwsPackageError("Could not set the permissions of \"" + native("missing") +
                                        "\": No such file or directory"));
    EXPECT_EQ(codeThrownBy(set), errc::no_such_file_or_directory);
}

// ------------------------------------------------------------------------------------------------------------- copy

class Copy : public LocalFileSystemOps, public testing::WithParamInterface<ExistsMode> {
protected:
    void copy(std::string_view from, std::string_view to, ExistsMode mode) const {
        files.copy(path(from), path(to), mode);
    }
};

INSTANTIATE_TEST_SUITE_P(Mode, Copy, testing::Values(ExistsMode::Fail, ExistsMode::Overwrite),
                         testing::PrintToStringParamName());

TEST_P(Copy, CopiesEveryByteToANewFile) {
    std::string content("\0\r\n\xFF", 4);
    for (int i = 0; i < 50000; ++i)
        content += std::to_string(i);
    folder.write("from", content);
    folder.write("empty", "");

    copy("from", "to", GetParam());
    copy("empty", "emptyCopy", GetParam());

    EXPECT_TRUE(folder.read("to") == content);
    EXPECT_TRUE(folder.read("from") == content);
    EXPECT_EQ(folder.read("emptyCopy"), "");
    EXPECT_THAT(folder.entries(), ElementsAre("empty", "emptyCopy", "from", "to"));
}

TEST_P(Copy, CopiesThePermissionBits) {
    Umask const nothingMasked(0);
    folder.write("from", "content");

    for (unsigned const permissions : {0600U, 0644U, 0755U, 0440U}) {
        fs::permissions(folder / "from", fs::perms(permissions));
        copy("from", "to", GetParam());
        EXPECT_EQ(permissionsOf(folder / "to"), permissions);
        fs::remove(folder / "to");
    }
}

TEST_P(Copy, CopiesThePermissionBitsOnlyAsFarAsTheUmaskAllows) {
    folder.write("from", "content");
    fs::permissions(folder / "from", fs::perms(0666));
    Umask const mask(077);

    copy("from", "to", GetParam());

    EXPECT_EQ(permissionsOf(folder / "to"), 0600U);
}

TEST_P(Copy, GivesACopyThatLivesItsOwnLife) {
    folder.write("from", "content");
    copy("from", "to", GetParam());

    std::ofstream(folder / "from") << "changed";

    EXPECT_EQ(folder.read("to"), "content");
    EXPECT_EQ(fs::hard_link_count(folder / "to"), 1U);
}

TEST_P(Copy, FollowsALinkAtItsSource) {
    folder.write("from", "content");
    makeLink("link", "from");

    copy("link", "to", GetParam());

    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(folder / "to")));
    EXPECT_EQ(folder.read("to"), "content");
}

TEST_P(Copy, RefusesAMissingSource) {
    auto const copying = [&] { copy("missing", "to", GetParam()); };

    EXPECT_THAT(copying, throwsPackageError("Could not open \"" + native("missing") + "\": No such file or directory"));
    EXPECT_EQ(codeThrownBy(copying), errc::no_such_file_or_directory);
    EXPECT_THAT(folder.entries(), IsEmpty());
}

TEST_P(Copy, RefusesASourceThatIsNoFileWithoutWaitingForIt) {
    makeFolder("folder");
    makeFifo("fifo");

    EXPECT_THAT([&] { copy("folder", "to", GetParam()); },
                throwsPackageError("Could not copy \"" + native("folder") + "\": Is a directory"));
    EXPECT_EQ(codeThrownBy([&] { copy("folder", "to", GetParam()); }), errc::is_a_directory);
    EXPECT_THAT([&] { copy("fifo", "to", GetParam()); },
                throwsPackageError("Could not copy \"" + native("fifo") + "\": Invalid argument"));
    EXPECT_EQ(codeThrownBy([&] { files.copy(u"/dev/zero", path("to"), GetParam()); }), errc::invalid_argument);

    EXPECT_THAT(folder.entries(), ElementsAre("fifo", "folder"));
}

TEST_P(Copy, RefusesAMissingFolderAtItsDestination) {
    folder.write("from", "content");
    auto const copying = [&] { copy("from", "missing/to", GetParam()); };

    EXPECT_THAT(copying, ThrowsMessage<opc::Exception>(HasSubstr(native("missing"))));
    EXPECT_EQ(codeThrownBy(copying), errc::no_such_file_or_directory);
    EXPECT_THAT(folder.entries(), ElementsAre("from"));
}

TEST_P(Copy, RefusesAFolderAtItsDestination) {
    folder.write("from", "content");
    makeFolder("to");
    auto const copying = [&] { copy("from", "to", GetParam()); };

    EXPECT_THAT(copying, ThrowsMessage<opc::Exception>(HasSubstr(native("to"))));
    EXPECT_NE(codeThrownBy(copying), error_code());
    EXPECT_THAT(folder.entries(), ElementsAre("from", "to"));
    EXPECT_TRUE(fs::is_empty(folder / "to"));
}

TEST_P(Copy, LeavesNoDestinationWhenItFailsAtAnyByte) {
    std::string const content(40, 'x');
    folder.write("from", content);

    for (std::size_t room = 0; room < content.size(); ++room) {
        error_code code;
        {
            FileSizeLimit const limit(room);
            code = codeThrownBy([&] { copy("from", "to", GetParam()); });
        }
        EXPECT_EQ(code, errc::file_too_large) << room;
        EXPECT_THAT(folder.entries(), ElementsAre("from")) << room;
    }
}

TEST_P(Copy, LeavesNoDestinationWhenALargeOneFails) {
    std::string const content(300000, 'x');
    folder.write("from", content);

    for (std::size_t const room : {std::size_t{1}, std::size_t{65536}, content.size() - 1}) {
        error_code code;
        {
            FileSizeLimit const limit(room);
            code = codeThrownBy([&] { copy("from", "to", GetParam()); });
        }
        EXPECT_EQ(code, errc::file_too_large) << room;
        EXPECT_THAT(folder.entries(), ElementsAre("from")) << room;
    }
}

TEST_F(Copy, ToFailLeavesNoDestinationWhenItCannotBeClosed) {
    folder.write("from", "content");
    CloseWatch const watch([&](std::string const& closed) { return closed == native("to") ? EIO : 0; });
    auto const copying = [&] { files.copy(path("from"), path("to"), ExistsMode::Fail); };

    EXPECT_THAT(copying, throwsPackageError("Could not close \"" + native("to") + "\": Input/output error"));
    EXPECT_EQ(codeThrownBy(copying), errc::io_error);

    EXPECT_THAT(folder.entries(), ElementsAre("from"));
}

TEST_F(Copy, ToFailTakesAnInterruptedCloseForDone) {
    folder.write("from", "content");
    CloseWatch const watch([&](std::string const& closed) { return closed == native("to") ? EINTR : 0; });

    files.copy(path("from"), path("to"), ExistsMode::Fail);

    EXPECT_EQ(folder.read("to"), "content");
}

TEST_P(Copy, SucceedsWhereThereIsJustEnoughRoom) {
    folder.write("from", std::string(40, 'x'));
    {
        FileSizeLimit const limit(40);
        copy("from", "to", GetParam());
    }

    EXPECT_EQ(folder.read("to"), std::string(40, 'x'));
}

TEST_P(Copy, LeavesNoDestinationWhenItsSourceCannotBeRead) {
    EXPECT_EQ(codeThrownBy([&] { files.copy(u"/proc/self/mem", path("to"), GetParam()); }), errc::io_error);

    EXPECT_THAT(folder.entries(), IsEmpty());
}

TEST_F(Copy, ToFailLeavesAnExistingFileAsItIs) {
    folder.write("from", "new");
    folder.write("to", "old");
    auto const copying = [&] { copy("from", "to", ExistsMode::Fail); };

    EXPECT_THAT(copying, throwsPackageError("Could not open \"" + native("to") + "\": File exists"));
    EXPECT_EQ(codeThrownBy(copying), errc::file_exists);
    EXPECT_EQ(codeThrownBy([&] { copy("from", "from", ExistsMode::Fail); }), errc::file_exists);

    EXPECT_EQ(folder.read("to"), "old");
    EXPECT_EQ(folder.read("from"), "new");
}

TEST_F(Copy, ToFailRefusesALinkThatSomebodyPlanted) {
    folder.write("from", "new");
    folder.write("real", "old");
    makeLink("dangling", "elsewhere");
    makeLink("link", "real");

    EXPECT_EQ(codeThrownBy([&] { copy("from", "dangling", ExistsMode::Fail); }), errc::file_exists);
    EXPECT_EQ(codeThrownBy([&] { copy("from", "link", ExistsMode::Fail); }), errc::file_exists);

    EXPECT_THAT(folder.entries(), ElementsAre("dangling", "from", "link", "real")); // no "elsewhere"
    EXPECT_EQ(folder.read("real"), "old");
}

TEST_F(Copy, ToOverwriteReplacesAFile) {
    folder.write("from", "new");
    folder.write("to", "a much longer old content");

    copy("from", "to", ExistsMode::Overwrite);

    EXPECT_EQ(folder.read("to"), "new");
    EXPECT_THAT(folder.entries(), ElementsAre("from", "to"));
}

TEST_F(Copy, ToOverwriteReplacesALinkAndNotWhatItLeadsTo) {
    folder.write("from", "new");
    folder.write("real", "old");
    makeLink("link", "real");
    makeLink("dangling", "elsewhere");

    copy("from", "link", ExistsMode::Overwrite);
    copy("from", "dangling", ExistsMode::Overwrite);

    EXPECT_EQ(folder.read("real"), "old");
    EXPECT_THAT(folder.entries(), ElementsAre("dangling", "from", "link", "real"));
    for (auto const* name : {"link", "dangling"}) {
        EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(folder / name))) << name;
        EXPECT_EQ(folder.read(name), "new");
    }
}

TEST_F(Copy, ToOverwriteLeavesOtherNamesOfTheOldFileAlone) {
    folder.write("from", "new");
    folder.write("to", "old");
    fs::create_hard_link(folder / "to", folder / "other");

    copy("from", "to", ExistsMode::Overwrite);

    EXPECT_EQ(folder.read("to"), "new");
    EXPECT_EQ(folder.read("other"), "old");
}

TEST_F(Copy, ToOverwriteKeepsAFileThatIsCopiedToItself) {
    folder.write("file", "content");

    copy("file", "file", ExistsMode::Overwrite);

    EXPECT_EQ(folder.read("file"), "content");
    EXPECT_THAT(folder.entries(), ElementsAre("file"));
}

TEST_F(Copy, ToOverwriteKeepsTheOldFileWhenItFailsAtAnyByte) {
    std::string const content(40, 'x');
    folder.write("from", content);
    folder.write("to", "old");
    fs::permissions(folder / "to", fs::perms(0640));

    for (std::size_t room = 0; room < content.size(); ++room) {
        error_code code;
        {
            FileSizeLimit const limit(room);
            code = codeThrownBy([&] { copy("from", "to", ExistsMode::Overwrite); });
        }
        EXPECT_EQ(code, errc::file_too_large) << room;
        EXPECT_EQ(folder.read("to"), "old") << room;
        EXPECT_EQ(permissionsOf(folder / "to"), 0640U);
        EXPECT_THAT(folder.entries(), ElementsAre("from", "to")) << room;
    }
}

// -------------------------------------------------------------------------------------------------- remove, removeAll

TEST_F(LocalFileSystemOps, RemovesAFileAndSaysWhetherThereWasOne) {
    folder.write("file", "content");
    folder.write("other", "content");
    auto code = staleCode();

    EXPECT_TRUE(files.remove(path("file"), code));
    EXPECT_EQ(code, error_code());
    code = staleCode();
    EXPECT_FALSE(files.remove(path("file"), code));
    EXPECT_EQ(code, error_code());
    EXPECT_FALSE(files.remove(path("other/beneath"), code));
    EXPECT_EQ(code, error_code());

    EXPECT_THAT(folder.entries(), ElementsAre("other"));
}

TEST_F(LocalFileSystemOps, RemovesALinkAndNotWhatItLeadsTo) {
    folder.write("real/file", "content");
    makeLink("link", "real/file");
    makeLink("linkToFolder", "real");
    makeLink("dangling", "missing");
    error_code code;

    for (auto const* name : {"link", "linkToFolder", "dangling"})
        EXPECT_TRUE(files.remove(path(name), code)) << name;

    EXPECT_EQ(code, error_code());
    EXPECT_THAT(folder.entries(), ElementsAre("real"));
    EXPECT_EQ(folder.read("real/file"), "content");
}

TEST_F(LocalFileSystemOps, RemovesAFileThatCannotBeReadOrWritten) {
    folder.write("file", "content");
    fs::permissions(folder / "file", fs::perms::none);
    error_code code;

    EXPECT_TRUE(files.remove(path("file"), code));
    EXPECT_EQ(code, error_code());
}

TEST_F(LocalFileSystemOps, RefusesToRemoveAFolderAsAFile) {
    folder.write("inner/file", "content");
    makeFolder("empty");
    error_code code;

    EXPECT_FALSE(files.remove(path("inner"), code));
    EXPECT_EQ(code, errc::is_a_directory);
    EXPECT_FALSE(files.remove(path("empty"), code));
    EXPECT_EQ(code, errc::is_a_directory);

    EXPECT_EQ(folder.read("inner/file"), "content");
    EXPECT_TRUE(fs::exists(folder / "empty"));
}

TEST_F(LocalFileSystemOps, ReportsAPathThatHoldsNulAndRemovesNothing) {
    folder.write("a", "content");
    error_code code;

    EXPECT_FALSE(files.remove(path("a") + u'\0' + u"b", code));
    EXPECT_EQ(code, errc::invalid_argument);
    EXPECT_EQ(files.removeAll(path("a") + u'\0' + u"b", code), 0U);
    EXPECT_EQ(code, errc::invalid_argument);

    EXPECT_EQ(folder.read("a"), "content");
}

TEST_F(LocalFileSystemOps, RemovesAFolderWithAllThatIsInIt) {
    folder.write("tree/file", "content");
    folder.write("tree/inner/other", "content");
    makeFolder("tree/empty");
    makeFifo("tree/fifo");
    folder.write("beside", "content");
    auto code = staleCode();

    EXPECT_EQ(files.removeAll(path("tree"), code), 6U);

    EXPECT_EQ(code, error_code());
    EXPECT_THAT(folder.entries(), ElementsAre("beside"));
}

TEST_F(LocalFileSystemOps, RemovesASingleFileAsATree) {
    folder.write("file", "content");
    error_code code;

    EXPECT_EQ(files.removeAll(path("file"), code), 1U);
    EXPECT_EQ(code, error_code());
    EXPECT_THAT(folder.entries(), IsEmpty());
}

TEST_F(LocalFileSystemOps, FollowsNoLinkOutOfATreeThatItRemoves) {
    folder.write("outside/file", "content");
    folder.write("tree/file", "content");
    makeLink("tree/link", folder / "outside");
    makeLink("tree/linkToFile", folder / "outside/file");
    makeLink("tree/up", "..");
    error_code code;

    EXPECT_EQ(files.removeAll(path("tree"), code), 5U);

    EXPECT_EQ(code, error_code());
    EXPECT_THAT(folder.entries(), ElementsAre("outside"));
    EXPECT_EQ(folder.read("outside/file"), "content");
}

TEST_F(LocalFileSystemOps, RemovesALinkToATreeAndNotTheTree) {
    folder.write("outside/file", "content");
    makeLink("link", "outside");
    error_code code;

    EXPECT_EQ(files.removeAll(path("link"), code), 1U);

    EXPECT_THAT(folder.entries(), ElementsAre("outside"));
    EXPECT_EQ(folder.read("outside/file"), "content");
}

TEST_F(LocalFileSystemOps, RemovesNothingWithoutComplaintWhereThereIsNoTree) {
    folder.write("file", "content");

    for (auto const* name : {"missing", "missing/inner", "file/inner"}) {
        auto code = staleCode();
        EXPECT_EQ(files.removeAll(path(name), code), 0U) << name;
        EXPECT_EQ(code, error_code()) << name;
    }
    auto code = staleCode();
    EXPECT_EQ(files.removeAll(u"", code), 0U);

    EXPECT_THAT(folder.entries(), ElementsAre("file"));
}

TEST_F(LocalFileSystemOps, RemovesATreeOfAnyDepthWithFewDescriptors) {
    auto deep = path("tree");
    for (int level = 0; level < 1000; ++level)
        deep += level % 2 == 0 ? u"/a" : u"/b";
    files.createFolders(deep);
    folder.write("tree/a/b/a/z", "content");
    struct rlimit before {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    struct rlimit const few{256, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    error_code code;

    EXPECT_EQ(files.removeAll(path("tree"), code), 1002U);

    EXPECT_EQ(code, error_code());
    EXPECT_THAT(folder.entries(), IsEmpty());
    ::setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(LocalFileSystemOps, ClosesAFolderThatItOpensWhereStandardInputWas) {
    folder.write("tree/file", "");
    int const input = ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
    ASSERT_NE(input, -1);
    ::close(STDIN_FILENO); // whose number the next takes that is opened
    error_code code;

    EXPECT_EQ(files.removeAll(path("tree"), code), 2U);

    EXPECT_EQ(::fcntl(STDIN_FILENO, F_GETFD), -1);
    EXPECT_EQ(::dup2(input, STDIN_FILENO), STDIN_FILENO);
    ::close(input);
}

TEST_F(LocalFileSystemOps, ReportsWantOfMemoryAsACode) {
    auto const file = folder.write("file", "content");
    auto const newFile = path("other");
    auto const newFolder = path("new/folder");
    auto const tree = path("tree");
    folder.write("tree/inner/file", "content");
    std::vector<std::function<void(error_code&)>> const calls{
        [&](error_code& code) { files.createFolders(newFolder, code); },
        [&](error_code& code) { files.createInputStream(file, 12, code); },
        [&](error_code& code) { files.createOutputStream(newFile, 20, code); },
        [&](error_code& code) { files.remove(file, code); },
        [&](error_code& code) { files.removeAll(tree, code); },
    };
    for (auto const& call : calls) {
        error_code code;
        for (std::size_t number = 0;; ++number) {
            auto const attempt = attemptWithout(number, [&] { call(code); });
            EXPECT_FALSE(attempt.failed);
            EXPECT_EQ(code, attempt.ranOutOfMemory ? systemCode(errc::not_enough_memory) : error_code()) << number;
            if (!attempt.ranOutOfMemory)
                break;
        }
    }
}

TEST_F(LocalFileSystemOps, ReportsATreeThatMayNotBeRemoved) {
    if (runsAsRoot())
        GTEST_SKIP() << "root may remove every tree";
    folder.write("tree/closed/file", "content");
    fs::permissions(folder / "tree/closed", fs::perms(0500));
    error_code code;

    files.removeAll(path("tree"), code);
    EXPECT_EQ(code, errc::permission_denied);
    code.clear();
    files.remove(path("tree/closed/file"), code);
    EXPECT_EQ(code, errc::permission_denied);

    fs::permissions(folder / "tree/closed", fs::perms::owner_all);
    EXPECT_EQ(folder.read("tree/closed/file"), "content");
}

TEST_F(LocalFileSystemOps, SaysWhyWhatIsDeepInATreeCannotBeRemoved) {
    folder.write("tree/a/b/disk/file", "content");
    testsupport::SmallDisk const disk(folder / "tree/a/b/disk");
    if (!disk.whyNot().empty())
        GTEST_SKIP() << disk.whyNot();
    error_code code;

    files.removeAll(path("tree"), code);

    EXPECT_EQ(code, errc::device_or_resource_busy);
    EXPECT_TRUE(fs::is_directory(folder / "tree/a/b/disk"));
}

// ------------------------------------------------------------------------------------------------------- long names

/// Names that take more than the 255 bytes of a component, or end in half a pair.
std::vector<std::u16string> const strangeNames = {
    std::u16string(256, u'a'),
    std::u16string(199, u'\u4E2D'),
    std::u16string(250, u'\u00E9'),
    std::u16string(249, u'\u4E2D') + char16_t{0xD83D},
    std::u16string(100, u'a') + char16_t{0xDE00},
    std::u16string(5000, u'a'),
};

TEST_F(LocalFileSystemOps, TakesStrangeNamesInEveryOperation) {
    for (auto const& name : strangeNames) {
        auto const inner = path("") + name;
        auto const file = inner + u"/" + name;
        auto const copy = file + u".copy";
        error_code code;

        files.createFolders(inner);
        files.createFolders(inner, code);
        EXPECT_EQ(code, error_code());
        EXPECT_EQ(files.getFilename(file), name);
        EXPECT_EQ(files.getParentPath(file), inner);
        EXPECT_FALSE(files.exists(file));
        *files.createOutputStream(file, 20) << "content";
        *files.createOutputStream(file, 20 | opc::StreamMode::App, code) << " and more";
        EXPECT_TRUE(files.exists(file));
        EXPECT_TRUE(files.isFile(file));
        files.setPermissions(file, opc::Perms::OwnerReadWrite);
        files.copy(file, copy, ExistsMode::Fail);
        files.copy(file, copy, ExistsMode::Overwrite);
        opc::LocalFileSystemOps source;
        opc::CommitOptions options;
        options.keepBackup = true;
        files.replaceFileWithBackup(file, source, copy, options);
        EXPECT_FALSE(files.exists(copy));

        std::string content;
        std::getline(*files.createInputStream(file, 12), content);
        EXPECT_EQ(content, "content and more");
        std::getline(*files.createInputStream(file + u".bak", 12, code), content);
        EXPECT_EQ(content, "content and more");
        EXPECT_TRUE(files.remove(file, code));
        EXPECT_EQ(files.removeAll(inner, code), 2U);
        EXPECT_EQ(code, error_code());
    }

    EXPECT_THAT(folder.entries(), IsEmpty());
}

TEST_F(LocalFileSystemOps, KeepsFilesApartWhoseLongNamesDifferAtTheEnd) {
    std::u16string const name(300, u'\u4E2D');

    *files.createOutputStream(path("") + name + u"1", 20) << "first";
    *files.createOutputStream(path("") + name + u"2", 20) << "second";

    std::string content;
    std::getline(*files.createInputStream(path("") + name + u"1", 12), content);
    EXPECT_EQ(content, "first");
    EXPECT_THAT(folder.entries(), SizeIs(2));
}

} // namespace
