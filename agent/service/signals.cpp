#include "agent/service/signals.h"

#include <fmt/format.h>
#include <semaphore.h>

#include <atomic>
#include <cerrno>
#include <csignal>

#include "base/errno_text.h"
#include "base/startup_error.h"

namespace qxpagent {

namespace {

// What a handler may touch: a semaphore, made before the handlers are installed, and lock-free flags.
sem_t g_asked;
std::atomic<int> g_stop{0};  // the signal that asked for it
std::atomic<bool> g_reload{false};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

void OnSignal(int number) {
    const int saved_errno = errno;
    if (number == SIGHUP) {
        g_reload = true;
    } else {
        g_stop = number;
    }
    sem_post(&g_asked);
    errno = saved_errno;
}

void Catch(int number, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    if (sigaction(number, &action, nullptr) != 0) {
        throw qxpbase::StartupError(fmt::format("Signal {} cannot be caught: {}.", number, qxpbase::ErrnoText(errno)));
    }
}

}  // namespace

ServiceSignals::ServiceSignals() {
    sem_init(&g_asked, 0, 0);
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        Catch(number, OnSignal);
    }
}

ServiceSignals::Request ServiceSignals::Wait() {
    for (;;) {
        if (g_stop != 0) {
            return Request::kStop;
        }
        if (g_reload.exchange(false)) {
            return Request::kReload;
        }
        sem_wait(&g_asked);  // an interrupted wait looks again as well
    }
}

int ServiceSignals::StopNumber() const {
    return g_stop;
}

void SurviveBrokenPipes() {
    Catch(SIGPIPE, [](int) {});
}

}  // namespace qxpagent
