#include <opctext/StandardOutput.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <opctext/Failure.hpp>

namespace opctext {

namespace {

[[noreturn]] void fail() {
    throw Failure(ExitStatus::InputOutput, std::string("standard output: ") + std::strerror(errno));
}

} // namespace

void writeOutput(std::string_view data) {
    if (std::fwrite(data.data(), 1, data.size(), stdout) != data.size())
        fail();
}

void finishOutput() {
    if (std::fflush(stdout) != 0)
        fail();
}

} // namespace opctext
