#pragma once

#include <functional>
#include <string>

namespace opc {

/// How a commit puts the new package file in the place of the old one.
struct CommitOptions {
    /// Keep the old file under `backupPath`. Without an old file there is no backup.
    bool keepBackup = false;

    /// Where the backup goes; empty: the target's path + ".bak". An earlier backup there is replaced.
    std::u16string backupPath;

    /// Called, when set, just before the target is replaced, with the target's path. An exception from it cancels
    /// the commit: the target stays as it is and no backup appears.
    std::function<void(std::u16string const& target)> beforeReplace;
};

} // namespace opc
