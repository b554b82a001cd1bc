#include <tests/campaigns/allocationFaults.hpp>

#include <atomic>
#include <cerrno>
#include <cstddef>

// What the C library calls its own functions. Those below take their place in the whole program.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);
}

namespace campaigns {

namespace {

std::atomic<Failing> failing{Failing::None};
std::atomic<bool> isCounting{false};
std::atomic<std::uint64_t> allocations{0};
std::atomic<std::uint64_t> firstToFail{0};
std::atomic<std::int64_t> live{0};

bool mustFail() {
    if (!isCounting)
        return false;
    auto const number = allocations++;
    bool const fails = (failing == Failing::Once && number == firstToFail) ||
                       (failing == Failing::FromThenOn && number >= firstToFail);
    if (fails)
        errno = ENOMEM;
    return fails;
}

void* counted(void* block) {
    live += block != nullptr ? 1 : 0;
    return block;
}

} // namespace

void beginAllocationFaults(Failing which, std::uint64_t number) {
    failing = which;
    firstToFail = number;
    allocations = 0;
    isCounting = true;
}

std::uint64_t endAllocationFaults() {
    isCounting = false;
    return allocations;
}

std::int64_t liveAllocations() {
    return live;
}

} // namespace campaigns

#define EXPORTED extern "C" __attribute__((visibility("default")))

EXPORTED void* malloc(std::size_t size) {
    return campaigns::mustFail() ? nullptr : campaigns::counted(__libc_malloc(size));
}

EXPORTED void* calloc(std::size_t count, std::size_t size) {
    return campaigns::mustFail() ? nullptr : campaigns::counted(__libc_calloc(count, size));
}

EXPORTED void* realloc(void* block, std::size_t size) {
    if (campaigns::mustFail())
        return nullptr;
    auto* const moved = __libc_realloc(block, size);
    if (block == nullptr)
        campaigns::counted(moved);
    else if (size == 0)
        --campaigns::live;
    return moved;
}

EXPORTED void* memalign(std::size_t alignment, std::size_t size) {
    return campaigns::mustFail() ? nullptr : campaigns::counted(__libc_memalign(alignment, size));
}

EXPORTED void* aligned_alloc(std::size_t alignment, std::size_t size) {
    return memalign(alignment, size);
}

EXPORTED int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
    *block = memalign(alignment, size);
    return *block == nullptr ? ENOMEM : 0;
}

EXPORTED void free(void* block) {
    campaigns::live -= block != nullptr ? 1 : 0;
    __libc_free(block);
}
