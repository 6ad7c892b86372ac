#pragma once

#include <csignal>

namespace qxpctl {

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
