#pragma once

#include "agent/config/command_line.h"
#include "agent/service/signals.h"

namespace qxpagent {

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
