#include <algorithm>
#include <csignal>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

#include <gmock/gmock.h>

#include <opccore/CommitOptions.hpp>
#include <opccore/Exception.hpp>
#include <opccore/IPhysicalInputStream.hpp>
#include <opccore/IPhysicalOutputStream.hpp>
#include <tests/support/FileSizeLimit.hpp>
#include <tests/support/FoldersInMemory.hpp>
#include <tests/support/PackageFixture.hpp>
#include <tests/support/Permissions.hpp>
#include <tests/support/SmallDisk.hpp>
#include <tests/support/Throws.hpp>
#include <tests/support/TracedProgram.hpp>
#include <textpackage/FilePart.hpp>
#include <textpackage/FilePartInfo.hpp>
#include <textpackage/TextFilePhysicalPackage.hpp>

namespace fs = std::filesystem;

using opc::CommitOptions;
using opc::interfaces::IPhysicalOutputStream;
using opc::interfaces::OpenMode;
using opc::textpackage::FilePartInfo;
using opc::textpackage::TextFilePhysicalPackage;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using testsupport::addPart;
using testsupport::contentOf;
using testsupport::FileSizeLimit;
using testsupport::openingParts;
using testsupport::packageText;
using testsupport::partOf;
using testsupport::permissionsOf;
using testsupport::ProgramEnd;
using testsupport::SmallDisk;
using testsupport::throwsPackageError;
using testsupport::toNativePath;
using testsupport::writeInto;

namespace {

/// Whether the action ends without an exception.
template <class Action>
bool succeeds(Action action) {
    try {
        action();
        return true;
    } catch (std::exception const&) {
        return false;
    }
}

class FaultyCommit : private testsupport::FoldersInMemory, public testsupport::PackageFixture {
protected:
    /// Makes every kind of change in a package of `oldText`.
    static void change(TextFilePhysicalPackage& package) {
        writeInto(partOf(package, u"/a.xml"), "<changed/>");
        EXPECT_EQ(contentOf(package, u"/b.bin"), "abcabc"); // decoded
        writeInto(partOf(package, u"/c.bin"), "changed");
        package.deletePart(u"/deleted.xml");
        addPart(package, u"/new.xml", u"", "new");
        addPart(package, u"/new.png", u"image/png", "new");
        package.createPart(u"/never.xml", u"", FilePartInfo()); // never written
        partOf(package, u"/d.xml").getOutputStream()->write("in the buffer", 13);
    }

    /// Looks at what a commit left: the old or the new file, and nothing else.
    void expectTheNewFileOrTheOldOne(bool committed) const {
        EXPECT_EQ(packageFile(), committed ? newText : oldText);
        EXPECT_THAT(folder.entries(), ElementsAre("package.txt"));
        EXPECT_THAT(temporaryArea.entries(), IsEmpty());
    }

    std::string const oldText = packageText(openingParts({{"/b.bin", "YWJj\nYWJj", true},
                                                          {"/c.bin", "YWJj", true},
                                                          {"/d.xml", "old"},
                                                          {"/deleted.xml", "old"},
                                                          {"/empty.bin", "", true},
                                                          {"/empty.xml", ""},
                                                          {"/lines.bin", "YW\nJj", true}}),
                                            "header");
    std::string const newText = packageText({{"/[Content_Types].xml", "<Types/>"},
                                             {"/_rels/.rels", "<Relationships/>"},
                                             {"/a.xml", "<changed/>"},
                                             {"/b.bin", "YWJjYWJj", true},
                                             {"/c.bin", "Y2hhbmdlZA==", true},
                                             {"/d.xml", "in the buffer"},
                                             {"/empty.bin", "", true},
                                             {"/empty.xml", ""},
                                             {"/lines.bin", "YW\nJj", true},
                                             {"/never.xml", ""},
                                             {"/new.png", "bmV3", true},
                                             {"/new.xml", "new"}},
                                            "header");
};

// --- Files that can't grow beyond a limit

TEST_F(FaultyCommit, LeavesTheOldFileOrTheNewOneAtEveryLimitOfTheFileSize) {
    for (std::uint64_t limit = 0; limit <= newText.size() + 2; ++limit) {
        SCOPED_TRACE("limit " + std::to_string(limit));
        TextFilePhysicalPackage package(writeText(oldText));
        package.open(OpenMode::ReadWrite);
        change(package);

        bool const committed = succeeds([&] {
            FileSizeLimit const full(limit);
            package.close(false);
        });

        EXPECT_EQ(committed, limit >= newText.size());
        expectTheNewFileOrTheOldOne(committed);
        EXPECT_FALSE(package.isOpen());
    }
}

TEST_F(FaultyCommit, MakesABackupOnlyWithTheNewFileAtEveryLimitOfTheFileSize) {
    CommitOptions options;
    options.keepBackup = true;
    for (std::uint64_t limit = 0; limit <= newText.size() + 2; ++limit) {
        SCOPED_TRACE("limit " + std::to_string(limit));
        TextFilePhysicalPackage package(writeText(oldText));
        package.setCommitOptions(options);
        package.open(OpenMode::ReadWrite);
        change(package);

        bool const committed = succeeds([&] {
            FileSizeLimit const full(limit);
            package.close(false);
        });

        EXPECT_EQ(committed, limit >= newText.size());
        EXPECT_EQ(fs::exists(folder / "package.txt.bak"), committed);
        if (committed) {
            EXPECT_EQ(folder.read("package.txt.bak"), oldText);
        }
        fs::remove(folder / "package.txt.bak");
        expectTheNewFileOrTheOldOne(committed);
    }
}

TEST_F(FaultyCommit, LeavesNoNewFileOrAWholeOneAtEveryLimitOfTheFileSize) {
    auto const expected = packageText({{"/[Content_Types].xml", ""}, {"/new.png", "bmV3", true}});
    for (std::uint64_t limit = 0; limit <= expected.size() + 2; ++limit) {
        SCOPED_TRACE("limit " + std::to_string(limit));
        TextFilePhysicalPackage package(folder.corePath("package.txt"));
        package.open(OpenMode::Create);
        addPart(package, u"/new.png", u"image/png", "new");

        bool const committed = succeeds([&] {
            FileSizeLimit const full(limit);
            package.close(false);
        });

        EXPECT_EQ(committed, limit >= expected.size());
        EXPECT_EQ(fs::exists(folder / "package.txt"), committed);
        if (committed) {
            EXPECT_EQ(packageFile(), expected);
        }
        fs::remove(folder / "package.txt");
        EXPECT_THAT(folder.entries(), IsEmpty());
        EXPECT_THAT(temporaryArea.entries(), IsEmpty());
    }
}

TEST_F(FaultyCommit, SaysWhichStoredPartItHadNoRoomFor) {
    TextFilePhysicalPackage package(writeText(oldText));
    package.open(OpenMode::ReadWrite);
    change(package);
    auto const file = toNativePath(package.getContentTypesPart()->getExtractedFullPath()).string();

    EXPECT_THAT(
        [&] {
            FileSizeLimit const full(3);
            package.close(false);
        },
        throwsPackageError("Failed to write the stored part to " + file));

    expectTheNewFileOrTheOldOne(false);
}

/// How a host writes a part while files can't grow.
struct WayToWrite {
    char const* name;
    bool noticesTheLimit; ///< hands the bytes on to the file before the limit is lifted
    void (*write)(IPhysicalOutputStream& stream, std::string const& content);
};

void writeAll(IPhysicalOutputStream& stream, std::string const& content) {
    stream.write(content.data(), static_cast<std::int64_t>(content.size()));
}

std::vector<WayToWrite> const waysToWrite = {
    {"closed", true,
     [](IPhysicalOutputStream& stream, std::string const& content) {
         writeAll(stream, content);
         stream.close();
     }},
    {"flushed", true,
     [](IPhysicalOutputStream& stream, std::string const& content) {
         writeAll(stream, content);
         stream.flush();
     }},
    {"flushed and closed", true,
     [](IPhysicalOutputStream& stream, std::string const& content) {
         writeAll(stream, content);
         stream.flush();
         stream.close();
     }},
    {"written byte by byte with flushes", true,
     [](IPhysicalOutputStream& stream, std::string const& content) {
         for (char const byte : content) {
             stream.write(&byte, 1);
             stream.flush();
         }
     }},
    {"left in the buffer", false, writeAll},
};

TEST_F(FaultyCommit, NeverTakesAPartThatCouldNotBeWrittenForAWholeOne) {
    std::string const content = "0123456789\nabcdefghij\nABCDEFGHIJ";
    for (auto const& way : waysToWrite) {
        for (bool const isNew : {false, true}) {
            for (std::uint64_t limit = 0; limit <= content.size() + 1; ++limit) {
                SCOPED_TRACE(std::string(way.name) + (isNew ? ", a new part" : ", a stored part") + ", limit " +
                             std::to_string(limit));
                TextFilePhysicalPackage package(writePackage());
                auto const before = packageFile();
                package.open(OpenMode::ReadWrite);
                auto& part = isNew ? *package.createPart(u"/b.xml", u"", FilePartInfo()) : partOf(package, u"/a.xml");
                auto& stream = *part.getOutputStream();
                {
                    FileSizeLimit const full(limit);
                    way.write(stream, content);
                }

                bool const committed = succeeds([&] { package.close(false); });

                EXPECT_EQ(committed, !way.noticesTheLimit || limit >= content.size());
                auto const whole = isNew ? packageText(openingParts({{"/b.xml", content}}))
                                         : packageText({{"/[Content_Types].xml", "<Types/>"},
                                                        {"/_rels/.rels", "<Relationships/>"},
                                                        {"/a.xml", content}});
                EXPECT_EQ(packageFile(), committed ? whole : before);
                EXPECT_THAT(folder.entries(), ElementsAre("package.txt"));
                EXPECT_THAT(temporaryArea.entries(), IsEmpty());
            }
        }
    }
}

TEST_F(FaultyCommit, NeverTakesALargePartThatCouldNotBeWrittenForAWholeOne) {
    std::string const content(200000, 'x'); // more than a stream's buffer holds
    for (std::uint64_t const limit : {0U, 1U, 65535U, 65536U, 65537U, 131072U, 199999U, 200000U, 200001U}) {
        TextFilePhysicalPackage package(writePackage());
        auto const before = packageFile();
        package.open(OpenMode::ReadWrite);
        auto& stream = *partOf(package, u"/a.xml").getOutputStream();
        {
            FileSizeLimit const full(limit);
            for (std::size_t begin = 0; begin < content.size(); begin += 1000)
                stream.write(content.data() + begin, 1000);
            stream.close();
        }

        bool const committed = succeeds([&] { package.close(false); });

        EXPECT_EQ(committed, limit >= content.size()) << limit;
        EXPECT_EQ(packageFile() == before, !committed) << limit;
    }
}

TEST_F(FaultyCommit, DoesNotTakeWhatFollowsAGapEither) {
    TextFilePhysicalPackage package(writePackage());
    auto const before = packageFile();
    package.open(OpenMode::ReadWrite);
    auto& stream = *partOf(package, u"/a.xml").getOutputStream();
    {
        FileSizeLimit const full(4);
        stream.write("first, ", 7);
        stream.flush();
    }
    EXPECT_TRUE(stream.hasFailed());

    EXPECT_EQ(stream.write("second", 6), 0);
    EXPECT_FALSE(succeeds([&] { package.close(false); }));

    EXPECT_EQ(packageFile(), before);
}

TEST_F(FaultyCommit, TakesAPartThatWasWrittenAgainAfterAFailure) {
    TextFilePhysicalPackage package(writePackage());
    package.open(OpenMode::ReadWrite);
    auto& part = partOf(package, u"/a.xml");
    {
        FileSizeLimit const full(4);
        writeAll(*part.getOutputStream(), "<changed/>");
        part.close();
    }

    writeInto(part, "<changed/>");
    package.close(false);

    EXPECT_EQ(packageFile(), packageText({{"/[Content_Types].xml", "<Types/>"},
                                          {"/_rels/.rels", "<Relationships/>"},
                                          {"/a.xml", "<changed/>"}}));
}

TEST_F(FaultyCommit, KeepsTheStoredLinesOfAPartWhoseDecodingHadNoRoom) {
    for (std::uint64_t limit = 0; limit <= 7; ++limit) {
        SCOPED_TRACE("limit " + std::to_string(limit));
        TextFilePhysicalPackage package(writePackage({{"/b.bin", "YWJj\nYWJj", true}}));
        package.open(OpenMode::ReadWrite);
        auto& part = partOf(package, u"/b.bin");
        auto const file = toNativePath(part.getExtractedFullPath()).string();
        auto const decode = [&] {
            FileSizeLimit const full(limit);
            part.getInputStream();
        };

        if (limit < 6) {
            EXPECT_THAT(decode, throwsPackageError("Failed to write the decoded part to " + file));
        } else {
            EXPECT_NO_THROW(decode());
        }
        EXPECT_EQ(contentOf(package, u"/b.bin"), "abcabc"); // there is room again
        package.deletePart(u"/a.xml");
        package.close(false);

        EXPECT_EQ(packageFile(), packageText({{"/[Content_Types].xml", "<Types/>"},
                                              {"/_rels/.rels", "<Relationships/>"},
                                              {"/b.bin", "YWJjYWJj", true}}));
    }
}

TEST_F(FaultyCommit, KeepsTheStoredLinesOfAPartThatWasNeverDecodedForLackOfRoom) {
    TextFilePhysicalPackage package(writePackage({{"/b.bin", "YWJj\nYWJj", true}}));
    package.open(OpenMode::ReadWrite);
    EXPECT_FALSE(succeeds([&] {
        FileSizeLimit const full(2);
        partOf(package, u"/b.bin").getInputStream();
    }));
    package.deletePart(u"/a.xml");

    package.close(false);

    EXPECT_EQ(packageFile(), packageText({{"/[Content_Types].xml", "<Types/>"},
                                          {"/_rels/.rels", "<Relationships/>"},
                                          {"/b.bin", "YWJj\nYWJj", true}}));
}

// --- A disk that is full

class CommitOnAFullDisk : public FaultyCommit {
protected:
    /// Commits with every number of free pages on the disk; what is there afterwards must be whole, and with the
    /// most room it must be the new file, with the least the old one.
    void expectTheNewFileOrTheOldOneWhateverRoomThereIs(SmallDisk const& disk) {
        std::string const content(3 * SmallDisk::PageBytes, 'x');
        auto const before = packageText(openingParts());
        auto const after = packageText(openingParts({{"/new.xml", content}}));
        std::vector<bool> outcomes;
        for (std::size_t pages = 1; pages < SmallDisk::Pages; ++pages) {
            SCOPED_TRACE(std::to_string(pages) + " pages free");
            auto const path = writeText(before);
            disk.leaveRoomFor(pages);

            TextFilePhysicalPackage package(path);
            bool const committed = succeeds([&] {
                package.open(OpenMode::ReadWrite);
                auto& stream = *package.createPart(u"/new.xml", u"", FilePartInfo())->getOutputStream();
                writeAll(stream, content);
                stream.close();
                package.close(false);
            });
            package.close(true);
            disk.release();

            EXPECT_EQ(packageFile(), committed ? after : before);
            EXPECT_THAT(folder.entries(), ElementsAre("package.txt"));
            EXPECT_THAT(temporaryArea.entries(), IsEmpty());
            outcomes.push_back(committed);
        }
        EXPECT_FALSE(outcomes.front());
        EXPECT_TRUE(outcomes.back());
    }
};

TEST_F(CommitOnAFullDisk, LeavesTheOldFileOrTheNewOneWhereItHoldsTheTemporaryArea) {
    SmallDisk const disk(temporaryArea.folder().path());
    if (!disk.whyNot().empty())
        GTEST_SKIP() << disk.whyNot();

    expectTheNewFileOrTheOldOneWhateverRoomThereIs(disk);
}

TEST_F(CommitOnAFullDisk, LeavesTheOldFileOrTheNewOneWhereItHoldsThePackage) {
    SmallDisk const disk(folder.path());
    if (!disk.whyNot().empty())
        GTEST_SKIP() << disk.whyNot();

    expectTheNewFileOrTheOldOneWhateverRoomThereIs(disk);
}

// --- Folders that refuse or vanish

/// Makes the process one that permission bits hold back, for as long as it lives: root becomes nobody.
class OrdinaryUser {
public:
    static constexpr uid_t Nobody = 65534;

    OrdinaryUser() { EXPECT_TRUE(!wasRoot_ || ::seteuid(Nobody) == 0); }
    OrdinaryUser(OrdinaryUser const&) = delete;
    OrdinaryUser& operator=(OrdinaryUser const&) = delete;
    ~OrdinaryUser() { EXPECT_TRUE(!wasRoot_ || ::seteuid(0) == 0); }

private:
    bool const wasRoot_ = testsupport::runsAsRoot();
};

TEST_F(FaultyCommit, LeavesTheOldFileWhereItsFolderMayNotBeWritten) {
    auto const path = writeText(oldText);
    if (testsupport::runsAsRoot()) {
        ASSERT_EQ(::chown(temporaryArea.folder().path().c_str(), OrdinaryUser::Nobody, static_cast<gid_t>(-1)), 0);
    }
    fs::permissions(folder.path(), static_cast<fs::perms>(0555));
    {
        OrdinaryUser const user;
        TextFilePhysicalPackage package(path);
        package.open(OpenMode::ReadWrite);
        change(package);

        EXPECT_THAT([&] { package.close(false); },
                    ::testing::ThrowsMessage<opc::Exception>(::testing::EndsWith(": Permission denied")));

        EXPECT_FALSE(package.isOpen());
    }

    fs::permissions(folder.path(), static_cast<fs::perms>(0755));
    expectTheNewFileOrTheOldOne(false);
}

TEST_F(FaultyCommit, LeavesTheOldFileWhereBeforeReplaceThrows) {
    TextFilePhysicalPackage package(writeText(oldText));
    CommitOptions options;
    options.beforeReplace = [](std::u16string const&) { throw std::runtime_error("cancelled"); };
    package.setCommitOptions(options);
    package.open(OpenMode::ReadWrite);
    change(package);

    EXPECT_FALSE(succeeds([&] { package.close(false); }));

    expectTheNewFileOrTheOldOne(false);
}

TEST_F(FaultyCommit, WritesTheNewFileThoughTheFolderOfTheWorkingCopyIsGone) {
    TextFilePhysicalPackage package(writePackage());
    package.open(OpenMode::ReadWrite);
    writeInto(partOf(package, u"/a.xml"), "<changed/>");
    fs::remove_all(toNativePath(package.getExtractedPackageRoot())); // it is mapped still

    package.close(false);

    EXPECT_EQ(packageFile(), packageText({{"/[Content_Types].xml", "<Types/>"},
                                          {"/_rels/.rels", "<Relationships/>"},
                                          {"/a.xml", "<changed/>"}}));
}

TEST_F(FaultyCommit, LeavesTheOldFileWhereTheFolderOfTheChangedPartsIsGone) {
    TextFilePhysicalPackage package(writeText(oldText));
    package.open(OpenMode::ReadWrite);
    change(package);
    fs::remove_all(toNativePath(package.getModifiedPackageRoot()));

    EXPECT_FALSE(succeeds([&] { package.close(false); }));

    expectTheNewFileOrTheOldOne(false);
}

TEST_F(FaultyCommit, LeavesTheOldFileWhereAFileStandsInTheWayOfAPartsFolder) {
    TextFilePhysicalPackage package(writeText(oldText));
    package.open(OpenMode::ReadWrite);
    change(package);
    auto const relationships = toNativePath(partOf(package, u"/_rels/.rels").getExtractedFullPath());
    std::ofstream(relationships.parent_path()) << "in the way";

    EXPECT_FALSE(succeeds([&] { package.close(false); }));

    expectTheNewFileOrTheOldOne(false);
}

// --- A process that is killed, or whose system calls fail

/// System calls of a committing process that are disturbed, one run after the other.
struct Disturbance {
    char const* name;
    char const* call;                     ///< the n-th call of this kind is disturbed, in the n-th run
    char const* how;                      ///< what happens to it, in the words of strace
    std::vector<std::string> others = {}; ///< what happens to other calls in each run
    char const* until = "";               ///< "+": all later calls of this kind are disturbed too
};

std::ostream& operator<<(std::ostream& out, Disturbance const& disturbance) {
    return out << disturbance.name;
}

std::string testNameOf(::testing::TestParamInfo<Disturbance> const& info) {
    return info.param.name;
}

class DisturbedCommit : private testsupport::FoldersInMemory,
                        public testsupport::PackageFixture,
                        public ::testing::WithParamInterface<Disturbance> {
protected:
    void SetUp() override {
        static std::string const whyNot = testsupport::whyNotTraced();
        if (!whyNot.empty())
            GTEST_SKIP() << whyNot;
    }

    /// Runs the program on a fresh package, its n-th call disturbed.
    ProgramEnd commitWithCallDisturbed(int n) {
        writeText(oldText);
        auto const& disturbance = GetParam();
        auto injections = disturbance.others;
        injections.push_back(std::string(disturbance.call) + ":" + disturbance.how + ":when=" + std::to_string(n) +
                             disturbance.until);
        auto calls = std::string("rename,") + disturbance.call;
        for (auto const& other : disturbance.others)
            calls += "," + other.substr(0, other.find(':'));
        return testsupport::runTraced({COMMIT_ONCE, (folder / "package.txt").string()}, calls, injections);
    }

    static bool wasDisturbed(ProgramEnd const& end) {
        auto const& disturbed = GetParam().call;
        return end.signal != 0 || linesWith(end, std::string(" ") + disturbed + "(", "(INJECTED)") > 0;
    }

    /// Whether the new file has taken the place of the old one, as the system saw it.
    static bool wasReplaced(ProgramEnd const& end) { return linesWith(end, " rename(", " = 0") > 0; }

    static long linesWith(ProgramEnd const& end, std::string const& call, std::string const& ending) {
        std::istringstream lines(end.calls);
        long count = 0;
        for (std::string line; std::getline(lines, line);) {
            bool const ends =
                line.size() >= ending.size() && line.compare(line.size() - ending.size(), ending.size(), ending) == 0;
            count += ends && line.find(call) != std::string::npos ? 1 : 0;
        }
        return count;
    }

    /// Whether a call of a sanitizer's own was disturbed, which ends the process at once.
    static bool endedTheSanitizer(ProgramEnd const& end) {
        return (end.output + end.calls).find("Sanitizer") != std::string::npos;
    }

    /// What was left in the temporary area is removed here.
    void emptyTheTemporaryArea() const {
        for (auto const& path : temporaryPaths())
            fs::remove_all(path);
    }

    std::string const oldText =
        packageText(openingParts({{"/b.bin", "AAECAwQ=", true}, {"/c.xml", ""}, {"/x/d.xml", "two\nlines"}}), "header");
    std::string const newText = packageText({{"/[Content_Types].xml", "<Types/>"},
                                             {"/_rels/.rels", "<Relationships/>"},
                                             {"/a.xml", "<changed/>"},
                                             {"/b.bin", "AAECAwQ=", true},
                                             {"/c.xml", ""},
                                             {"/new.bin", "bmV3", true},
                                             {"/x/d.xml", "two\nlines"}},
                                            "header");
    static constexpr int MostRuns = 1000;
};

class KilledCommit : public DisturbedCommit {};

TEST_P(KilledCommit, LeavesTheOldFileOrTheNewOneAtEachCall) {
    int kills = 0;
    for (int n = 1; n < MostRuns; ++n) {
        auto const end = commitWithCallDisturbed(n);
        SCOPED_TRACE("call " + std::to_string(n) + ": " + end.output);

        EXPECT_EQ(packageFile(), wasReplaced(end) ? newText : oldText);
        for (auto const& name : folder.entries()) {
            if (name != "package.txt") {
                EXPECT_THAT(name, ::testing::MatchesRegex("\\.opc-[0-9a-f]+\\.tmp"));
                fs::remove(folder / name);
            }
        }
        for (auto const& path : temporaryPaths())
            EXPECT_EQ(permissionsOf(path) & 0077U, 0U) << path;
        emptyTheTemporaryArea();
        if (end.signal == 0) { // it made fewer calls than that
            EXPECT_EQ(end.exitCode, 0);
            EXPECT_EQ(packageFile(), newText);
            break;
        }
        EXPECT_EQ(end.signal, SIGKILL);
        ++kills;
    }
    EXPECT_GT(kills, 0);
}

INSTANTIATE_TEST_SUITE_P(
    EachCall, KilledCommit,
    ::testing::Values(
        Disturbance{"openat", "openat", "signal=KILL"}, Disturbance{"write", "write", "signal=KILL"},
        Disturbance{"close", "close", "signal=KILL"}, Disturbance{"link", "link", "signal=KILL"},
        Disturbance{"copy_file_range", "copy_file_range", "signal=KILL"}, Disturbance{"chmod", "chmod", "signal=KILL"},
        Disturbance{"fchmod", "fchmod", "signal=KILL"}, Disturbance{"fsync", "fsync", "signal=KILL"},
        Disturbance{"rename", "rename", "signal=KILL"}, Disturbance{"unlink", "unlink", "signal=KILL"},
        Disturbance{"unlinkat", "unlinkat", "signal=KILL"}, Disturbance{"mkdir", "mkdir", "signal=KILL"},
        Disturbance{"copy_file_range_to_another_file_system", "copy_file_range", "signal=KILL", {"link:error=EXDEV"}},
        Disturbance{"fsync_on_another_file_system", "fsync", "signal=KILL", {"link:error=EXDEV"}},
        Disturbance{"write_where_the_kernel_copies_nothing",
                    "write",
                    "signal=KILL",
                    {"link:error=EXDEV", "copy_file_range:error=EXDEV"}}),
    testNameOf);

class FailingCommit : public DisturbedCommit {
protected:
    /// The sanitizer's own calls are disturbed too, and end the process in the middle.
    static bool mayLeaveTemporaryFiles(ProgramEnd const& end) { return endedTheSanitizer(end); }
};

TEST_P(FailingCommit, LeavesTheOldFileOrTheNewOneAndSaysWhichAtEachCall) {
    int failures = 0;
    for (int n = 1; n < MostRuns; ++n) {
        auto const end = commitWithCallDisturbed(n);
        SCOPED_TRACE("call " + std::to_string(n) + ": " + end.output + end.calls);
        bool const succeeded = end.exitCode == 0 && !endedTheSanitizer(end);
        bool const onlyTheFolderWasNotSynced = wasReplaced(end) && std::string(GetParam().call) == "fsync";
        bool const failedInTheEnd = onlyTheFolderWasNotSynced || (wasReplaced(end) && endedTheSanitizer(end));

        EXPECT_EQ(end.signal, 0);
        EXPECT_EQ(packageFile(), succeeded || failedInTheEnd ? newText : oldText);
        EXPECT_EQ(packageFile() == newText, wasReplaced(end));
        EXPECT_THAT(folder.entries(), ElementsAre("package.txt"));
        if (!mayLeaveTemporaryFiles(end)) {
            EXPECT_THAT(temporaryArea.entries(), IsEmpty());
        }
        emptyTheTemporaryArea();
        if (!wasDisturbed(end)) { // it made fewer calls than that
            EXPECT_TRUE(succeeded);
            break;
        }
        ++failures;
    }
    EXPECT_GT(failures, 0);
}

INSTANTIATE_TEST_SUITE_P(
    EachCall, FailingCommit,
    ::testing::Values(
        Disturbance{"openat_EMFILE", "openat", "error=EMFILE"}, Disturbance{"read_EIO", "read", "error=EIO"},
        Disturbance{"write_ENOSPC", "write", "error=ENOSPC"},
        Disturbance{"write_ENOSPC_for_good", "write", "error=ENOSPC", {}, "+"},
        Disturbance{"close_EIO", "close", "error=EIO"}, Disturbance{"newfstatat_EIO", "newfstatat", "error=EIO"},
        Disturbance{"lseek_EIO", "lseek", "error=EIO"}, Disturbance{"getrandom_EIO", "getrandom", "error=EIO"},
        Disturbance{"mkdir_ENOSPC", "mkdir", "error=ENOSPC"}, Disturbance{"chmod_EPERM", "chmod", "error=EPERM"},
        Disturbance{"fchmod_EPERM", "fchmod", "error=EPERM"}, Disturbance{"link_EIO", "link", "error=EIO"},
        Disturbance{"copy_file_range_ENOSPC", "copy_file_range", "error=ENOSPC"},
        Disturbance{"fsync_EIO", "fsync", "error=EIO"},
        Disturbance{"fsync_EIO_for_good", "fsync", "error=EIO", {}, "+"},
        Disturbance{"rename_EIO", "rename", "error=EIO"}, Disturbance{"rename_ENOSPC", "rename", "error=ENOSPC"},
        Disturbance{"unlink_EIO", "unlink", "error=EIO"}, Disturbance{"unlinkat_EIO", "unlinkat", "error=EIO"},
        Disturbance{"getdents64_EIO", "getdents64", "error=EIO"},
        Disturbance{"write_ENOSPC_where_the_kernel_copies_nothing",
                    "write",
                    "error=ENOSPC",
                    {"link:error=EXDEV", "copy_file_range:error=EXDEV"}}),
    testNameOf);

class InterruptedCommit : public DisturbedCommit {};

TEST_P(InterruptedCommit, WritesTheNewFileAtEachCall) {
    int interruptions = 0;
    for (int n = 1; n < MostRuns; ++n) {
        auto const end = commitWithCallDisturbed(n);
        SCOPED_TRACE("call " + std::to_string(n) + ": " + end.output + end.calls);

        EXPECT_EQ(end.exitCode, 0);
        EXPECT_EQ(packageFile(), newText);
        EXPECT_THAT(folder.entries(), ElementsAre("package.txt"));
        EXPECT_THAT(temporaryArea.entries(), IsEmpty());
        if (!wasDisturbed(end))
            break;
        ++interruptions;
    }
    EXPECT_GT(interruptions, 0);
}

INSTANTIATE_TEST_SUITE_P(EachCall, InterruptedCommit,
                         ::testing::Values(Disturbance{"write", "write", "error=EINTR"},
                                           Disturbance{"copy_file_range", "copy_file_range", "error=EINTR"},
                                           Disturbance{"fchmod", "fchmod", "error=EINTR"},
                                           Disturbance{"fsync", "fsync", "error=EINTR"},
                                           Disturbance{"unlink", "unlink", "error=EINTR"},
                                           Disturbance{"unlinkat", "unlinkat", "error=EINTR"}),
                         testNameOf);

class TracedCommit : private testsupport::FoldersInMemory, public testsupport::PackageFixture {
protected:
    void SetUp() override {
        auto const whyNot = testsupport::whyNotTraced();
        if (!whyNot.empty())
            GTEST_SKIP() << whyNot;
        writePackage();
    }

    ProgramEnd commit(std::string const& calls, std::vector<std::string> const& injections) const {
        return testsupport::runTraced({COMMIT_ONCE, (folder / "package.txt").string(), "--keep-backup"}, calls,
                                      injections);
    }
};

TEST_F(TracedCommit, SyncsEachFileBeforeItTakesItsNameAndTheFolderAfterwards) {
    auto const end = commit("fsync,rename", {});

    std::istringstream lines(end.calls);
    std::string order;
    for (std::string line; std::getline(lines, line);)
        order += line.find(" rename(") != std::string::npos ? "rename " : "fsync ";
    EXPECT_EQ(end.exitCode, 0) << end.output;
    EXPECT_EQ(order, "fsync fsync rename fsync rename fsync "); // both files; backup, folder; new file, folder
}

TEST_F(TracedCommit, LeavesABackupNoLaterThanTheNewFileWhenItIsKilled) {
    auto const before = packageFile();
    for (int n = 1; n <= 2; ++n) {
        auto const end = commit("rename", {"rename:signal=KILL:when=" + std::to_string(n)});

        EXPECT_EQ(end.signal, SIGKILL) << end.output;
        EXPECT_EQ(packageFile(), before);
        EXPECT_EQ(fs::exists(folder / "package.txt.bak"), n == 2);
    }
    EXPECT_EQ(folder.read("package.txt.bak"), before);

    auto const end = commit("rename", {});

    EXPECT_EQ(end.exitCode, 0) << end.output;
    EXPECT_NE(packageFile(), before);
    EXPECT_EQ(folder.read("package.txt.bak"), before);
    for (auto const& path : temporaryPaths()) // of the killed ones
        fs::remove_all(path);
}

TEST_F(TracedCommit, LeavesNothingWhereTheReplacementFailsAndOneRemovalDoesToo) {
    auto const before = packageFile();
    bool didARemovalFail = true;
    for (int n = 1; didARemovalFail; ++n) {
        auto const end = commit("rename,unlink", {"rename:error=EIO", "unlink:error=EIO:when=" + std::to_string(n)});

        SCOPED_TRACE("removal " + std::to_string(n) + ": " + end.output + end.calls);
        EXPECT_EQ(end.exitCode, 1);
        EXPECT_EQ(packageFile(), before);
        EXPECT_THAT(folder.entries(), ElementsAre("package.txt"));
        EXPECT_THAT(temporaryArea.entries(), IsEmpty());

        didARemovalFail = false;
        std::istringstream lines(end.calls);
        for (std::string line; std::getline(lines, line);) {
            if (line.find(" unlink(") != std::string::npos && line.find("(INJECTED)") != std::string::npos)
                didARemovalFail = true;
        }
        EXPECT_TRUE(didARemovalFail || n > 1);
        ASSERT_LT(n, 20);
    }
}

} // namespace
