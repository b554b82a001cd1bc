#include <benchmarks/MemoryWatch.hpp>

#include <chrono>
#include <fstream>

#include <unistd.h>

namespace benchmarks {

namespace {

std::size_t anonymousBytes() {
    std::ifstream status("/proc/self/statm");
    std::size_t all = 0;
    std::size_t resident = 0;
    std::size_t shared = 0; // of files
    status >> all >> resident >> shared;
    return (resident - shared) * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

} // namespace

MemoryWatch::MemoryWatch() : thread_([this] { watch(); }) {
}

MemoryWatch::~MemoryWatch() {
    isOver_ = true;
    thread_.join();
}

void MemoryWatch::watch() {
    while (!isOver_) {
        auto const now = anonymousBytes();
        if (now > peak_)
            peak_ = now;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

} // namespace benchmarks
