#pragma once

#include <functional>
#include <string>
#include <thread>

#include "agent/config/config_file.h"
#include "agent/service/signals.h"

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

/// The agent as the service runs it. All but IsAlive are called from one thread.
class ServiceAgent {
public:
    virtual ~ServiceAgent() = default;

    /// When it returns, the API answers. Throws StartupError.
    virtual void Start() = 0;
    /// False when the process has to end at once, without running destructors.
    virtual bool Stop() = 0;
    /// Whether it still works: takes its locks and looks at what it has. May block where it does not. Called on
    /// a thread of its own after Start; the last call may still be under way when Stop is called.
    virtual bool IsAlive() = 0;
    /// How long things are kept from now on.
    virtual void SetRetention(const Retention& retention) = 0;
};

/// Runs the agent until it is asked to stop: starts it, tells the service manager, reads the configuration again when
/// asked to, stops it. Returns the exit code; does not return when Stop has failed. Throws StartupError.
int RunService(ServiceAgent& agent, ServiceSignals& signals, const CommandLine& command_line,
               const Installation& installation, const Options& options);

}  // namespace qxpagent
