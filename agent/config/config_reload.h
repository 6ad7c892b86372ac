#pragma once

#include <string>
#include <vector>

#include "agent/config/command_line.h"
#include "agent/config/reload.h"

namespace qxpagent {

/// What reading the configuration again came to: names of settings.
struct ReloadOutcome {
    std::vector<std::string> applied;        // changed, and in force now
    std::vector<std::string> needs_restart;  // changed since the start, in force after a restart
    std::vector<std::string> mistakes;       // of the file, as MistakeLines has them: nothing was changed
};

/// Reads the configuration file again and applies what can change in a running agent. One thread.
class ConfigReload {
public:
    /// `running`: what the agent was started with. `target` must outlive it.
    ConfigReload(CommandLine command_line, Installation installation, Options running, Reloadable& target);

    /// Writes what came of it to the log as well.
    ReloadOutcome Reload();

private:
    void ApplyLogLevel(const std::string& wanted);
    void ApplyRetention(const Retention& wanted, ReloadOutcome& outcome);

    const CommandLine command_line_;
    const Installation installation_;
    Options running_;
    Reloadable& target_;
};

}  // namespace qxpagent
