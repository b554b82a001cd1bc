#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace opctext {

/// Shows on a terminal how far a long task is; silent elsewhere, and for tasks shorter than half a second.
class ProgressBar {
public:
    ProgressBar(std::string task, std::size_t steps);
    ProgressBar(ProgressBar const&) = delete;
    ProgressBar& operator=(ProgressBar const&) = delete;

    /// Wipes the bar away.
    ~ProgressBar();

    void step();

    /// Makes room for a message; the next step may show the bar again.
    void hide();

private:
    using Clock = std::chrono::steady_clock;

    std::string task_;
    std::size_t steps_;
    std::size_t done_ = 0;
    bool isTerminal_;
    bool isShown_ = false;
    Clock::time_point nextShow_;
};

} // namespace opctext
