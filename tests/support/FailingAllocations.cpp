#include <tests/support/FailingAllocations.hpp>

#include <cstdlib>

namespace testsupport {

namespace {

bool isFailing = false;
bool hasOneFailed = false;
std::size_t remaining = 0; // allocations before the one that fails
FailingAllocations::Extent failingExtent = FailingAllocations::One;

bool mustFail() {
    if (!isFailing)
        return false;
    if (remaining > 0) {
        --remaining;
        return false;
    }
    if (hasOneFailed && failingExtent == FailingAllocations::One)
        return false;
    hasOneFailed = true;
    return true;
}

} // namespace

FailingAllocations::FailingAllocations(std::size_t number, Extent extent) {
    remaining = number;
    failingExtent = extent;
    hasOneFailed = false;
    isFailing = true;
}

FailingAllocations::~FailingAllocations() {
    isFailing = false;
}

bool FailingAllocations::hasFailed() const {
    return hasOneFailed;
}

} // namespace testsupport

// Takes the place of the C++ library's own, in the whole program.
void* operator new(std::size_t size) {
    auto* const block = testsupport::mustFail() ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (block == nullptr)
        throw std::bad_alloc();
    return block;
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept {
    std::free(block);
}
