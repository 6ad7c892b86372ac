#pragma once

#include <functional>
#include <string>
#include <thread>

#include "agent/config/config_file.h"

namespace qxpagent {

// Signals are caught by handlers, never blocked or ignored: scripts would inherit that, whereas a handler ends where a
// script's program begins.

/// From its construction on, SIGTERM and SIGINT no longer end the process but make Wait return kStop, and SIGHUP makes
/// it return kReload; they stay caught for the life of the process, so that further ones during the stop change
/// nothing. One object a process. Throws StartupError.
class ServiceSignals {
public:
    enum class Request { kReload, kStop };

    ServiceSignals();

    /// Waits for what is asked for next; several reloads that were asked for meanwhile are one. After a stop was asked
    /// for it never returns anything else.
    Request Wait();
    /// The number of the signal that asked for the stop, 0 before.
    int StopNumber() const;
};

/// From now on, writing where nobody reads any more fails with EPIPE and does not end the process; scripts start with
/// SIGPIPE at its default, even when this process was started with it ignored. Throws StartupError.
void SurviveBrokenPipes();

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
