#include "agent/service/service_notify.h"

#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <string_view>
#include <utility>

#include "agent/log.h"
#include "base/errno_text.h"
#include "base/unique_fd.h"

namespace qxpagent {

namespace {

struct Manager {
    sockaddr_un address{};
    socklen_t address_size = 0;  // 0: there is no service manager
    std::chrono::microseconds watchdog{0};
};

// Set before the first thread.
Manager& TheManager() {
    static Manager manager;
    return manager;
}

// Not by the service manager's library: that reads the environment each time, which is the scripts' by now.
void Notify(const std::string& state) {
    const Manager& manager = TheManager();
    if (manager.address_size == 0) {
        return;
    }
    const qxpbase::UniqueFd out(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!out.IsOpen() || sendto(out.Get(), state.data(), state.size(), MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr*>(&manager.address), manager.address_size) < 0) {
        QXPAGENT_LOG(kLogWarn, "the service manager cannot be told: %s", qxpbase::ErrnoText(errno).c_str());
    }
}

uint64_t MonotonicMicroseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

}  // namespace

void FindServiceManager() {
    Manager manager;
    const char* const text = std::getenv("NOTIFY_SOCKET");
    const std::string_view path = text != nullptr ? text : "";
    if (!path.empty() && path.size() < sizeof(manager.address.sun_path)) {
        manager.address.sun_family = AF_UNIX;
        path.copy(manager.address.sun_path, path.size());
        if (path.front() == '@') {
            manager.address.sun_path[0] = '\0';  // in the abstract namespace
        }
        manager.address_size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    }
    uint64_t microseconds = 0;
    if (sd_watchdog_enabled(0, &microseconds) > 0) {
        manager.watchdog = std::chrono::microseconds(microseconds);
    }
    TheManager() = manager;
}

void NotifyReady(const std::string& status) {
    Notify("READY=1\nSTATUS=" + status);
}

void NotifyReloading() {
    Notify("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(MonotonicMicroseconds()) +
           "\nSTATUS=Reading the configuration again");
}

void NotifyStopping() {
    Notify("STOPPING=1\nSTATUS=Stopping the plugin");
}

Watchdog::Watchdog(std::function<bool()> is_alive) : is_alive_(std::move(is_alive)) {
    const std::chrono::microseconds time = TheManager().watchdog;
    if (time.count() > 0) {
        thread_ = std::thread([this, time] { Run(time / 2); });
        pthread_setname_np(thread_.native_handle(), "watchdog");
    }
}

Watchdog::~Watchdog() {
    {
        const std::lock_guard lock(mutex_);
        stopped_ = true;
        changed_.notify_all();
    }
    if (thread_.joinable()) {
        thread_.join();
    }
}

void Watchdog::Run(std::chrono::microseconds interval) {
    std::unique_lock lock(mutex_);
    while (!stopped_) {
        lock.unlock();
        bool is_alive = false;
        try {
            is_alive = is_alive_();
        } catch (const std::exception& error) {
            QXPAGENT_LOG(kLogError, "watchdog: %s", error.what());
        }
        if (is_alive) {
            Notify("WATCHDOG=1");
        } else {
            QXPAGENT_LOG(kLogError, "watchdog: the agent does not answer");
        }
        lock.lock();
        changed_.wait_for(lock, interval, [this] { return stopped_; });
    }
}

}  // namespace qxpagent
