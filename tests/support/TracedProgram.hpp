#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace testsupport {

/// How a program ended.
struct ProgramEnd {
    int exitCode = -1;  ///< -1 where a signal ended it
    int signal = 0;     ///< 0 where it exited
    std::string output; ///< what it wrote to its standard output and error
    std::string calls;  ///< the traced system calls, a line each
};

/// Runs a program under strace, which traces `tracedCalls` ("rename,fsync") and does what `injections`
/// ("fsync:error=EIO:when=2") say to them. The program has the environment of the test.
ProgramEnd runTraced(std::vector<std::string> const& program, std::string const& tracedCalls,
                     std::vector<std::string> const& injections);

/// Why `runTraced` can't work here; empty where it can.
std::string whyNotTraced();

} // namespace testsupport
