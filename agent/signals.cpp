#include "agent/signals.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <string>
#include <system_error>

#include "agent/startup_error.h"

namespace qxpagent {

namespace {

// Written before the handler is installed.
int g_event = -1;
std::atomic<int> g_signal{0};
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler may use it");

void OnSignal(int number) {
    const int saved_errno = errno;
    g_signal = number;
    const uint64_t one = 1;
    // A full counter has woken the reader already.
    [[maybe_unused]] const ssize_t written = write(g_event, &one, sizeof(one));
    errno = saved_errno;
}

void Catch(int number, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    if (sigaction(number, &action, nullptr) != 0) {
        throw StartupError("Signal " + std::to_string(number) +
                           " cannot be caught: " + std::generic_category().message(errno) + ".");
    }
}

}  // namespace

StopSignal::StopSignal() {
    g_event = eventfd(0, EFD_CLOEXEC);
    if (g_event < 0) {
        throw StartupError("No event descriptor can be made: " + std::generic_category().message(errno) + ".");
    }
    Catch(SIGTERM, OnSignal);
    Catch(SIGINT, OnSignal);
}

int StopSignal::Wait() {
    pollfd event{g_event, POLLIN, 0};
    while (poll(&event, 1, -1) < 0 && errno == EINTR) {
    }
    return g_signal;
}

void SurviveBrokenPipes() {
    Catch(SIGPIPE, [](int) {});
}

}  // namespace qxpagent
