#include <tests/support/CloseWatch.hpp>

#include <cerrno>
#include <filesystem>
#include <utility>

#include <sys/syscall.h>
#include <unistd.h>

namespace testsupport {

namespace {

CloseWatch::Observer& currentObserver() {
    static CloseWatch::Observer observer;
    return observer;
}

int observe(int descriptor) {
    auto const& observer = currentObserver();
    if (!observer)
        return 0;
    std::error_code code;
    auto const path = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor), code);
    return code ? 0 : observer(path);
}

} // namespace

CloseWatch::CloseWatch(Observer observer) {
    currentObserver() = std::move(observer);
}

CloseWatch::~CloseWatch() {
    currentObserver() = nullptr;
}

} // namespace testsupport

/// Stands before the C library's function of the same name, for shared libraries too.
extern "C" __attribute__((visibility("default"))) int close(int descriptor) {
    int const error = testsupport::observe(descriptor);
    auto const result = static_cast<int>(::syscall(SYS_close, descriptor));
    if (error == 0)
        return result;
    errno = error;
    return -1;
}
