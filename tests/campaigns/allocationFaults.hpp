#pragma once

#include <cstdint>

namespace campaigns {

/// Which allocations fail: of all that this program makes with malloc and its kin, `operator new` among them.
enum class Failing { None, Once, FromThenOn };

/// From now on counts allocations, and makes the one of this number fail (the first is number 0), or it and all later
/// ones.
void beginAllocationFaults(Failing failing, std::uint64_t number);

/// Ends that, and returns how many allocations there were in the meantime, failed ones included.
std::uint64_t endAllocationFaults();

/// How many blocks of memory are allocated.
std::int64_t liveAllocations();

} // namespace campaigns
