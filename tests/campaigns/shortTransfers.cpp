#include <tests/campaigns/shortTransfers.hpp>

#include <cstdlib>
#include <string>
#include <string_view>

#include <sys/syscall.h>
#include <unistd.h>

namespace campaigns {

namespace {

struct Plan {
    std::string call; // empty: nothing is cut short
    long first = 0;
    bool goesOn = false;
    long seen = 0;
};

Plan plan;

/// How many of `count` bytes the call is to move.
std::size_t cut(std::string_view call, std::size_t count) {
    if (plan.call != call || count < 2)
        return count;
    ++plan.seen;
    return plan.seen == plan.first || (plan.goesOn && plan.seen > plan.first) ? count / 2 : count;
}

} // namespace

void beginShortTransfers() {
    char const* const wish = std::getenv("SHORT_TRANSFERS");
    if (wish == nullptr)
        return;
    std::string const text = wish;
    auto const colon = text.find(':');
    plan = {text.substr(0, colon), std::stol(text.substr(colon + 1)), text.back() == '+'};
}

} // namespace campaigns

// They stand before the C library's functions of the same names, for shared libraries too.

extern "C" __attribute__((visibility("default"))) ssize_t read(int descriptor, void* buffer, size_t count) {
    return ::syscall(SYS_read, descriptor, buffer, campaigns::cut("read", count));
}

extern "C" __attribute__((visibility("default"))) ssize_t write(int descriptor, void const* buffer, size_t count) {
    return ::syscall(SYS_write, descriptor, buffer, campaigns::cut("write", count));
}

extern "C" __attribute__((visibility("default"))) ssize_t
copy_file_range(int from, off_t* fromOffset, int to, off_t* toOffset, size_t count, unsigned flags) {
    return ::syscall(SYS_copy_file_range, from, fromOffset, to, toOffset, campaigns::cut("copy_file_range", count),
                     flags);
}
