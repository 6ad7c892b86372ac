#pragma once

#include <chrono>
#include <csignal>
#include <string_view>

#include "ctl/terminal/console.h"

namespace qxpctl {

/// A line at the bottom of the terminal that shows that work goes on and for how long. Silent when the standard error
/// is no terminal.
class Spinner {
public:
    explicit Spinner(const Console& console) : console_(console) {}
    ~Spinner() { Clear(); }
    Spinner(const Spinner&) = delete;
    Spinner& operator=(const Spinner&) = delete;

    /// Draws the next step. Call as often as convenient; it draws at most ten times a second.
    /// @param what  short and without control characters.
    void Tick(std::string_view what);
    /// Removes the line, so that something else can be written. The next Tick draws it again.
    void Clear();

private:
    using Clock = std::chrono::steady_clock;

    const Console& console_;
    const Clock::time_point start_ = Clock::now();
    Clock::time_point drawn_{};
    unsigned step_ = 0;
    bool visible_ = false;
};

/// While it lives, Ctrl-C (SIGINT) is noted instead of ending the process. One at a time.
class InterruptGuard {
public:
    InterruptGuard();
    ~InterruptGuard();
    InterruptGuard(const InterruptGuard&) = delete;
    InterruptGuard& operator=(const InterruptGuard&) = delete;

    bool Interrupted() const;

private:
    struct sigaction previous_ {};
};

}  // namespace qxpctl
