#include <tests/support/TracedProgram.hpp>

#include <cstdlib>
#include <stdexcept>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <tests/support/TemporaryFolder.hpp>

namespace testsupport {

namespace {

[[noreturn]] void execute(std::vector<std::string> words, std::filesystem::path const& output) {
    int const descriptor = ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::dup2(descriptor, STDOUT_FILENO);
    ::dup2(descriptor, STDERR_FILENO);
    ::setenv("ASAN_OPTIONS", "detect_leaks=0", 1); // the leak check can't work under strace
    std::vector<char*> arguments;
    for (auto& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    ::execvp(arguments.front(), arguments.data());
    ::_exit(127);
}

} // namespace

ProgramEnd runTraced(std::vector<std::string> const& program, std::string const& tracedCalls,
                     std::vector<std::string> const& injections) {
    TemporaryFolder const folder;
    auto const output = folder / "output";
    auto const calls = folder / "calls";
    std::vector<std::string> words{"strace", "-f", "-qq", "-o", calls.string(), "-e", "trace=" + tracedCalls};
    for (auto const& injection : injections)
        words.insert(words.end(), {"-e", "inject=" + injection});
    words.insert(words.end(), program.begin(), program.end());

    auto const child = ::fork();
    if (child == -1)
        throw std::runtime_error("no process for " + program.front());
    if (child == 0)
        execute(words, output);
    int status = 0;
    ::waitpid(child, &status, 0);

    ProgramEnd end;
    end.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    end.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    end.output = std::filesystem::exists(output) ? readFile(output) : "";
    end.calls = std::filesystem::exists(calls) ? readFile(calls) : "";
    return end;
}

std::string whyNotTraced() {
    auto const end = runTraced({"true"}, "close", {"close:error=EIO:when=60000"});
    return end.exitCode == 0 ? "" : "strace can't trace here: " + end.output;
}

} // namespace testsupport
