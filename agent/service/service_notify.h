#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace qxpagent {

// What the service manager is told (Type=notify-reload, WatchdogSec=; the protocol is that of sd_notify(3)). Nothing
// happens where there is none.

/// Reads where the service manager listens ($NOTIFY_SOCKET) and how often its watchdog wants to hear of this process
/// ($WATCHDOG_USEC, $WATCHDOG_PID). Before the first thread, and before the environment is reduced.
void FindServiceManager();

void NotifyReady(const std::string& status);
/// Before the configuration is read again; NotifyReady follows.
void NotifyReloading();
void NotifyStopping();

/// Keeps the service manager's watchdog from restarting the agent for as long as the agent answers. Does nothing when
/// no watchdog was asked for.
class Watchdog {
public:
    /// `is_alive` is called on a thread of its own, twice in each watchdog time, until the destructor; the watchdog is
    /// told only when it returns true. It may block: a call that does not return is an agent that does not answer.
    explicit Watchdog(std::function<bool()> is_alive);
    /// Waits for the call that is under way.
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    void Run(std::chrono::microseconds interval);

    const std::function<bool()> is_alive_;

    std::mutex mutex_;
    std::condition_variable changed_;
    bool stopped_ = false;  // guarded by mutex_
    std::thread thread_;
};

}  // namespace qxpagent
