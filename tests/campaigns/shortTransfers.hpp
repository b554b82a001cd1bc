#pragma once

namespace campaigns {

/// Makes the system take and give less than it is asked for, as it may at any time, from now on: the environment's
/// SHORT_TRANSFERS says of which calls of read(2), write(2) and copy_file_range(2), from 1: "write:3" the third write
/// alone, "write:3+" that and all later ones. A short call moves the first half of the bytes. Nothing happens without
/// the variable.
void beginShortTransfers();

} // namespace campaigns
