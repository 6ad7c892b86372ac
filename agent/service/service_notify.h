#pragma once

#include <functional>
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

/// Keeps the service manager's watchdog from restarting the agent for as long as the agent answers. `is_alive` is
/// called on the thread that is returned, twice in each watchdog time, until that is destroyed; the watchdog is told
/// only when it returns true. It may block: a call that does not return is an agent that does not answer. Without a
/// watchdog there is no thread, and no call.
std::jthread StartWatchdog(std::function<bool()> is_alive);

}  // namespace qxpagent
