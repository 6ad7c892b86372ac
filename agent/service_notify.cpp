#include "agent/service_notify.h"

#include <pthread.h>
#include <systemd/sd-daemon.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <exception>
#include <utility>

#include "agent/log.h"

namespace qxpagent {

namespace {

void Notify(const std::string& state) {
    const int result = sd_notify(0, state.c_str());
    if (result < 0) {
        QXPAGENT_LOG(kLogWarn, "the service manager cannot be told: %s",
                     std::generic_category().message(-result).c_str());
    }
}

uint64_t MonotonicMicroseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

}  // namespace

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
    uint64_t microseconds = 0;
    if (sd_watchdog_enabled(0, &microseconds) > 0) {
        thread_ = std::thread([this, microseconds] { Run(std::chrono::microseconds(microseconds / 2)); });
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
