#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <type_traits>

#include <gmock/gmock.h>

#include <opccore/LocalFileSystemOps.hpp>
#include <opccore/StringConversion.hpp>
#include <opccore/TempfileGuard.hpp>
#include <tests/support/FailingAllocations.hpp>
#include <tests/support/Permissions.hpp>
#include <tests/support/TemporaryFolder.hpp>
#include <tests/support/Throws.hpp>

namespace {

namespace fs = std::filesystem;
namespace errc = boost::system::errc;
using opc::util::TempfileGuard;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;
using testsupport::codeThrownBy;
using testsupport::permissionsOf;
using testsupport::Umask;

class TempfileGuardTest : public testing::Test {
protected:
    std::string native(TempfileGuard const& guard) const { return opc::detail::makeNativePath(guard.getFileName()); }

    std::string messageThrownFor(std::u16string const& in, std::u16string const& prefix,
                                 std::u16string const& suffix) const {
        try {
            TempfileGuard const guard(in, prefix, suffix);
        } catch (opc::Exception const& failure) {
            return failure.what();
        }
        return "nothing was thrown";
    }

    testsupport::TemporaryFolder folder;
};

TEST_F(TempfileGuardTest, MakesAnEmptyFileAtOnceForItsOwnerAlone) {
    Umask const nothingMasked(0);

    TempfileGuard const guard(folder.corePath(""), u"commit-", u".tmp");

    ASSERT_THAT(folder.entries(), ElementsAre(fs::path(native(guard)).filename().string()));
    EXPECT_TRUE(fs::is_regular_file(native(guard)));
    EXPECT_EQ(fs::file_size(native(guard)), 0U);
    EXPECT_EQ(permissionsOf(native(guard)), 0600U);
}

TEST_F(TempfileGuardTest, NamesTheFileByPrefixRandomTextAndSuffix) {
    TempfileGuard const guard(opc::toString(folder.path().native(), true), u"commit-\u4E2D-", u".tmp");

    EXPECT_THAT(native(guard), StartsWith(folder.path().native() + "/commit-\u4E2D-"));
    EXPECT_THAT(native(guard), EndsWith(".tmp"));
    EXPECT_THAT(fs::path(native(guard)).filename().string().size(),
                testing::Ge(std::string("commit-\u4E2D-.tmp").size() + 16)) // 64 random bits
        << native(guard);
}

TEST_F(TempfileGuardTest, TakesEmptyPrefixAndSuffix) {
    TempfileGuard const guard(folder.corePath(""), u"", u"");

    EXPECT_TRUE(fs::is_regular_file(native(guard)));
}

TEST_F(TempfileGuardTest, RemovesTheFileInTheEnd) {
    std::optional<TempfileGuard> guard(std::in_place, folder.corePath(""), u"a", u"b");
    std::ofstream(native(*guard)) << "content";

    guard.reset();

    EXPECT_THAT(folder.entries(), IsEmpty());
}

TEST_F(TempfileGuardTest, RemovesTheFileWhenAnExceptionPasses) {
    auto const fail = [&] {
        TempfileGuard const guard(folder.corePath(""), u"a", u"b");
        throw opc::Exception("commit failed");
    };

    EXPECT_THROW(fail(), opc::Exception);

    EXPECT_THAT(folder.entries(), IsEmpty());
}

TEST_F(TempfileGuardTest, LeavesAFileAloneThatWasMovedAway) {
    std::optional<TempfileGuard> guard(std::in_place, folder.corePath(""), u"a", u"b");
    std::ofstream(native(*guard)) << "content";
    fs::rename(native(*guard), folder / "package.txt");

    guard.reset();

    EXPECT_THAT(folder.entries(), ElementsAre("package.txt"));
    EXPECT_EQ(folder.read("package.txt"), "content");
}

TEST_F(TempfileGuardTest, EndsQuietlyWhereTheFileCannotBeRemoved) {
    std::optional<TempfileGuard> guard(std::in_place, folder.corePath(""), u"a", u"b");
    auto const name = native(*guard);
    fs::remove(name);
    fs::create_directory(name);

    EXPECT_NO_THROW(guard.reset());

    EXPECT_TRUE(fs::is_directory(name));
}

TEST_F(TempfileGuardTest, EndsQuietlyWhereTheFolderIsGone) {
    fs::create_directory(folder / "inner");
    std::optional<TempfileGuard> guard(std::in_place, folder.corePath("inner"), u"a", u"b");
    fs::remove_all(folder / "inner");

    EXPECT_NO_THROW(guard.reset());
}

TEST_F(TempfileGuardTest, UsesTheTemporaryAreaForAnEmptyFolder) {
    testsupport::PrivateTemporaryArea const area;
    std::optional<TempfileGuard> guard(std::in_place, u"", u"prefix", u".suffix");

    ASSERT_THAT(area.entries(), SizeIs(1));
    EXPECT_EQ(fs::path(native(*guard)), area.folder() / area.entries().front());

    guard.reset();

    EXPECT_THAT(area.entries(), IsEmpty());
}

TEST_F(TempfileGuardTest, NeverNamesTwoFilesAlike) {
    std::vector<std::unique_ptr<TempfileGuard>> guards;
    std::set<std::u16string> names;
    for (int i = 0; i < 200; ++i) {
        guards.push_back(std::make_unique<TempfileGuard>(folder.corePath(""), u"same", u"same"));
        names.insert(guards.back()->getFileName());
    }

    EXPECT_THAT(names, SizeIs(200));
    EXPECT_THAT(folder.entries(), SizeIs(200));
}

TEST_F(TempfileGuardTest, TakesNamesThatAreTooLongForTheFileSystem) {
    std::u16string const prefix(300, u'\u4E2D');
    {
        TempfileGuard const guard(folder.corePath(""), prefix, u".tmp");
        TempfileGuard const other(folder.corePath(""), prefix, u".tmp");

        EXPECT_TRUE(fs::is_regular_file(native(guard)));
        EXPECT_THAT(folder.entries(), SizeIs(2));
        EXPECT_TRUE(opc::LocalFileSystemOps().isFile(guard.getFileName()));
    }

    EXPECT_THAT(folder.entries(), IsEmpty());
}

TEST_F(TempfileGuardTest, RefusesAMissingFolderWithTheSystemsCode) {
    auto const missing = folder.corePath("missing");

    EXPECT_THAT(messageThrownFor(missing, u"p", u"s"),
                testing::AllOf(StartsWith("Could not create temporary file \"" + (folder / "missing/p").native()),
                               EndsWith("s\": No such file or directory")));
    EXPECT_EQ(codeThrownBy([&] { TempfileGuard(missing, u"p", u"s"); }), errc::no_such_file_or_directory);
    EXPECT_THAT(folder.entries(), IsEmpty());
}

TEST_F(TempfileGuardTest, RefusesAFileInThePlaceOfTheFolder) {
    auto const file = folder.write("file", "content");

    EXPECT_EQ(codeThrownBy([&] { TempfileGuard(file, u"p", u"s"); }), errc::not_a_directory);
    EXPECT_EQ(folder.read("file"), "content");
}

TEST_F(TempfileGuardTest, RefusesAnUnusableTemporaryAreaWithTheSystemsCode) {
    testsupport::PrivateTemporaryArea const area;
    ::setenv("TMPDIR", (folder / "missing").c_str(), 1);

    EXPECT_EQ(codeThrownBy([] { TempfileGuard(u"", u"p", u"s"); }), errc::no_such_file_or_directory);
}

TEST_F(TempfileGuardTest, RefusesAFolderThatMayNotBeWrittenTo) {
    if (testsupport::runsAsRoot())
        GTEST_SKIP() << "root may write to every folder";
    fs::create_directory(folder / "inner");
    fs::permissions(folder / "inner", fs::perms(0500));

    EXPECT_EQ(codeThrownBy([&] { TempfileGuard(folder.corePath("inner"), u"p", u"s"); }), errc::permission_denied);
}

TEST_F(TempfileGuardTest, RefusesAPrefixOrSuffixThatLeadsToAnotherFolder) {
    fs::create_directory(folder / "inner");
    auto const inner = folder.corePath("inner");

    for (auto const* part : {u"/", u"../", u"a/b", u"/etc/"}) {
        EXPECT_THAT(messageThrownFor(inner, part, u""),
                    testing::AllOf(StartsWith("Could not create temporary file \""),
                                   EndsWith("\": its name holds a \"/\" or a NUL")));
        EXPECT_THAT(messageThrownFor(inner, u"", part), EndsWith("\": its name holds a \"/\" or a NUL"));
    }

    EXPECT_THAT(folder.entries(), ElementsAre("inner"));
    EXPECT_TRUE(fs::is_empty(folder / "inner"));
}

TEST_F(TempfileGuardTest, RefusesANameThatHoldsNulAndSaysWhy) {
    std::u16string const nul(1, u'\0');

    EXPECT_THAT(messageThrownFor(folder.corePath(""), u"a" + nul, u"b"),
                testing::AllOf(StartsWith("Could not create temporary file \""), HasSubstr("NUL")));

    EXPECT_THAT(folder.entries(), IsEmpty());
}

TEST_F(TempfileGuardTest, RemovesItsFileWithoutMemory) {
    auto guard = std::make_unique<TempfileGuard>(folder.corePath(""), u"a prefix of some length", u"");
    {
        testsupport::FailingAllocations const failing(0, testsupport::FailingAllocations::AllFromThere);
        guard.reset();
    }

    EXPECT_THAT(folder.entries(), IsEmpty());
}

TEST_F(TempfileGuardTest, CannotBeCopied) {
    EXPECT_FALSE(std::is_copy_constructible_v<TempfileGuard>);
    EXPECT_FALSE(std::is_copy_assignable_v<TempfileGuard>);
}

} // namespace
