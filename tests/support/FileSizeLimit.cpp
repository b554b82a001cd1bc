#include <tests/support/FileSizeLimit.hpp>

#include <csignal>

#include <sys/resource.h>

namespace testsupport {

FileSizeLimit::FileSizeLimit(std::uint64_t bytes) : earlierHandler_(std::signal(SIGXFSZ, SIG_IGN)) {
    struct rlimit limit {};
    ::getrlimit(RLIMIT_FSIZE, &limit);
    earlier_ = limit.rlim_cur;
    limit.rlim_cur = bytes;
    ::setrlimit(RLIMIT_FSIZE, &limit);
}

FileSizeLimit::~FileSizeLimit() {
    struct rlimit limit {};
    ::getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = earlier_;
    ::setrlimit(RLIMIT_FSIZE, &limit);
    std::signal(SIGXFSZ, earlierHandler_);
}

} // namespace testsupport
