#pragma once

#include <cstdlib>
#include <string>

#include <unistd.h>

namespace testsupport {

/// Puts every `TemporaryFolder` that is made while it lives on a file system in memory, where there is one: for
/// tests that commit hundreds of times and would only wait for the disk. A base class that comes before
/// `PackageFixture` does it for the folders of that.
class FoldersInMemory {
public:
    FoldersInMemory() {
        char const* const earlier = std::getenv("TEST_TMPDIR");
        wasSet_ = earlier != nullptr;
        earlier_ = wasSet_ ? earlier : "";
        if (!wasSet_ && ::access("/dev/shm", W_OK | X_OK) == 0)
            ::setenv("TEST_TMPDIR", "/dev/shm", 1);
    }

    FoldersInMemory(FoldersInMemory const&) = delete;
    FoldersInMemory& operator=(FoldersInMemory const&) = delete;

    ~FoldersInMemory() {
        if (wasSet_)
            ::setenv("TEST_TMPDIR", earlier_.c_str(), 1);
        else
            ::unsetenv("TEST_TMPDIR");
    }

private:
    std::string earlier_;
    bool wasSet_;
};

} // namespace testsupport
