#pragma once

#include <cstddef>
#include <exception>
#include <new>

namespace testsupport {

/// Makes allocations with `operator new` fail while it lives: the one of this number from here on (the first is number
/// 0), or it and all later ones.
class FailingAllocations {
public:
    enum Extent { One, AllFromThere };

    explicit FailingAllocations(std::size_t number, Extent extent = One);
    FailingAllocations(FailingAllocations const&) = delete;
    FailingAllocations& operator=(FailingAllocations const&) = delete;
    ~FailingAllocations();

    /// Whether an allocation has failed.
    bool hasFailed() const;
};

/// What comes of an action that memory may fail.
struct Attempt {
    bool ranOutOfMemory = false; ///< an allocation failed, whatever came of that
    bool failed = false;         ///< the action threw
};

/// Runs an action with the allocation of this number failing.
template <class Action>
Attempt attemptWithout(std::size_t number, Action action) {
    Attempt attempt;
    FailingAllocations const failing(number);
    try {
        action();
    } catch (std::exception const&) {
        attempt.failed = true;
    }
    attempt.ranOutOfMemory = failing.hasFailed();
    return attempt;
}

} // namespace testsupport
