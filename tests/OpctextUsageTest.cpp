#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <tests/support/Base64Lines.hpp>
#include <tests/support/OpctextFixture.hpp>
#include <tests/support/Permissions.hpp>
#include <tests/support/TracedProgram.hpp>

namespace fs = std::filesystem;

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using testsupport::base64Lines;
using testsupport::ends;
using testsupport::fails;
using testsupport::mixedBytes;
using testsupport::openingParts;
using testsupport::packageText;
using testsupport::ProgramCall;
using testsupport::ProgramResult;
using testsupport::succeeds;

namespace {

using Words = std::vector<std::string>;

class OpctextUsage : public testsupport::OpctextFixture {
protected:
    /// Runs the program with something done to its process first.
    ProgramResult runAfter(std::function<void()> inChild, Words const& words, std::string const& input = "") const {
        ProgramCall call;
        call.words = words;
        call.input = input;
        call.inChild = std::move(inChild);
        return run(call);
    }
};

TEST_F(OpctextUsage, IsExplainedWhereItIsWrong) {
    writePackage();
    auto const before = package();
    struct Case {
        Words words;
        std::string message;
    };
    std::vector<Case> const cases{
        {{}, "A subcommand is required"},
        {{"list"}, "FILE is required"},
        {{"info"}, "FILE is required"},
        {{"check"}, "FILE is required"},
        {{"create"}, "FILE is required"},
        {{"cat", "p.txt"}, "PART is required"},
        {{"rm", "p.txt"}, "PART is required"},
        {{"set", "p.txt"}, "PART is required"},
        {{"list", "--frob", "p.txt"}, "The following argument was not expected: --frob"},
        {{"list", "p.txt", "more"}, "The following argument was not expected: more"},
        {{"list", "-1", "--json", "p.txt"}, "-1 excludes --json"},
        {{"set", "p.txt", "/a", "--text", "--binary"}, "--binary excludes --text"},
        {{"header", "p.txt", "--set", "x", "--clear"}, "--set excludes --clear"},
        {{"header", "p.txt", "--set", "x", "--from", "y"}, "--set excludes --from"},
        {{"header", "p.txt", "--from", "x", "--clear"}, "--from excludes --clear"},
    };

    for (auto const& [words, message] : cases) {
        SCOPED_TRACE(message);
        EXPECT_THAT(run(words), fails(2, "opctext: " + message + "\nopctext: see opctext --help\n"));
    }
    EXPECT_EQ(package(), before);
}

TEST_F(OpctextUsage, NamesACommandThatThereIsNot) {
    for (Words const& words : {Words{"frob"}, Words{"frob", "p.txt"}, Words{"--frob", "list", "p.txt"}}) {
        auto const result = run(words);

        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.output, "");
        EXPECT_THAT(result.errors, StartsWith("opctext: "));
        EXPECT_THAT(result.errors, HasSubstr("frob"));
    }
}

TEST_F(OpctextUsage, IsShownOnStandardOutputWhereAskedFor) {
    for (std::string const flag : {"--help", "-h"}) {
        auto const result = run(Words{flag});

        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.errors, "");
        for (std::string const command : {"list", "cat", "extract", "info", "check", "create", "set", "rm", "header"})
            EXPECT_THAT(result.output, HasSubstr("\n  " + command + " "));
        for (std::string const status : {"0 fine", "1 a check found", "2 wrong usage", "3 not a package", "4 an input"})
            EXPECT_THAT(result.output, HasSubstr(status));
    }
}

TEST_F(OpctextUsage, IsShownForEachCommand) {
    for (std::string const command : {"list", "cat", "extract", "info", "check", "create", "set", "rm", "header"}) {
        SCOPED_TRACE(command);
        auto const result = run(Words{command, "--help"});

        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.errors, "");
        EXPECT_THAT(result.output, HasSubstr("\nUsage: opctext " + command + " [OPTIONS] FILE"));
    }
}

TEST_F(OpctextUsage, ShowsTheVersion) {
    auto const result = run(Words{"--version"});

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "");
    EXPECT_THAT(result.output, ::testing::MatchesRegex("opctext [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

TEST_F(OpctextUsage, TakesFilesWhoseNamesLookLikeSomethingElse) {
    for (std::string const name : {"list", "-1", "--json", "-"}) {
        SCOPED_TRACE(name);
        folder.write(name, packageText(openingParts()));

        EXPECT_THAT(run({"list", "-1", "--", name}), succeeds("/[Content_Types].xml\n/_rels/.rels\n/a.xml\n"));
    }
}

TEST_F(OpctextUsage, EndsWithTheStatusThatSaysWhatHappened) {
    writePackage();
    folder.write("bad.txt", packageText({{"/a.xml", "<a/>"}}));
    folder.write("none.txt", "no package\n");
    struct Case {
        Words words;
        int status;
    };
    std::vector<Case> const cases{
        {{"list", "p.txt"}, 0},         {{"check", "p.txt"}, 0},
        {{"check", "bad.txt"}, 1},      {{"list"}, 2},
        {{"set", "p.txt", "b"}, 2},     {{"list", "none.txt"}, 3},
        {{"cat", "none.txt", "/a"}, 3}, {{"cat", "bad.txt", "/a"}, 3},
        {{"extract", "none.txt"}, 3},   {{"info", "none.txt"}, 3},
        {{"header", "none.txt"}, 3},    {{"rm", "none.txt", "/a"}, 3},
        {{"list", "gone.txt"}, 4},      {{"cat", "p.txt", "/gone"}, 4},
        {{"create", "p.txt"}, 4},
    };

    for (auto const& [words, status] : cases)
        EXPECT_EQ(run(words).status, status) << ::testing::PrintToString(words);
}

// Standard output

/// Makes standard output a pipe that nobody reads.
void breakOutput() {
    int pipe[2];
    if (::pipe(pipe) == 0)
        ::dup2(pipe[1], STDOUT_FILENO);
    ::close(pipe[0]);
    ::close(pipe[1]);
}

void breakOutputIgnoringTheSignal() {
    breakOutput();
    ::signal(SIGPIPE, SIG_IGN);
}

/// The commands that write data, on a package that gives each of them much to write.
class OpctextOutput : public OpctextUsage, public ::testing::WithParamInterface<Words> {
protected:
    OpctextOutput() {
        std::vector<testsupport::PartText> parts{{"/big.bin", base64Lines(mixedBytes(300000)), true}};
        for (int i = 0; i < 2000; ++i)
            parts.push_back({"/part" + std::to_string(i) + "/", "x"}); // whose name check finds fault with
        writePackage(parts, std::string(100000, 'h'));
    }
};

INSTANTIATE_TEST_SUITE_P(EachCommand, OpctextOutput,
                         ::testing::Values(Words{"list", "p.txt"}, Words{"info", "p.txt"}, Words{"check", "p.txt"},
                                           Words{"header", "p.txt"}, Words{"cat", "p.txt", "/big.bin"},
                                           Words{"cat", "--light", "p.txt", "/big.bin"}),
                         [](auto const& words) {
                             return words.param[0] + (words.param[1] == "--light" ? "Light" : "");
                         });

TEST_P(OpctextOutput, EndsQuietlyWhereNobodyReadsIt) {
    for (auto* const broken : {&breakOutput, &breakOutputIgnoringTheSignal}) {
        auto const result = runAfter(broken, GetParam());

        EXPECT_NE(result.status, 0);
        EXPECT_EQ(result.errors, "");
    }
}

TEST_P(OpctextOutput, SaysThatItsDiskIsFull) {
    auto const makeFull = [] { ::dup2(::open("/dev/full", O_WRONLY | O_CLOEXEC), STDOUT_FILENO); };

    EXPECT_THAT(runAfter(makeFull, GetParam()), fails(4, "opctext: standard output: No space left on device\n"));
}

TEST_P(OpctextOutput, SaysThatItIsClosed) {
    auto const before = package();

    EXPECT_THAT(runAfter([] { ::close(STDOUT_FILENO); }, GetParam()),
                fails(4, "opctext: standard output: Bad file descriptor\n"));

    EXPECT_EQ(package(), before);
}

TEST_F(OpctextUsage, SaysThatTheDiskIsFullForAFewBytesToo) {
    writePackage({}, "header");
    auto const makeFull = [] { ::dup2(::open("/dev/full", O_WRONLY | O_CLOEXEC), STDOUT_FILENO); };

    for (Words const& words :
         {Words{"list", "p.txt"}, Words{"list", "--json", "p.txt"}, Words{"info", "p.txt"}, Words{"header", "p.txt"},
          Words{"cat", "p.txt", "/a.xml"}, Words{"check", "--json", "p.txt"}, Words{"--help"}, Words{"--version"}})
        EXPECT_THAT(runAfter(makeFull, words), fails(4, "opctext: standard output: No space left on device\n"))
            << ::testing::PrintToString(words);
}

TEST_F(OpctextUsage, DoesNotMindStandardOutputWhereItWritesNothing) {
    writePackage();

    EXPECT_THAT(runAfter([] { ::close(STDOUT_FILENO); }, {"set", "p.txt", "/b"}, "b"), succeeds());
    EXPECT_THAT(runAfter([] { ::close(STDERR_FILENO); }, {"set", "p.txt", "/c"}, "c"), succeeds());

    EXPECT_EQ(package(), packageText(openingParts({{"/b", "b"}, {"/c", "c"}})));
}

// Input that is no package

/// The commands that read a package; FILE stands for it.
class OpctextInput : public OpctextUsage, public ::testing::WithParamInterface<Words> {
protected:
    bool isCheck() const { return GetParam().front() == "check"; }

    ProgramResult runOn(std::string const& file) const {
        auto words = GetParam();
        std::replace(words.begin(), words.end(), std::string("FILE"), file);
        return run(words, "content");
    }

    /// Runs the command on a file that is not there, which the library and the program each say in their words.
    void expectMissing(std::string const& file) const {
        EXPECT_THAT(runOn(file), ::testing::AnyOf(fails(4, "opctext: " + file + ": there is no such file\n"),
                                                  fails(4, "opctext: " + file + ": Package does not exist\n")));
    }
};

INSTANTIATE_TEST_SUITE_P(EachCommand, OpctextInput,
                         ::testing::Values(Words{"list", "FILE"}, Words{"info", "FILE"}, Words{"cat", "FILE", "/a.xml"},
                                           Words{"cat", "--light", "FILE", "/a.xml"}, Words{"check", "FILE"},
                                           Words{"header", "FILE"}, Words{"extract", "FILE", "-C", "out"},
                                           Words{"set", "FILE", "/a.xml"}, Words{"rm", "FILE", "/a.xml"}),
                         [](auto const& words) {
                             return words.param[0] + (words.param[1] == "--light" ? "Light" : "");
                         });

TEST_P(OpctextInput, IsMissing) {
    expectMissing("gone.txt");

    EXPECT_THAT(folder.entries(), IsEmpty());
}

TEST_P(OpctextInput, IsAFolderOrADevice) {
    EXPECT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);

    for (std::string const name : {".", "fifo", "/dev/null", "/dev/zero", "/dev/full"})
        EXPECT_THAT(runOn(name), fails(4, "opctext: " + name + ": this is a folder or a device, not a file\n"));
}

TEST_P(OpctextInput, IsEmpty) {
    folder.write("p.txt", "");

    EXPECT_THAT(runOn("p.txt"), fails(3, "opctext: p.txt: the file is empty\n"));
}

TEST_P(OpctextInput, IsAZipFile) {
    fs::copy_file(TEST_DATA_FOLDER "/corpus/docx-plain.docx", folder / "p.docx");

    EXPECT_THAT(runOn("p.docx"), fails(3, "opctext: p.docx: this is a ZIP file, not a package in text form\n"));
}

TEST_P(OpctextInput, HasNoBeginLine) {
    std::string const message = "line 2: Reached end of file without finding ZKOPC_PACKAGE_BEGIN marker\n";
    for (auto const& text : {std::string("no\npackage\n"), std::string("\0\0\n\0", 4), std::string("P\nK\n")}) {
        folder.write("p.txt", text);

        auto const result = runOn("p.txt");

        EXPECT_THAT(result, isCheck() ? ends(1, "p.txt: error: no package-begin line\n", "")
                                      : fails(3, "opctext: p.txt: " + message));
    }
}

TEST_P(OpctextInput, IsOneLineOf64MiB) {
    folder.write("p.txt", "x");
    fs::resize_file(folder / "p.txt", std::uintmax_t{64} << 20); // NUL bytes that take no room

    auto const result = runOn("p.txt");

    EXPECT_THAT(result, isCheck() ? ends(1, "p.txt: error: no package-begin line\n", "")
                                  : fails(3, "opctext: p.txt: line 1: Reached end of file without finding "
                                             "ZKOPC_PACKAGE_BEGIN marker\n"));
}

TEST_P(OpctextInput, HoldsNulBytesThatAreContent) {
    folder.write("p.txt", packageText(openingParts({{"/nul", std::string("\0x\0", 3)}})));

    EXPECT_THAT(runOn("p.txt").status, 0);
}

TEST_P(OpctextInput, HasANonAsciiFileName) {
    folder.write("größe 大\xF0\x9F\x98\x80.txt", packageText(openingParts()));

    EXPECT_THAT(runOn("größe 大\xF0\x9F\x98\x80.txt").status, 0);
    expectMissing("größer.txt");
}

TEST_P(OpctextInput, HasAFileNameThatIsNotInUtf8) {
    writePackage();
    fs::rename(folder / "p.txt", folder / "p\xFF.txt");

    auto const result = runOn("p\xFF.txt");

    EXPECT_THAT(result.status, ::testing::AnyOf(2, 3, 4));
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, "opctext: p\xFF.txt: Ill-formed UTF-8 at byte 1 of \"p\xEF\xBF\xBD.txt\"\n");
    EXPECT_EQ(folder.read("p\xFF.txt"), packageText(openingParts()));
}

TEST_P(OpctextInput, MayNotBeRead) {
    if (testsupport::runsAsRoot())
        GTEST_SKIP() << "root may read everything";
    writePackage();
    fs::permissions(folder / "p.txt", fs::perms::none);

    auto const result = runOn("p.txt");

    EXPECT_EQ(result.status, 4);
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.errors, StartsWith("opctext: p.txt: "));
    EXPECT_THAT(result.errors, HasSubstr("Permission denied"));
}

TEST_P(OpctextInput, IsALinkThatLeadsNowhereOrToItself) {
    fs::create_symlink("gone", folder / "dangling");
    fs::create_symlink("loop", folder / "loop");

    expectMissing("dangling");
    auto const loop = runOn("loop");
    EXPECT_EQ(loop.status, 4);
    EXPECT_THAT(loop.errors, StartsWith("opctext: loop: "));
    EXPECT_THAT(loop.errors, HasSubstr("Too many levels of symbolic links"));
}

// Progress

/// A terminal that nobody looks at; both ends stay open here.
class Terminal {
public:
    Terminal() : user_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
        if (user_ != -1 && ::grantpt(user_) == 0 && ::unlockpt(user_) == 0)
            program_ = ::open(::ptsname(user_), O_RDWR | O_NOCTTY | O_CLOEXEC);
    }
    Terminal(Terminal const&) = delete;
    Terminal& operator=(Terminal const&) = delete;
    ~Terminal() {
        ::close(user_);
        ::close(program_);
    }

    /// The end for a program; -1 where the system gives no terminals.
    int program() const { return program_; }

    /// What was written to it.
    std::string shown() const {
        std::string text;
        for (pollfd waiting{user_, POLLIN, 0}; ::poll(&waiting, 1, 0) == 1 && (waiting.revents & POLLIN) != 0;) {
            char block[4096];
            auto const count = ::read(user_, block, sizeof block);
            text.append(block, count > 0 ? static_cast<std::size_t>(count) : 0);
        }
        return text;
    }

private:
    int user_ = -1;
    int program_ = -1;
};

class OpctextProgress : public OpctextUsage {
protected:
    void SetUp() override {
        if (terminal.program() == -1)
            GTEST_SKIP() << "the system gives no terminals";
        writePackage();
    }

    void showErrorsOnTheTerminal(ProgramCall& call) const {
        call.inChild = [this] { ::dup2(terminal.program(), STDERR_FILENO); };
    }

    Terminal terminal;
};

TEST_F(OpctextProgress, IsNotShownOfAShortTask) {
    ProgramCall call;
    call.words = {"extract", "p.txt", "-C", "out"};
    showErrorsOnTheTerminal(call);

    EXPECT_THAT(run(call), succeeds());

    EXPECT_EQ(terminal.shown(), "");
}

TEST_F(OpctextProgress, IsShownOnATerminalAfterHalfASecondAndWipedAway) {
    if (auto const reason = testsupport::whyNotTraced(); !reason.empty())
        GTEST_SKIP() << reason;
    auto call = delayed("renameat", 300000, {"extract", "p.txt", "-f", "-C", "out"}); // once for each part
    showErrorsOnTheTerminal(call);

    EXPECT_THAT(testsupport::RunningProgram(call).wait(), succeeds());

    auto const shown = terminal.shown();
    EXPECT_THAT(shown, ::testing::Not(HasSubstr("1 of 3")));
    EXPECT_THAT(shown, HasSubstr("\rextracting [##########################..............] 2 of 3"));
    EXPECT_THAT(shown, HasSubstr("\rextracting [########################################] 3 of 3"));
    EXPECT_THAT(shown, ::testing::EndsWith("\r\x1B[K"));
}

TEST_F(OpctextProgress, MakesRoomForMessages) {
    if (auto const reason = testsupport::whyNotTraced(); !reason.empty())
        GTEST_SKIP() << reason;
    folder.write("out/a.xml/inside", "x");
    auto call = delayed("renameat", 600000, {"extract", "p.txt", "/_rels/.rels", "/a.xml", "-f", "-C", "out"});
    showErrorsOnTheTerminal(call);

    EXPECT_EQ(testsupport::RunningProgram(call).wait().status, 4);

    EXPECT_THAT(terminal.shown(), HasSubstr("1 of 2\r\x1B[Kopctext: out/a.xml: Is a directory\r\n"));
}

} // namespace
