#include "agent/service/signals.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <string>

#include "base/errno_text.h"
#include "base/startup_error.h"

namespace qxpagent {

namespace {

// Written before the handlers are installed.
int g_event = -1;
std::atomic<int> g_stop{0};  // the signal that asked for it
std::atomic<bool> g_reload{false};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free,
              "a signal handler may use them");

void OnSignal(int number) {
    const int saved_errno = errno;
    if (number == SIGHUP) {
        g_reload = true;
    } else {
        g_stop = number;
    }
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
        throw qxpbase::StartupError("Signal " + std::to_string(number) +
                                    " cannot be caught: " + qxpbase::ErrnoText(errno) + ".");
    }
}

}  // namespace

ServiceSignals::ServiceSignals() {
    g_event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (g_event < 0) {
        throw qxpbase::StartupError("No event descriptor can be made: " + qxpbase::ErrnoText(errno) + ".");
    }
    Catch(SIGTERM, OnSignal);
    Catch(SIGINT, OnSignal);
    Catch(SIGHUP, OnSignal);
}

ServiceSignals::Request ServiceSignals::Wait() {
    for (;;) {
        if (g_stop != 0) {
            return Request::kStop;
        }
        if (g_reload.exchange(false)) {
            return Request::kReload;
        }
        pollfd event{g_event, POLLIN, 0};
        poll(&event, 1, -1);
        uint64_t count = 0;
        [[maybe_unused]] const ssize_t emptied = read(g_event, &count, sizeof(count));
    }
}

int ServiceSignals::StopNumber() const {
    return g_stop;
}

void SurviveBrokenPipes() {
    Catch(SIGPIPE, [](int) {});
}

}  // namespace qxpagent
