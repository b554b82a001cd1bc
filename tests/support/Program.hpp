#pragma once

#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include <sys/types.h>

#include <gmock/gmock.h>

#include <tests/support/TemporaryFolder.hpp>

namespace testsupport {

/// How a program is to be run.
struct ProgramCall {
    std::vector<std::string> words;                 ///< the program, looked up in PATH, and its arguments
    std::string input;                              ///< what its standard input gives
    std::map<std::string, std::string> environment; ///< beside what the test itself has
    std::filesystem::path folder;                   ///< its working folder
    std::function<void()> inChild;                  ///< done in the new process, last before the program begins
};

/// For `inChild`: the program may write no file beyond a number of bytes, as on a full disk.
std::function<void()> limitingFileSize(std::uint64_t bytes);

/// For `inChild`: the program may have no more than so many files open at a time.
std::function<void()> limitingOpenFiles(std::uint64_t count);

/// How a program ended.
struct ProgramResult {
    int status = -1;    ///< what it exited with; -1 where a signal ended it
    int signal = 0;     ///< that ended it; 0 where it exited
    std::string output; ///< what it wrote to standard output
    std::string errors; ///< what it wrote to standard error
};

std::ostream& operator<<(std::ostream& out, ProgramResult const& result);

/// A process of its own, started without a shell, with a temporary area that nobody else uses. One that hangs is ended
/// by SIGALRM after a minute.
class RunningProgram {
public:
    explicit RunningProgram(ProgramCall const& call);
    RunningProgram(RunningProgram const&) = delete;
    RunningProgram& operator=(RunningProgram const&) = delete;

    /// Kills the process where nobody waited for its end.
    ~RunningProgram();

    /// Waits until the process has ended; the temporary area must be empty then.
    ProgramResult wait();

private:
    TemporaryFolder temporaryArea_;
    ::pid_t process_ = -1; // -1: it has ended
    int output_ = -1;
    int errors_ = -1;
};

/// Tests of one program: it runs in a folder that each test has for itself, so that messages and arguments are short.
class ProgramFixture : public ::testing::Test {
protected:
    explicit ProgramFixture(std::string program) : program_(std::move(program)) {}

    /// Runs the program with arguments.
    ProgramResult run(std::vector<std::string> const& arguments, std::string const& input = "") const;

    /// Runs the program as the call says, whose words are the arguments only.
    ProgramResult run(ProgramCall const& call) const { return RunningProgram(completed(call)).wait(); }

    /// Runs the program under strace, which delays each of its calls of `systemCall` by so many microseconds.
    ProgramCall delayed(std::string const& systemCall, int microseconds, std::vector<std::string> const& arguments,
                        std::string const& input = "") const;

    /// The call with the program and the folder filled in.
    ProgramCall completed(ProgramCall call) const;

    TemporaryFolder folder;

private:
    std::string program_;
};

/// Matches the result of a program that did its work without a word.
::testing::Matcher<ProgramResult const&> succeeds(std::string const& output = "");

/// Matches the result of a program that exited with this status, and wrote this to standard error and nothing else.
::testing::Matcher<ProgramResult const&> fails(int status, std::string const& errors);

/// Matches the result of a program that exited with this status, having written this.
::testing::Matcher<ProgramResult const&> ends(int status, std::string const& output, std::string const& errors);

} // namespace testsupport
