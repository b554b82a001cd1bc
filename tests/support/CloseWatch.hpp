#pragma once

#include <functional>
#include <string>

namespace testsupport {

/// Sees every file that this process closes, for as long as it lives.
///
/// Threads: one watch at a time, and calls from one thread.
class CloseWatch {
public:
    /// Is told the path of the file before it is closed; returns 0, or the errno value that the call fails with. The
    /// file is closed all the same, as the system does it.
    using Observer = std::function<int(std::string const& path)>;

    explicit CloseWatch(Observer observer);
    CloseWatch(CloseWatch const&) = delete;
    CloseWatch& operator=(CloseWatch const&) = delete;
    ~CloseWatch();
};

} // namespace testsupport
