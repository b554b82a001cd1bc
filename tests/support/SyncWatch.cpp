#include <tests/support/SyncWatch.hpp>

#include <cerrno>
#include <filesystem>
#include <utility>

#include <sys/syscall.h>
#include <unistd.h>

namespace testsupport {

namespace {

SyncWatch::Observer& currentObserver() {
    static SyncWatch::Observer observer;
    return observer;
}

int observe(int descriptor) {
    auto const& observer = currentObserver();
    return observer ? observer(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor))) : 0;
}

} // namespace

SyncWatch::SyncWatch(Observer observer) {
    currentObserver() = std::move(observer);
}

SyncWatch::~SyncWatch() {
    currentObserver() = nullptr;
}

} // namespace testsupport

/// Stands before the C library's function of the same name, for shared libraries too.
extern "C" __attribute__((visibility("default"))) int fsync(int descriptor) {
    if (int const error = testsupport::observe(descriptor); error != 0) {
        errno = error;
        return -1;
    }
    return static_cast<int>(::syscall(SYS_fsync, descriptor));
}
