#pragma once

#include <functional>
#include <string>

namespace testsupport {

/// Sees everything that this process asks the system to sync, for as long as it lives.
///
/// Threads: one watch at a time, and calls from one thread.
class SyncWatch {
public:
    /// Is told the path of the file or folder before it is synced; returns 0 to let that happen, or the errno value
    /// that the call then fails with.
    using Observer = std::function<int(std::string const& path)>;

    explicit SyncWatch(Observer observer);
    SyncWatch(SyncWatch const&) = delete;
    SyncWatch& operator=(SyncWatch const&) = delete;
    ~SyncWatch();
};

} // namespace testsupport
