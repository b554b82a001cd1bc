#include <opctext/StandardStreams.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace opctext {

namespace {

[[noreturn]] void fail(char const* stream) {
    if (errno == EPIPE)
        throw ClosedPipe();
    throw Failure(ExitStatus::InputOutput, std::string(stream) + ": " + std::strerror(errno));
}

} // namespace

void writeOutput(std::string_view data) {
    if (std::fwrite(data.data(), 1, data.size(), stdout) != data.size())
        fail("standard output");
}

void finishOutput() {
    if (std::fflush(stdout) != 0)
        fail("standard output");
}

void readInput(std::function<void(std::string_view)> const& onBlock) {
    std::string block(262144, '\0');
    while (auto const count = std::fread(block.data(), 1, block.size(), stdin))
        onBlock({block.data(), count});
    if (std::ferror(stdin) != 0)
        fail("standard input");
}

} // namespace opctext
