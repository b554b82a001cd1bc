#pragma once

#include <atomic>
#include <cstddef>
#include <thread>

namespace benchmarks {

/// Watches how much memory of its own this process holds: anonymous pages in memory (RssAnon of /proc), which heap,
/// stacks and written data come to, but pages of mapped files don't, since the kernel takes those back at will.
/// Looks several thousand times a second; what comes and goes in between escapes it.
class MemoryWatch {
public:
    MemoryWatch();
    ~MemoryWatch();

    /// The most that was seen until now, in bytes.
    std::size_t peak() const { return peak_; }

private:
    void watch();

    std::atomic<std::size_t> peak_{0};
    std::atomic<bool> isOver_{false};
    std::thread thread_;
};

} // namespace benchmarks
