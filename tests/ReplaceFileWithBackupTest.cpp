#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <istream>
#include <map>
#include <memory>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <opccore/CommitOptions.hpp>
#include <opccore/LocalFileSystemOps.hpp>
#include <tests/support/FileSizeLimit.hpp>
#include <tests/support/Permissions.hpp>
#include <tests/support/SyncWatch.hpp>
#include <tests/support/TemporaryFolder.hpp>
#include <tests/support/Throws.hpp>

namespace {

/// The errno value that link(2) fails with; 0: none.
int linkError = 0;

namespace fs = std::filesystem;
namespace errc = boost::system::errc;
using boost::system::error_code;
using opc::CommitOptions;
using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSubsetOf;
using testing::Not;
using testing::ThrowsMessage;
using testsupport::codeThrownBy;
using testsupport::FileSizeLimit;
using testsupport::permissionsOf;
using testsupport::runsAsRoot;
using testsupport::SyncWatch;
using testsupport::throwsPackageError;
using testsupport::toCorePath;
using testsupport::Umask;

/// A file system of a host's own: files in memory that can be read and removed, and nothing else.
class MemoryFileSystem : public opc::FileSystemOps {
public:
    mutable std::map<std::u16string, std::string> contents;

    std::shared_ptr<std::istream> createInputStream(std::u16string const& path, unsigned /*mode*/) const override {
        auto const found = contents.find(path);
        if (found == contents.end())
            throw opc::Exception("no such file in memory", errc::make_error_code(errc::no_such_file_or_directory));
        return open(found->second);
    }
    bool remove(std::u16string const& path, error_code& code) const override {
        code.clear();
        return contents.erase(path) > 0;
    }

    std::u16string appendPath(std::u16string const&, std::u16string const&) const override { unexpected(); }
    std::u16string getFilename(std::u16string const&) const override { unexpected(); }
    std::u16string getParentPath(std::u16string const&) const override { unexpected(); }
    std::u16string getTempName(std::u16string const&) const override { unexpected(); }
    std::u16string normalizePath(std::u16string const&) const override { unexpected(); }
    bool exists(std::u16string const&) const override { unexpected(); }
    bool isFile(std::u16string const&) const override { unexpected(); }
    void createFolders(std::u16string const&) const override { unexpected(); }
    void createFolders(std::u16string const&, error_code&) const override { unexpected(); }
    void setPermissions(std::u16string const&, opc::Perms::Perms_tag) const override { unexpected(); }
    std::shared_ptr<std::istream> createInputStream(std::u16string const&, unsigned, error_code&) const override {
        unexpected();
    }
    std::shared_ptr<std::ostream> createOutputStream(std::u16string const&, unsigned) const override { unexpected(); }
    std::shared_ptr<std::ostream> createOutputStream(std::u16string const&, unsigned, error_code&) const override {
        unexpected();
    }
    void copy(std::u16string const&, std::u16string const&, opc::ExistsMode) const override { unexpected(); }
    void replaceFileWithBackup(std::u16string const&, FileSystemOps&, std::u16string const&,
                               CommitOptions const&) const override {
        unexpected();
    }
    std::uintmax_t removeAll(std::u16string const&, error_code&) const override { unexpected(); }

protected:
    virtual std::shared_ptr<std::istream> open(std::string const& content) const {
        return std::make_shared<std::istringstream>(content);
    }

private:
    [[noreturn]] static void unexpected() { throw std::logic_error("nobody may ask that of the source's file system"); }
};

/// A file system whose files break off after their content, with an exception inside the stream's buffer.
class BrokenFileSystem : public MemoryFileSystem {
public:
    explicit BrokenFileSystem(std::ios_base::iostate thrownStates) : thrownStates_(thrownStates) {}

private:
    class Buffer : public std::stringbuf {
    public:
        using std::stringbuf::stringbuf;

    protected:
        int_type underflow() override {
            auto const next = std::stringbuf::underflow();
            if (next == traits_type::eof())
                throw opc::Exception("the disk is broken", errc::make_error_code(errc::io_error));
            return next;
        }
        std::streamsize xsgetn(char* target, std::streamsize count) override {
            std::streamsize done = 0;
            while (done < count) {
                target[done++] = traits_type::to_char_type(underflow());
                gbump(1);
            }
            return done;
        }
    };

    class Stream : public std::istream {
    public:
        Stream(std::string const& content, std::ios_base::iostate thrownStates)
            : std::istream(nullptr),
              buffer_(content, std::ios_base::in) {
            rdbuf(&buffer_);
            exceptions(thrownStates);
        }

    private:
        Buffer buffer_;
    };

    std::shared_ptr<std::istream> open(std::string const& content) const override {
        return std::make_shared<Stream>(content, thrownStates_);
    }

    std::ios_base::iostate thrownStates_;
};

class ReplaceFileWithBackup : public testing::Test {
protected:
    void replace(std::string_view target, std::string_view source, CommitOptions const& options = {}) const {
        opc::LocalFileSystemOps sourceFiles;
        files.replaceFileWithBackup(folder.corePath(target), sourceFiles, folder.corePath(source), options);
    }

    /// A source that has to be copied, because it has a second name.
    void writeSharedSource(std::string_view content) const {
        folder.write("source", content);
        fs::create_hard_link(folder / "source", folder / "shared");
    }

    void makeLink(std::string_view name, fs::path const& target) const { fs::create_symlink(target, folder / name); }
    void makeFolder(std::string_view name) const { fs::create_directories(folder / name); }
    void setPermissions(std::string_view name, unsigned permissions) const {
        fs::permissions(folder / name, fs::perms(permissions));
    }
    std::string native(std::string_view name) const { return (folder / name).native(); }

    opc::LocalFileSystemOps const files{};
    testsupport::TemporaryFolder folder;
};

CommitOptions keepingBackup(std::u16string const& path = {}) {
    CommitOptions options;
    options.keepBackup = true;
    options.backupPath = path;
    return options;
}

CommitOptions calling(std::function<void(std::u16string const&)> beforeReplace, bool keepBackup = false) {
    CommitOptions options;
    options.keepBackup = keepBackup;
    options.beforeReplace = std::move(beforeReplace);
    return options;
}

// ---------------------------------------------------------------------------------------------------- commit options

TEST(CommitOptionsValue, KeepsNoBackupUnlessAskedTo) {
    CommitOptions const options;

    EXPECT_FALSE(options.keepBackup);
    EXPECT_EQ(options.backupPath, u"");
    EXPECT_FALSE(options.beforeReplace);
}

TEST(CommitOptionsValue, IsCopiedAsAWhole) {
    int calls = 0;
    auto options = keepingBackup(u"/backup");
    options.beforeReplace = [&](std::u16string const&) { ++calls; };

    CommitOptions copy;
    copy = options;
    copy.beforeReplace(u"");

    EXPECT_TRUE(copy.keepBackup);
    EXPECT_EQ(copy.backupPath, u"/backup");
    EXPECT_EQ(calls, 1);
}

// ------------------------------------------------------------------------------------------------------- the content

TEST_F(ReplaceFileWithBackup, PutsTheSourceWhereNoFileWas) {
    folder.write("source", "new");

    replace("target", "source");

    EXPECT_EQ(folder.read("target"), "new");
    EXPECT_THAT(folder.entries(), ElementsAre("target"));
}

TEST_F(ReplaceFileWithBackup, PutsTheSourceInThePlaceOfAFile) {
    folder.write("source", "new");
    folder.write("target", "a much longer old content");

    replace("target", "source");

    EXPECT_EQ(folder.read("target"), "new");
    EXPECT_THAT(folder.entries(), ElementsAre("target"));
}

TEST_F(ReplaceFileWithBackup, TakesAnEmptySource) {
    folder.write("source", "");
    folder.write("target", "old");

    replace("target", "source");

    EXPECT_EQ(folder.read("target"), "");
    EXPECT_THAT(folder.entries(), ElementsAre("target"));
}

TEST_F(ReplaceFileWithBackup, TakesASourceFromAnotherFolder) {
    folder.write("temporary/source", "new");
    folder.write("place/target", "old");

    replace("place/target", "temporary/source");

    EXPECT_EQ(folder.read("place/target"), "new");
    EXPECT_TRUE(fs::is_empty(folder / "temporary"));
    EXPECT_EQ(std::distance(fs::directory_iterator(folder / "place"), {}), 1);
}

TEST_F(ReplaceFileWithBackup, TakesPathsFromTheCurrentFolder) {
    folder.write("source", "new");
    folder.write("target", "old");
    auto const earlier = fs::current_path();
    fs::current_path(folder.path());

    opc::LocalFileSystemOps sourceFiles;
    files.replaceFileWithBackup(u"target", sourceFiles, u"source", keepingBackup());
    fs::current_path(earlier);

    EXPECT_EQ(folder.read("target"), "new");
    EXPECT_THAT(folder.entries(), ElementsAre("target", "target.bak"));
}

TEST_F(ReplaceFileWithBackup, TakesALargeSource) {
    std::string const content(3000000, 'x');
    folder.write("target", "old");

    folder.write("source", content);
    replace("target", "source");
    EXPECT_TRUE(folder.read("target") == content);

    writeSharedSource(content + "y");
    replace("target", "source");
    EXPECT_TRUE(folder.read("target") == content + "y");
}

TEST_F(ReplaceFileWithBackup, LeavesOtherNamesOfTheOldFileAlone) {
    folder.write("source", "new");
    folder.write("target", "old");
    fs::create_hard_link(folder / "target", folder / "other");

    replace("target", "source");

    EXPECT_EQ(folder.read("target"), "new");
    EXPECT_EQ(folder.read("other"), "old");
}

TEST_F(ReplaceFileWithBackup, CopiesASourceThatHasASecondName) {
    writeSharedSource("new");
    folder.write("target", "old");

    replace("target", "source");
    std::ofstream(folder / "shared") << "changed later";

    EXPECT_EQ(folder.read("target"), "new");
    EXPECT_THAT(folder.entries(), ElementsAre("shared", "target"));
}

TEST_F(ReplaceFileWithBackup, CopiesWhatALinkAtItsSourceLeadsTo) {
    folder.write("real", "new");
    makeLink("source", "real");
    folder.write("target", "old");

    replace("target", "source");
    std::ofstream(folder / "real") << "changed later";

    EXPECT_EQ(folder.read("target"), "new");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(folder / "target")));
    EXPECT_THAT(folder.entries(), ElementsAre("real", "target"));
}

// A rename of a file to another name of the same file does nothing at all, so this can't go the usual way.
TEST_F(ReplaceFileWithBackup, LosesNothingWhenAFileIsToReplaceItself) {
    folder.write("file", "content");
    makeLink("link", "file");

    for (auto const* target : {"file", "link"}) {
        try {
            replace(target, "file");
        } catch (opc::Exception const&) {
            // to refuse is as good
        }

        EXPECT_THAT(folder.entries(), ElementsAre("file", "link")) << target;
        EXPECT_TRUE(fs::exists(folder / "file") && folder.read("file") == "content") << target;
    }
}

TEST_F(ReplaceFileWithBackup, TakesASourceThatIsASecondNameOfTheTarget) {
    folder.write("target", "content");
    fs::create_hard_link(folder / "target", folder / "source");

    replace("target", "source");

    EXPECT_EQ(folder.read("target"), "content");
    EXPECT_THAT(folder.entries(), ElementsAre("target"));
}

// ------------------------------------------------------------------------------------------------------- permissions

TEST_F(ReplaceFileWithBackup, KeepsThePermissionBitsOfTheFileThatItReplaces) {
    for (unsigned const permissions : {0640U, 0755U, 0600U, 0444U, 0666U}) {
        for (bool const shared : {false, true}) {
            shared ? writeSharedSource("new") : void(folder.write("source", "new"));
            setPermissions("source", 0604);
            folder.write("target", "old");
            setPermissions("target", permissions);

            replace("target", "source");

            EXPECT_EQ(folder.read("target"), "new");
            EXPECT_EQ(permissionsOf(folder / "target"), permissions) << shared;
            fs::remove(folder / "target");
            fs::remove(folder / "shared");
        }
    }
}

TEST_F(ReplaceFileWithBackup, GivesANewFileWhatTheUmaskAllows) {
    for (mode_t const mask : {000U, 022U, 027U, 077U}) {
        for (bool const shared : {false, true}) {
            shared ? writeSharedSource("new") : void(folder.write("source", "new"));
            setPermissions("source", 0600);
            {
                Umask const umask(mask);
                replace("target", "source");
            }

            EXPECT_EQ(permissionsOf(folder / "target"), 0666U & ~mask) << shared;
            fs::remove(folder / "target");
            fs::remove(folder / "shared");
        }
    }
    EXPECT_THAT(folder.entries(), IsEmpty());
}

TEST_F(ReplaceFileWithBackup, LeavesThePermissionsOfTheSourcesOtherNameAlone) {
    writeSharedSource("new");
    setPermissions("source", 0600);
    folder.write("target", "old");
    setPermissions("target", 0644);

    replace("target", "source");

    EXPECT_EQ(permissionsOf(folder / "shared"), 0600U);
}

class OwnedByAnother : public ReplaceFileWithBackup {
protected:
    void SetUp() override {
        if (!runsAsRoot())
            GTEST_SKIP() << "only root may give files away";
        folder.write("source", "new");
        folder.write("target", "old");
        setPermissions("target", 0640);
        ASSERT_EQ(::chown((folder / "target").c_str(), Another, Another), 0);
    }

    uid_t ownerOf(std::string_view name) const {
        struct stat status {};
        EXPECT_EQ(::stat((folder / name).c_str(), &status), 0);
        return status.st_uid;
    }

    gid_t groupOf(std::string_view name) const {
        struct stat status {};
        EXPECT_EQ(::stat((folder / name).c_str(), &status), 0);
        return status.st_gid;
    }

    static constexpr uid_t Another = 65534;
};

TEST_F(OwnedByAnother, AFileKeepsItsOwnerAndPermissionsWhenReplaced) {
    replace("target", "source", keepingBackup());

    EXPECT_EQ(ownerOf("target"), Another);
    EXPECT_EQ(permissionsOf(folder / "target"), 0640U);
    EXPECT_EQ(ownerOf("target.bak"), Another);
}

TEST_F(OwnedByAnother, AFileKeepsItsUserWhenOnlyThatIsAnother) {
    ASSERT_EQ(::chown((folder / "target").c_str(), Another, ::getgid()), 0);

    replace("target", "source", keepingBackup());

    EXPECT_EQ(ownerOf("target"), Another);
    EXPECT_EQ(ownerOf("target.bak"), Another);
}

TEST_F(OwnedByAnother, AFileKeepsItsGroupWhenOnlyThatIsAnother) {
    ASSERT_EQ(::chown((folder / "target").c_str(), ::getuid(), Another), 0);

    replace("target", "source", keepingBackup());

    EXPECT_EQ(groupOf("target"), Another);
    EXPECT_EQ(groupOf("target.bak"), Another);
}

TEST_F(OwnedByAnother, AFileDoesNotTakeItsSourceWithItWhenItIsNotReplaced) {
    EXPECT_ANY_THROW(replace("target", "source", calling([](auto const&) { throw 1; })));

    EXPECT_EQ(ownerOf("source"), ::geteuid());
    EXPECT_EQ(ownerOf("target"), Another);
}

// -------------------------------------------------------------------------------------------------- links at the
// target

TEST_F(ReplaceFileWithBackup, ReplacesTheFileThatALinkLeadsToAndKeepsTheLink) {
    folder.write("real/file", "old");
    makeLink("relative", "real/file");
    makeLink("absolute", folder / "real/file");
    makeLink("chain", "relative");

    for (auto const* link : {"relative", "absolute", "chain"}) {
        folder.write("source", std::string("new by ") + link);

        replace(link, "source");

        EXPECT_TRUE(fs::is_symlink(folder / link));
        EXPECT_EQ(folder.read("real/file"), std::string("new by ") + link);
    }
    EXPECT_THAT(folder.entries(), ElementsAre("absolute", "chain", "real", "relative"));
    EXPECT_EQ(std::distance(fs::directory_iterator(folder / "real"), {}), 1);
}

TEST_F(ReplaceFileWithBackup, FollowsARelativeLinkFromTheFolderOfTheLink) {
    folder.write("real", "old");
    makeFolder("inner");
    makeLink("inner/link", "../real");
    folder.write("source", "new");

    replace("inner/link", "source");

    EXPECT_EQ(folder.read("real"), "new");
    EXPECT_TRUE(fs::is_symlink(folder / "inner/link"));
}

TEST_F(ReplaceFileWithBackup, MakesTheFileThatADanglingLinkLeadsTo) {
    makeFolder("real");
    makeLink("link", "real/file");
    folder.write("source", "new");

    replace("link", "source");

    EXPECT_TRUE(fs::is_symlink(folder / "link"));
    EXPECT_EQ(folder.read("real/file"), "new");
    EXPECT_THAT(folder.entries(), ElementsAre("link", "real"));
}

TEST_F(ReplaceFileWithBackup, FollowsAsManyLinksAsTheSystemDoes) {
    folder.write("link 0", "old");
    for (int i = 1; i <= 41; ++i)
        makeLink("link " + std::to_string(i), "link " + std::to_string(i - 1));
    folder.write("source", "new");
    ASSERT_TRUE(files.isFile(folder.corePath("link 40")));
    ASSERT_EQ(codeThrownBy([&] { files.isFile(folder.corePath("link 41")); }), errc::too_many_symbolic_link_levels);

    EXPECT_EQ(codeThrownBy([&] { replace("link 41", "source"); }), errc::too_many_symbolic_link_levels);
    EXPECT_EQ(folder.read("link 0"), "old");
    replace("link 40", "source");

    EXPECT_EQ(folder.read("link 0"), "new");
}

TEST_F(ReplaceFileWithBackup, RefusesALoopOfLinks) {
    makeLink("a", "b");
    makeLink("b", "a");
    folder.write("source", "new");

    EXPECT_EQ(codeThrownBy([&] { replace("a", "source"); }), errc::too_many_symbolic_link_levels);

    EXPECT_EQ(folder.read("source"), "new");
    EXPECT_THAT(folder.entries(), ElementsAre("a", "b", "source"));
}

// ---------------------------------------------------------------------------------------------------------- refusals

TEST_F(ReplaceFileWithBackup, RefusesATargetThatIsNoRegularFile) {
    makeFolder("folder");
    ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
    makeLink("linkToFolder", "folder");
    folder.write("source", "new");

    EXPECT_THAT([&] { replace("folder", "source"); },
                throwsPackageError("Could not replace \"" + native("folder") + "\": it is no regular file"));
    EXPECT_THAT([&] { replace("fifo", "source", keepingBackup()); },
                throwsPackageError("Could not replace \"" + native("fifo") + "\": it is no regular file"));
    EXPECT_THAT([&] { replace("linkToFolder", "source"); },
                throwsPackageError("Could not replace \"" + native("folder") + "\": it is no regular file"));

    EXPECT_EQ(folder.read("source"), "new");
    EXPECT_THAT(folder.entries(), ElementsAre("fifo", "folder", "linkToFolder", "source"));
    EXPECT_TRUE(fs::is_empty(folder / "folder"));
}

TEST_F(ReplaceFileWithBackup, RefusesAMissingSource) {
    folder.write("target", "old");
    auto const replacing = [&] { replace("target", "missing", keepingBackup()); };

    EXPECT_THAT(replacing, ThrowsMessage<opc::Exception>(HasSubstr(native("missing"))));
    EXPECT_EQ(codeThrownBy(replacing), errc::no_such_file_or_directory);

    EXPECT_EQ(folder.read("target"), "old");
    EXPECT_THAT(folder.entries(), ElementsAre("target"));
}

TEST_F(ReplaceFileWithBackup, RefusesAMissingSourceInTheRootFolder) {
    folder.write("no such file", "old");
    opc::LocalFileSystemOps sourceFiles;
    auto const replacing = [&] {
        files.replaceFileWithBackup(folder.corePath("no such file"), sourceFiles, u"/no such file", {});
    };

    EXPECT_THAT(replacing, throwsPackageError("Could not open \"/no such file\": No such file or directory"));

    EXPECT_EQ(folder.read("no such file"), "old");
    EXPECT_THAT(folder.entries(), ElementsAre("no such file"));
}

TEST_F(ReplaceFileWithBackup, RefusesATargetBelowAFile) {
    folder.write("source", "new");
    folder.write("file", "somebody else's");
    auto const replacing = [&] { replace("file/target", "source"); };

    EXPECT_THAT(replacing, throwsPackageError("Could not examine \"" + native("file/target") + "\": Not a directory"));
    EXPECT_EQ(codeThrownBy(replacing), errc::not_a_directory);

    EXPECT_EQ(folder.read("source"), "new");
    EXPECT_EQ(folder.read("file"), "somebody else's");
}

TEST_F(ReplaceFileWithBackup, RefusesAFolderAsItsSource) {
    folder.write("target", "old");
    folder.write("source/file", "content");

    EXPECT_EQ(codeThrownBy([&] { replace("target", "source"); }), errc::is_a_directory);

    EXPECT_EQ(folder.read("target"), "old");
    EXPECT_EQ(folder.read("source/file"), "content");
    EXPECT_THAT(folder.entries(), ElementsAre("source", "target"));
}

TEST_F(ReplaceFileWithBackup, RefusesAFifoAsItsSourceWithoutWaitingForIt) {
    folder.write("target", "old");
    ASSERT_EQ(::mkfifo((folder / "source").c_str(), 0600), 0);

    auto const child = ::fork();
    if (child == 0) {
        ::alarm(1); // ends a child that waits
        try {
            replace("target", "source");
        } catch (opc::Exception const&) {
            ::_exit(0);
        }
        ::_exit(1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);

    EXPECT_TRUE(WIFEXITED(status)) << "it waited";
    EXPECT_EQ(WEXITSTATUS(status), 0) << "it was not refused";
    EXPECT_EQ(folder.read("target"), "old");
    EXPECT_THAT(folder.entries(), ElementsAre("source", "target"));
}

TEST_F(ReplaceFileWithBackup, RefusesATargetInAMissingFolder) {
    folder.write("source", "new");
    makeLink("dangling", "missing/target");

    EXPECT_EQ(codeThrownBy([&] { replace("missing/target", "source"); }), errc::no_such_file_or_directory);
    EXPECT_EQ(codeThrownBy([&] { replace("dangling", "source"); }), errc::no_such_file_or_directory);

    EXPECT_EQ(folder.read("source"), "new");
    EXPECT_THAT(folder.entries(), ElementsAre("dangling", "source"));
}

TEST_F(ReplaceFileWithBackup, RefusesAFolderThatMayNotBeWrittenTo) {
    if (runsAsRoot())
        GTEST_SKIP() << "root may write to every folder";
    folder.write("closed/target", "old");
    folder.write("source", "new");
    setPermissions("closed", 0500);

    EXPECT_EQ(codeThrownBy([&] { replace("closed/target", "source"); }), errc::permission_denied);

    EXPECT_EQ(folder.read("closed/target"), "old");
    EXPECT_EQ(folder.read("source"), "new");
    EXPECT_EQ(std::distance(fs::directory_iterator(folder / "closed"), {}), 1);
    setPermissions("closed", 0700);
}

// ------------------------------------------------------------------------------------------- sources from elsewhere

/// A folder on another file system than the temporary folder.
class OnAnotherFileSystem : public ReplaceFileWithBackup {
protected:
    void SetUp() override {
        if (::mkdtemp(other.data()) == nullptr)
            GTEST_SKIP() << "there is no /dev/shm to write to";
        struct stat here {};
        struct stat there {};
        ASSERT_EQ(::stat(folder.path().c_str(), &here), 0);
        ASSERT_EQ(::stat(other.c_str(), &there), 0);
        if (here.st_dev == there.st_dev)
            GTEST_SKIP() << "the temporary folder lies on /dev/shm as well";
    }

    ~OnAnotherFileSystem() override {
        std::error_code ignored;
        fs::remove_all(other, ignored);
    }

    std::string other = "/dev/shm/textpackage_test_XXXXXX";
};

TEST_F(OnAnotherFileSystem, ASourceIsTakenAndABackupKept) {
    opc::LocalFileSystemOps sourceFiles;
    std::ofstream(other + "/source") << "new";
    folder.write("target", "old");
    setPermissions("target", 0640);
    auto options = keepingBackup(toCorePath(other + "/backup"));

    files.replaceFileWithBackup(folder.corePath("target"), sourceFiles, toCorePath(other + "/source"), options);

    EXPECT_EQ(folder.read("target"), "new");
    EXPECT_EQ(permissionsOf(folder / "target"), 0640U);
    EXPECT_THAT(folder.entries(), ElementsAre("target"));
    EXPECT_EQ(testsupport::readFile(other + "/backup"), "old");
    EXPECT_EQ(permissionsOf(other + "/backup"), 0640U);
    EXPECT_EQ(std::distance(fs::directory_iterator(other), {}), 1);
}

TEST_F(OnAnotherFileSystem, ASourceAndABackupMayHaveTheNameOfTheTarget) {
    opc::LocalFileSystemOps sourceFiles;
    std::ofstream(other + "/target") << "new";
    fs::create_directory(other + "/backups");
    folder.write("target", "old");

    files.replaceFileWithBackup(folder.corePath("target"), sourceFiles, toCorePath(other + "/target"),
                                keepingBackup(toCorePath(other + "/backups/target")));

    EXPECT_EQ(folder.read("target"), "new");
    EXPECT_EQ(testsupport::readFile(other + "/backups/target"), "old");
    EXPECT_FALSE(fs::exists(other + "/target"));
}

TEST_F(ReplaceFileWithBackup, TakesASourceFromAFileSystemOfTheHostsOwn) {
    MemoryFileSystem memory;
    std::string const content(200000, 'x');
    memory.contents = {{u"a", content}, {u"b", "another"}, {u"empty", ""}};
    folder.write("target", "old");
    setPermissions("target", 0640);

    files.replaceFileWithBackup(folder.corePath("target"), memory, u"a", keepingBackup());
    EXPECT_TRUE(folder.read("target") == content);
    EXPECT_EQ(permissionsOf(folder / "target"), 0640U);
    EXPECT_EQ(folder.read("target.bak"), "old");

    files.replaceFileWithBackup(folder.corePath("fresh"), memory, u"empty", {});
    EXPECT_EQ(folder.read("fresh"), "");
    EXPECT_THAT(folder.entries(), ElementsAre("fresh", "target", "target.bak"));
    EXPECT_THAT(memory.contents, ElementsAre(testing::Key(u"b")));
}

TEST_F(ReplaceFileWithBackup, PassesOnWhatTheHostsFileSystemThrows) {
    MemoryFileSystem memory;
    folder.write("target", "old");

    EXPECT_THAT([&] { files.replaceFileWithBackup(folder.corePath("target"), memory, u"missing", {}); },
                throwsPackageError("no such file in memory"));

    EXPECT_EQ(folder.read("target"), "old");
    EXPECT_THAT(folder.entries(), ElementsAre("target"));
}

// Not every stream throws when a read fails: most only set their bad bit, and then stop as they do at the end.
TEST_F(ReplaceFileWithBackup, NeverTakesASourceForWholeThatBrokeOffHalfWay) {
    for (auto const thrownStates : {std::ios_base::badbit, std::ios_base::goodbit}) {
        BrokenFileSystem broken(thrownStates);
        broken.contents = {{u"source", "the first half"}};
        folder.write("target", "old");

        EXPECT_THROW(files.replaceFileWithBackup(folder.corePath("target"), broken, u"source", keepingBackup()),
                     std::exception)
            << thrownStates;

        EXPECT_EQ(folder.read("target"), "old");
        EXPECT_THAT(folder.entries(), ElementsAre("target"));
        EXPECT_THAT(broken.contents, ElementsAre(testing::Key(u"source")));
    }
}

// ------------------------------------------------------------------------------------------------------------ backup

TEST_F(ReplaceFileWithBackup, KeepsTheOldFileBesideTheNewOneWhenAskedTo) {
    folder.write("source", "new");
    folder.write("target.txt", "old");
    setPermissions("target.txt", 0640);

    replace("target.txt", "source", keepingBackup());

    EXPECT_EQ(folder.read("target.txt"), "new");
    EXPECT_EQ(folder.read("target.txt.bak"), "old");
    EXPECT_EQ(permissionsOf(folder / "target.txt.bak"), 0640U);
    EXPECT_THAT(folder.entries(), ElementsAre("target.txt", "target.txt.bak"));
}

TEST_F(ReplaceFileWithBackup, KeepsTheOldFileWhereItIsTold) {
    folder.write("source", "new");
    folder.write("target", "old");
    makeFolder("backups");

    replace("target", "source", keepingBackup(folder.corePath("backups/yesterday")));

    EXPECT_EQ(folder.read("target"), "new");
    EXPECT_EQ(folder.read("backups/yesterday"), "old");
    EXPECT_THAT(folder.entries(), ElementsAre("backups", "target"));
    EXPECT_EQ(std::distance(fs::directory_iterator(folder / "backups"), {}), 1);
}

TEST_F(ReplaceFileWithBackup, ReplacesAnOlderBackup) {
    folder.write("target", "first");
    for (auto const* content : {"second", "third"}) {
        folder.write("source", content);
        replace("target", "source", keepingBackup());
    }

    EXPECT_EQ(folder.read("target"), "third");
    EXPECT_EQ(folder.read("target.bak"), "second");
    EXPECT_THAT(folder.entries(), ElementsAre("target", "target.bak"));
}

TEST_F(ReplaceFileWithBackup, ReplacesALinkInTheBackupsPlaceAndNotWhatItLeadsTo) {
    folder.write("source", "new");
    folder.write("target", "old");
    folder.write("outside", "precious");
    makeLink("target.bak", "outside");

    replace("target", "source", keepingBackup());

    EXPECT_EQ(folder.read("outside"), "precious");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(folder / "target.bak")));
    EXPECT_EQ(folder.read("target.bak"), "old");
}

TEST_F(ReplaceFileWithBackup, KeepsABackupThatLivesItsOwnLife) {
    folder.write("source", "new");
    folder.write("target", "old");
    fs::create_hard_link(folder / "target", folder / "other");

    replace("target", "source", keepingBackup());
    std::ofstream(folder / "target", std::ios::app) << " and more";
    std::ofstream(folder / "other", std::ios::app) << " and more";

    EXPECT_EQ(folder.read("target.bak"), "old");
}

TEST_F(ReplaceFileWithBackup, LeavesNothingBehindWhereAnotherProcessHasMadeTheSameBackupMeanwhile) {
    folder.write("target", "old");
    folder.write("source", "new");

    replace("target", "source",
            calling([&](auto const&) { fs::create_hard_link(folder / "target", folder / "target.bak"); }, true));

    EXPECT_EQ(folder.read("target"), "new");
    EXPECT_EQ(folder.read("target.bak"), "old");
    EXPECT_THAT(folder.entries(), ElementsAre("target", "target.bak"));
}

TEST_F(ReplaceFileWithBackup, KeepsTheBackupOfALinkedFileBesideTheLink) {
    folder.write("real/file", "old");
    makeLink("link", "real/file");
    folder.write("source", "new");

    replace("link", "source", keepingBackup());

    EXPECT_EQ(folder.read("real/file"), "new");
    EXPECT_EQ(folder.read("link.bak"), "old");
    EXPECT_THAT(folder.entries(), ElementsAre("link", "link.bak", "real"));
}

TEST_F(ReplaceFileWithBackup, KeepsNoBackupOfAFileThatWasNotThere) {
    folder.write("source", "new");

    replace("target", "source", keepingBackup());

    EXPECT_THAT(folder.entries(), ElementsAre("target"));
}

TEST_F(ReplaceFileWithBackup, LeavesAnOlderBackupAloneWhereThereIsNothingToKeep) {
    folder.write("source", "new");
    folder.write("target.bak", "older");

    replace("target", "source", keepingBackup());

    EXPECT_EQ(folder.read("target.bak"), "older");
}

TEST_F(ReplaceFileWithBackup, KeepsNoBackupForItsPathAlone) {
    folder.write("source", "new");
    folder.write("target", "old");
    CommitOptions options;
    options.backupPath = folder.corePath("backup");

    replace("target", "source", options);

    EXPECT_THAT(folder.entries(), ElementsAre("target"));
}

TEST_F(ReplaceFileWithBackup, LeavesAllAsItWasWhereTheBackupCannotBeMade) {
    folder.write("source", "new");
    folder.write("target", "old");
    setPermissions("source", 0604);
    makeFolder("target.bak");

    EXPECT_EQ(codeThrownBy([&] { replace("target", "source", keepingBackup()); }), errc::is_a_directory);
    EXPECT_EQ(codeThrownBy([&] { replace("target", "source", keepingBackup(folder.corePath("missing/backup"))); }),
              errc::no_such_file_or_directory);

    EXPECT_EQ(folder.read("target"), "old");
    EXPECT_EQ(folder.read("source"), "new");
    EXPECT_EQ(permissionsOf(folder / "source"), 0604U);
    EXPECT_THAT(folder.entries(), ElementsAre("source", "target", "target.bak"));
}

TEST_F(ReplaceFileWithBackup, LeavesNoStrayFileWhereTheBackupIsToBeTheTargetItself) {
    folder.write("source", "new");
    folder.write("target", "old");

    try {
        replace("target", "source", keepingBackup(folder.corePath("target")));
    } catch (opc::Exception const&) {
        // to refuse is as good
    }

    EXPECT_THAT(folder.read("target"), AnyOf("old", "new"));
    EXPECT_THAT(folder.entries(), IsSubsetOf({"source", "target"}));
}

TEST_F(ReplaceFileWithBackup, LosesNothingWhereTheBackupIsToBeTheSource) {
    folder.write("source", "new");
    folder.write("target", "old");

    try {
        replace("target", "source", keepingBackup(folder.corePath("source")));
        EXPECT_EQ(folder.read("source"), "old"); // the backup that was asked for
        EXPECT_EQ(folder.read("target"), "new");
    } catch (opc::Exception const&) {
        EXPECT_EQ(folder.read("source"), "new");
        EXPECT_EQ(folder.read("target"), "old");
    }
    EXPECT_THAT(folder.entries(), ElementsAre("source", "target"));
}

// ----------------------------------------------------------------------------------------------------- beforeReplace

TEST_F(ReplaceFileWithBackup, NeverOpensTheSourceToMoreUsersThanItWas) {
    folder.write("source", "new");
    folder.write("target", "old");
    fs::permissions(folder / "source", static_cast<fs::perms>(0600));
    fs::permissions(folder / "target", static_cast<fs::perms>(0644));
    bool isShown = true;

    EXPECT_THROW(replace("target", "source", calling([&](std::u16string const&) {
                             isShown = fs::exists(folder / "source") && permissionsOf(folder / "source") != 0600U;
                             throw std::runtime_error("cancelled");
                         })),
                 std::runtime_error);

    EXPECT_FALSE(isShown);
    EXPECT_EQ(folder.read("source"), "new");
    EXPECT_EQ(permissionsOf(folder / "source"), 0600U);
    EXPECT_THAT(folder.entries(), ElementsAre("source", "target"));
}

TEST_F(ReplaceFileWithBackup, PutsASourceBackThatItRemovedEarlyThoughNoMoreLinksCanBeMade) {
    folder.write("source", "new");
    folder.write("target", "old");
    fs::permissions(folder / "source", static_cast<fs::perms>(0600));
    fs::permissions(folder / "target", static_cast<fs::perms>(0644));

    EXPECT_THROW(replace("target", "source", calling([&](std::u16string const&) {
                             linkError = EMLINK;
                             throw std::runtime_error("cancelled");
                         })),
                 std::runtime_error);
    linkError = 0;

    EXPECT_EQ(folder.read("source"), "new");
    EXPECT_EQ(permissionsOf(folder / "source"), 0600U);
    EXPECT_THAT(folder.entries(), ElementsAre("source", "target"));
}

TEST_F(ReplaceFileWithBackup, CallsBackOnceWhileTheOldFileIsStillInPlace) {
    folder.write("source", "new");
    folder.write("target", "old");
    std::vector<std::u16string> targets;
    std::string seen;
    bool backupSeen = true;

    replace("target", "source",
            calling(
                [&](std::u16string const& target) {
                    targets.push_back(target);
                    seen = folder.read("target");
                    backupSeen = fs::exists(folder / "target.bak");
                },
                true));

    EXPECT_THAT(targets, ElementsAre(folder.corePath("target")));
    EXPECT_EQ(seen, "old");
    EXPECT_FALSE(backupSeen);
    EXPECT_EQ(folder.read("target"), "new");
    EXPECT_EQ(folder.read("target.bak"), "old");
}

TEST_F(ReplaceFileWithBackup, CallsBackWhereNoFileWas) {
    folder.write("source", "new");
    bool targetSeen = true;
    int calls = 0;

    replace("target", "source", calling([&](auto const&) {
                ++calls;
                targetSeen = fs::exists(folder / "target");
            }));

    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(targetSeen);
}

TEST_F(ReplaceFileWithBackup, CallsBackWithThePathOfTheLinkThatItWasGiven) {
    folder.write("real", "old");
    makeLink("link", "real");
    folder.write("source", "new");
    std::u16string seen;

    replace("link", "source", calling([&](std::u16string const& target) { seen = target; }));

    EXPECT_EQ(seen, folder.corePath("link"));
}

TEST_F(ReplaceFileWithBackup, DoesNotCallBackWhenItCannotGoOnAnyway) {
    folder.write("target", "old");
    int calls = 0;

    EXPECT_THROW(replace("target", "missing", calling([&](auto const&) { ++calls; })), opc::Exception);

    EXPECT_EQ(calls, 0);
}

TEST_F(ReplaceFileWithBackup, LeavesAllAsItWasWhenTheCallbackCancels) {
    for (bool const shared : {false, true}) {
        shared ? writeSharedSource("new") : void(folder.write("source", "new"));
        folder.write("target", "old");
        folder.write("target.bak", "older");
        setPermissions("source", 0604);
        setPermissions("target", 0640);
        auto const entries = folder.entries();

        EXPECT_THAT(
            [&] {
                replace("target", "source",
                        calling([](auto const&) { throw std::runtime_error("the host says no"); }, true));
            },
            ThrowsMessage<std::runtime_error>("the host says no"));

        EXPECT_EQ(folder.read("target"), "old");
        EXPECT_EQ(permissionsOf(folder / "target"), 0640U);
        EXPECT_EQ(folder.read("target.bak"), "older");
        EXPECT_EQ(folder.read("source"), "new");
        EXPECT_EQ(permissionsOf(folder / "source"), 0604U);
        EXPECT_EQ(fs::hard_link_count(folder / "source"), shared ? 2U : 1U);
        EXPECT_EQ(folder.entries(), entries);
    }
}

TEST_F(ReplaceFileWithBackup, LosesNoContentWhenTheCallbackCancelsAndSomebodyTookThePlaceOfTheSource) {
    folder.write("source", "new");
    folder.write("target", "old");
    setPermissions("source", 0600);
    setPermissions("target", 0644);
    auto const intrude = [&](auto const&) {
        folder.write("source", "somebody else's");
        throw std::runtime_error("the host says no");
    };

    EXPECT_THAT([&] { replace("target", "source", calling(intrude)); },
                ThrowsMessage<std::runtime_error>("the host says no"));

    EXPECT_EQ(folder.read("target"), "old");
    EXPECT_EQ(folder.read("source"), "somebody else's");
    std::vector<std::string> contents;
    for (auto const& name : folder.entries())
        contents.push_back(folder.read(name));
    EXPECT_THAT(contents, testing::Contains("new"));
}

TEST_F(ReplaceFileWithBackup, MakesNoFileWhenTheCallbackCancels) {
    folder.write("source", "new");
    setPermissions("source", 0600);

    EXPECT_THROW(replace("target", "source", calling([](auto const&) { throw opc::Exception("no"); }, true)),
                 opc::Exception);

    EXPECT_EQ(folder.read("source"), "new");
    EXPECT_EQ(permissionsOf(folder / "source"), 0600U);
    EXPECT_THAT(folder.entries(), ElementsAre("source"));
}

// ---------------------------------------------------------------------------------------------------------- failures

TEST_F(ReplaceFileWithBackup, LeavesAllAsItWasWhenTheDiskIsFullAtAnyByte) {
    std::string const content(40, 'x');
    writeSharedSource(content);
    setPermissions("source", 0604);
    folder.write("target", "old");

    for (std::size_t room = 0; room < content.size(); ++room) {
        error_code code;
        {
            FileSizeLimit const limit(room);
            code = codeThrownBy([&] { replace("target", "source", keepingBackup()); });
        }

        EXPECT_EQ(code, errc::file_too_large) << room;
        EXPECT_EQ(folder.read("target"), "old") << room;
        EXPECT_EQ(folder.read("source"), content);
        EXPECT_EQ(permissionsOf(folder / "source"), 0604U);
        EXPECT_THAT(folder.entries(), ElementsAre("shared", "source", "target")) << room;
    }

    {
        FileSizeLimit const justEnough(content.size());
        replace("target", "source", keepingBackup());
    }
    EXPECT_EQ(folder.read("target"), content);
    EXPECT_EQ(folder.read("target.bak"), "old");
}

TEST_F(ReplaceFileWithBackup, LeavesAllAsItWasWhenTheDiskIsTooFullForAHostsSource) {
    MemoryFileSystem memory;
    memory.contents = {{u"source", std::string(200000, 'x')}};
    folder.write("target", "old");

    for (std::size_t const room : {0U, 1U, 65536U, 131072U, 199999U}) {
        error_code code;
        {
            FileSizeLimit const limit(room);
            code = codeThrownBy(
                [&] { files.replaceFileWithBackup(folder.corePath("target"), memory, u"source", keepingBackup()); });
        }

        EXPECT_EQ(code, errc::file_too_large) << room;
        EXPECT_EQ(folder.read("target"), "old") << room;
        EXPECT_THAT(folder.entries(), ElementsAre("target")) << room;
        EXPECT_THAT(memory.contents, testing::SizeIs(1));
    }
}

TEST_F(ReplaceFileWithBackup, LeavesAllAsItWasWhenTheDiskIsTooFullForTheBackup) {
    folder.write("source", "new");
    folder.write("target", std::string(40, 'o'));
    fs::create_hard_link(folder / "target", folder / "other"); // so that the backup has to be a copy

    for (std::size_t room = 0; room < 40; ++room) {
        error_code code;
        {
            FileSizeLimit const limit(room);
            code = codeThrownBy([&] { replace("target", "source", keepingBackup()); });
        }

        EXPECT_EQ(code, errc::file_too_large) << room;
        EXPECT_EQ(folder.read("target"), std::string(40, 'o')) << room;
        EXPECT_EQ(folder.read("source"), "new");
        EXPECT_THAT(folder.entries(), ElementsAre("other", "source", "target")) << room;
    }
}

// -------------------------------------------------------------------------------------------------------- durability

struct Synced {
    std::string path;
    std::string target;  // its content at that time
    std::uintmax_t size; // of what is synced
};

TEST_F(ReplaceFileWithBackup, SyncsTheNewFileBeforeItTakesTheTargetsPlaceAndTheFolderAfter) {
    for (bool const shared : {false, true}) {
        shared ? writeSharedSource("new content") : void(folder.write("source", "new content"));
        folder.write("target", "old");
        std::vector<Synced> synced;
        {
            SyncWatch const watch([&](std::string const& path) {
                synced.push_back({path, folder.read("target"), fs::is_regular_file(path) ? fs::file_size(path) : 0});
                return 0;
            });
            replace("target", "source");
        }

        ASSERT_EQ(synced.size(), 2U) << shared;
        EXPECT_EQ(fs::path(synced[0].path).parent_path(), folder.path());
        EXPECT_EQ(synced[0].target, "old");
        EXPECT_EQ(synced[0].size, std::string("new content").size());
        EXPECT_EQ(synced[1].path, folder.path().native());
        EXPECT_EQ(synced[1].target, "new content");
    }
}

TEST_F(ReplaceFileWithBackup, SyncsTheBackupBeforeTheOldFileGivesWay) {
    folder.write("source", "new");
    folder.write("target", "old");
    makeFolder("backups");
    bool backupFolderSynced = false;
    {
        SyncWatch const watch([&](std::string const& path) {
            if (path == native("backups"))
                backupFolderSynced = folder.read("backups/target") == "old" && folder.read("target") == "old";
            return 0;
        });
        replace("target", "source", keepingBackup(folder.corePath("backups/target")));
    }

    EXPECT_TRUE(backupFolderSynced);
}

TEST_F(ReplaceFileWithBackup, TakesAFileSystemThatKnowsNoSyncing) {
    folder.write("source", "new");
    folder.write("target", "old");
    SyncWatch const watch([](std::string const&) { return EINVAL; });

    replace("target", "source", keepingBackup());

    EXPECT_EQ(folder.read("target"), "new");
    EXPECT_EQ(folder.read("target.bak"), "old");
}

TEST_F(ReplaceFileWithBackup, LeavesTheOldFileWhenTheNewOneCannotBeSynced) {
    folder.write("source", "new");
    folder.write("target", "old");
    setPermissions("source", 0604);
    SyncWatch const watch([](std::string const&) { return EIO; });
    auto const replacing = [&] { replace("target", "source", keepingBackup()); };

    EXPECT_THAT(replacing, ThrowsMessage<opc::Exception>(testing::StartsWith("Could not sync \"" + native(""))));
    EXPECT_EQ(codeThrownBy(replacing), errc::io_error);

    EXPECT_EQ(folder.read("target"), "old");
    EXPECT_EQ(folder.read("source"), "new");
    EXPECT_EQ(permissionsOf(folder / "source"), 0604U);
    EXPECT_THAT(folder.entries(), ElementsAre("source", "target"));
}

TEST_F(ReplaceFileWithBackup, SaysWhenOnlyTheFolderCouldNotBeSynced) {
    folder.write("source", "new");
    folder.write("target", "old");
    SyncWatch const watch([&](std::string const& path) { return path == folder.path() ? EIO : 0; });

    EXPECT_THAT([&] { replace("target", "source"); },
                throwsPackageError("Could not sync \"" + folder.path().native() + "\": Input/output error"));

    EXPECT_EQ(folder.read("target"), "new");
    EXPECT_THAT(folder.entries(), IsSubsetOf({"source", "target"}));
}

TEST_F(ReplaceFileWithBackup, LeavesTheOldOrTheNewFileWholeWhicheverSyncFails) {
    for (bool const shared : {false, true}) {
        for (int failing = 0; failing < 4; ++failing) { // the file and the backup, the backup's folder, the target's
            shared ? writeSharedSource("new") : void(folder.write("source", "new"));
            folder.write("target", "old");
            int calls = 0;
            {
                SyncWatch const watch([&](std::string const&) { return calls++ == failing ? EIO : 0; });
                EXPECT_THROW(replace("target", "source", keepingBackup()), opc::Exception) << failing;
            }

            EXPECT_THAT(folder.read("target"), AnyOf("old", "new")) << failing;
            EXPECT_EQ(folder.read("source"), "new") << failing;
            EXPECT_THAT(folder.entries(), IsSubsetOf({"shared", "source", "target", "target.bak"})) << failing;
            for (auto const* name : {"source", "shared", "target", "target.bak"})
                fs::remove(folder / name);
        }
    }
}

TEST_F(ReplaceFileWithBackup, LeavesTheOldOrTheNewFileWholeWhereTheProcessDiesAtAnySync) {
    for (int dying = 0; dying < 4; ++dying) {
        folder.write("source", "new");
        folder.write("target", "old");
        auto const child = ::fork();
        if (child == 0) {
            int calls = 0;
            SyncWatch const watch([&](std::string const&) { return calls++ == dying ? ::raise(SIGKILL) : 0; });
            replace("target", "source", keepingBackup());
            ::_exit(0);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);

        EXPECT_TRUE(WIFSIGNALED(status)) << dying;
        EXPECT_THAT(folder.read("target"), AnyOf("old", "new")) << dying;
        EXPECT_EQ(folder.read("source"), "new") << dying;
        fs::remove(folder / "target.bak");
    }
}

// ----------------------------------------------------------------------------------------------------------- readers

TEST_F(ReplaceFileWithBackup, ShowsReadersTheWholeOldOrTheWholeNewFileAtEveryMoment) {
    // Each version is one letter, as often as the letter says, so that a mixture or a part shows.
    auto const version = [](int number) {
        auto const letter = static_cast<char>('a' + number % 26);
        return std::string(20000 + 1000 * static_cast<std::size_t>(letter), letter);
    };
    auto const isWhole = [&](std::string const& content) {
        return !content.empty() && content == version(content.front() - 'a');
    };
    folder.write("target", version(0));
    std::atomic<bool> stop = false;
    int readings = 0;
    int torn = 0;
    std::thread reader([&] {
        while (!stop) {
            std::ifstream file(folder / "target", std::ios::binary);
            std::ostringstream content;
            content << file.rdbuf();
            torn += isWhole(content.str()) ? 0 : 1;
            ++readings;
        }
    });

    for (int number = 1; number <= 200; ++number) {
        folder.write("source", version(number));
        if (number % 2 == 0)
            fs::create_hard_link(folder / "source", folder / "shared");
        replace("target", "source", number % 3 == 0 ? keepingBackup() : CommitOptions());
        fs::remove(folder / "shared");
    }
    stop = true;
    reader.join();

    EXPECT_GT(readings, 0);
    EXPECT_EQ(torn, 0) << "of " << readings;
    EXPECT_EQ(folder.read("target"), version(200));
    EXPECT_THAT(folder.entries(), ElementsAre("target", "target.bak"));
}

} // namespace

/// Stands before the C library's function of the same name, for shared libraries too.
extern "C" __attribute__((visibility("default"))) int link(char const* from, char const* to) noexcept {
    if (linkError == 0)
        return static_cast<int>(::syscall(SYS_link, from, to));
    errno = linkError;
    return -1;
}
