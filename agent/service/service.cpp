#include "agent/service/service.h"

#include <fmt/format.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <string_view>
#include <utility>

#include "agent/log.h"
#include "base/errno_text.h"
#include "base/startup_error.h"
#include "base/unique_fd.h"

namespace qxpagent {

namespace {

using std::chrono::microseconds;

// Set before the first thread.
sockaddr_un g_address{};
socklen_t g_address_size = 0;  // 0: there is no service manager
microseconds g_watchdog{0};    // 0: and no watchdog

// Not by the service manager's library: that reads the environment each time, which is the scripts' by now.
void Notify(const std::string& state) {
    if (g_address_size == 0) {
        return;
    }
    const qxpbase::UniqueFd out(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!out.IsOpen() || sendto(out.Get(), state.data(), state.size(), MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr*>(&g_address), g_address_size) < 0) {
        QXPAGENT_LOG(kLogWarn, "the service manager cannot be told: %s", qxpbase::ErrnoText(errno).c_str());
    }
}

void FeedWatchdog(const std::stop_token& stop, microseconds interval, const std::function<bool()>& is_alive) {
    std::mutex mutex;
    std::condition_variable_any ended;
    std::unique_lock lock(mutex);
    while (!stop.stop_requested()) {
        try {
            if (is_alive()) {
                Notify("WATCHDOG=1");
            } else {
                QXPAGENT_LOG(kLogError, "watchdog: the agent does not answer");
            }
        } catch (const std::exception& error) {
            QXPAGENT_LOG(kLogError, "watchdog: %s", error.what());
        }
        ended.wait_for(lock, stop, interval, [] { return false; });
    }
}

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

void FindServiceManager() {
    const char* const text = std::getenv("NOTIFY_SOCKET");
    const std::string_view path = text != nullptr ? text : "";
    g_address = {};
    g_address_size = 0;
    if (!path.empty() && path.size() < sizeof(g_address.sun_path)) {
        g_address.sun_family = AF_UNIX;
        path.copy(g_address.sun_path, path.size());
        if (path.front() == '@') {
            g_address.sun_path[0] = '\0';  // in the abstract namespace
        }
        g_address_size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    }
    uint64_t watchdog = 0;
    g_watchdog = microseconds(sd_watchdog_enabled(0, &watchdog) > 0 ? watchdog : 0);
}

void NotifyReady(const std::string& status) {
    Notify("READY=1\nSTATUS=" + status);
}

void NotifyReloading() {
    // The service manager holds the time against its own clock, to tell this reload from an earlier one.
    const auto now = std::chrono::duration_cast<microseconds>(std::chrono::steady_clock::now().time_since_epoch());
    Notify(fmt::format("RELOADING=1\nMONOTONIC_USEC={}\nSTATUS=Reading the configuration again", now.count()));
}

void NotifyStopping() {
    Notify("STOPPING=1\nSTATUS=Stopping the plugin");
}

std::jthread StartWatchdog(std::function<bool()> is_alive) {
    std::jthread thread;
    if (g_watchdog.count() > 0) {
        thread = std::jthread([is_alive = std::move(is_alive)](const std::stop_token& stop) {
            FeedWatchdog(stop, g_watchdog / 2, is_alive);
        });
        pthread_setname_np(thread.native_handle(), "watchdog");
    }
    return thread;
}

int RunService(ServiceAgent& agent, ServiceSignals& signals, const CommandLine& command_line,
               const Installation& installation, const Options& options) {
    agent.Start();
    // The watchdog is fed throughout a stop, which may take minutes: the service manager has a time of its own for
    // that.
    std::atomic<bool> stopping{false};
    const std::jthread watchdog = StartWatchdog([&] { return stopping || agent.IsAlive(); });
    Options running = options;
    const std::string serving = "Serving " + options.socket.string();
    NotifyReady(serving);
    while (signals.Wait() == ServiceSignals::Request::kReload) {
        NotifyReloading();
        const ReloadOutcome outcome =
            ReloadConfig(command_line, installation, running,
                         [&agent](const Options& changed) { agent.SetRetention(changed.retention); });
        NotifyReady(outcome.mistakes.empty() ? serving
                                             : fmt::format("{}; not reloaded: {}", serving, outcome.mistakes.front()));
    }
    // Before the stop: from here on the service manager allows the time of a stop.
    NotifyStopping();
    stopping = true;
    QXPAGENT_LOG(kLogInfo, "stopping on signal %d", signals.StopNumber());
    if (!agent.Stop()) {
        std::_Exit(kExitFailure);  // a thread is still inside the plugin, and what it uses must stay
    }
    QXPAGENT_LOG(kLogInfo, "stopped");
    return kExitOk;
}

}  // namespace qxpagent
