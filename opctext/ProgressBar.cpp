#include <opctext/ProgressBar.hpp>

#include <algorithm>
#include <cstdio>
#include <utility>

#include <unistd.h>

namespace opctext {

namespace {

constexpr std::chrono::milliseconds Patience{500};
constexpr std::chrono::milliseconds Interval{100};
constexpr std::size_t Width = 40;

} // namespace

ProgressBar::ProgressBar(std::string task, std::size_t steps)
    : task_(std::move(task)),
      steps_(std::max<std::size_t>(steps, 1)),
      isTerminal_(::isatty(STDERR_FILENO) == 1),
      nextShow_(Clock::now() + Patience) {
}

ProgressBar::~ProgressBar() {
    hide();
}

void ProgressBar::step() {
    ++done_;
    auto const now = Clock::now();
    if (!isTerminal_ || now < nextShow_)
        return;
    nextShow_ = now + Interval;
    isShown_ = true;
    std::string bar(done_ * Width / steps_, '#');
    bar.resize(Width, '.');
    std::fprintf(stderr, "\r%s [%s] %zu of %zu", task_.c_str(), bar.c_str(), done_, steps_);
}

void ProgressBar::hide() {
    if (std::exchange(isShown_, false))
        std::fputs("\r\x1b[K", stderr);
}

} // namespace opctext
