#include <tests/support/Program.hpp>

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace testsupport {

namespace {

constexpr unsigned MostSeconds = 60;

/// Both ends of a pipe; the one that reads stays here.
struct Pipe {
    Pipe() {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) == -1)
            throw std::runtime_error("no pipe for a program");
        reading = ends[0];
        writing = ends[1];
    }
    ~Pipe() { ::close(writing); }

    int reading = -1;
    int writing = -1;
};

/// A file without a name, with this content. Nobody has to write into it while the program reads.
int openInput(std::string const& content) {
    int const file = ::memfd_create("input", MFD_CLOEXEC);
    auto const written = ::write(file, content.data(), content.size());
    if (written != static_cast<ssize_t>(content.size()) || ::lseek(file, 0, SEEK_SET) == -1)
        throw std::runtime_error("no input for a program");
    return file;
}

[[noreturn]] void execute(ProgramCall const& call, std::filesystem::path const& temporaryArea) {
    ::setenv("TMPDIR", temporaryArea.c_str(), 1);
    for (auto const& [name, value] : call.environment)
        ::setenv(name.c_str(), value.c_str(), 1);
    if (!call.folder.empty() && ::chdir(call.folder.c_str()) == -1)
        ::_exit(126);
    auto words = call.words;
    std::vector<char*> arguments;
    for (auto& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    ::alarm(MostSeconds);
    if (call.inChild)
        call.inChild();
    ::execvp(arguments.front(), arguments.data());
    ::_exit(127);
}

/// Appends what has come; closes the descriptor and makes it -1 where nothing will come any more.
void take(int& descriptor, std::string& text) {
    char block[65536];
    auto const count = ::read(descriptor, block, sizeof block);
    if (count > 0) {
        text.append(block, static_cast<std::size_t>(count));
    } else if (count == 0 || errno != EINTR) {
        ::close(descriptor);
        descriptor = -1;
    }
}

} // namespace

std::ostream& operator<<(std::ostream& out, ProgramResult const& result) {
    return out << "status " << result.status << ", signal " << result.signal << "\nstandard output:\n"
               << result.output.substr(0, 2000) << "\nstandard error:\n"
               << result.errors.substr(0, 2000) << '\n';
}

RunningProgram::RunningProgram(ProgramCall const& call) {
    int const input = openInput(call.input);
    Pipe const output;
    Pipe const errors;
    output_ = output.reading;
    errors_ = errors.reading;
    process_ = ::fork();
    if (process_ == 0) {
        ::dup2(input, STDIN_FILENO);
        ::dup2(output.writing, STDOUT_FILENO);
        ::dup2(errors.writing, STDERR_FILENO);
        execute(call, temporaryArea_.path());
    }
    ::close(input);
    if (process_ == -1)
        throw std::runtime_error("no process for " + call.words.front());
}

RunningProgram::~RunningProgram() {
    if (process_ == -1)
        return;
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
    ::close(output_);
    ::close(errors_);
}

ProgramResult RunningProgram::wait() {
    ProgramResult result;
    while (output_ != -1 || errors_ != -1) {
        pollfd waiting[] = {{output_, POLLIN, 0}, {errors_, POLLIN, 0}}; // -1 is passed over
        ::poll(waiting, 2, -1);
        if (waiting[0].revents != 0)
            take(output_, result.output);
        if (waiting[1].revents != 0)
            take(errors_, result.errors);
    }
    int status = 0;
    ::waitpid(std::exchange(process_, -1), &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    EXPECT_THAT(temporaryArea_.entries(), ::testing::IsEmpty()) << "left in the temporary area";
    return result;
}

ProgramResult ProgramFixture::run(std::vector<std::string> const& arguments, std::string const& input) const {
    ProgramCall call;
    call.words = arguments;
    call.input = input;
    return run(call);
}

ProgramCall ProgramFixture::delayed(std::string const& systemCall, int microseconds,
                                    std::vector<std::string> const& arguments, std::string const& input) const {
    ProgramCall call;
    call.words = arguments;
    call.input = input;
    call.environment["ASAN_OPTIONS"] = "detect_leaks=0"; // the leak check can't work under strace
    call = completed(call);
    std::vector<std::string> const tracer{"strace",
                                          "-f",
                                          "-qq",
                                          "-o",
                                          "/dev/null",
                                          "-e",
                                          "trace=" + systemCall,
                                          "-e",
                                          "inject=" + systemCall + ":delay_enter=" + std::to_string(microseconds)};
    call.words.insert(call.words.begin(), tracer.begin(), tracer.end());
    return call;
}

ProgramCall ProgramFixture::completed(ProgramCall call) const {
    call.words.insert(call.words.begin(), program_);
    call.folder = folder.path();
    return call;
}

::testing::Matcher<ProgramResult const&> succeeds(std::string const& output) {
    return ends(0, output, "");
}

::testing::Matcher<ProgramResult const&> fails(int status, std::string const& errors) {
    return ends(status, "", errors);
}

::testing::Matcher<ProgramResult const&> ends(int status, std::string const& output, std::string const& errors) {
    using ::testing::Field;
    return ::testing::AllOf(Field("status", &ProgramResult::status, status),
                            Field("output", &ProgramResult::output, output),
                            Field("errors", &ProgramResult::errors, errors));
}

namespace {

std::function<void()> limiting(__rlimit_resource_t resource, std::uint64_t most) {
    return [resource, most] {
        struct rlimit const limit{most, most};
        ::setrlimit(resource, &limit);
    };
}

} // namespace

std::function<void()> limitingFileSize(std::uint64_t bytes) {
    return limiting(RLIMIT_FSIZE, bytes);
}

std::function<void()> limitingOpenFiles(std::uint64_t count) {
    return limiting(RLIMIT_NOFILE, count);
}

} // namespace testsupport
