#pragma once

#include <filesystem>

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace testsupport {

/// The permission bits of a file or folder, links not followed, set-id and sticky bits included.
inline unsigned permissionsOf(std::filesystem::path const& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777U;
}

/// Whether the system lets this process pass by permission bits.
inline bool runsAsRoot() {
    return ::geteuid() == 0;
}

/// For `ProgramCall::inChild`: a program that is run as root can't pass by permission bits.
inline void obeyPermissions() {
    ::prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE);
    ::prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH);
}

/// The process's umask for as long as it lives.
class Umask {
public:
    explicit Umask(mode_t mask) : earlier_(::umask(mask)) {}
    Umask(Umask const&) = delete;
    Umask& operator=(Umask const&) = delete;
    ~Umask() { ::umask(earlier_); }

private:
    mode_t earlier_;
};

} // namespace testsupport
