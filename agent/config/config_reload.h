#pragma once

#include <functional>
#include <string>
#include <vector>

#include "agent/config/command_line.h"

namespace qxpagent {

/// What reading the configuration again came to: names of settings.
struct ReloadOutcome {
    std::vector<std::string> applied;        // changed, and in force now
    std::vector<std::string> needs_restart;  // changed since the start, in force after a restart
    std::vector<std::string> mistakes;       // of the file, as ReadConfigFile has them: nothing was changed
};

/// Reads the configuration file again and applies what can change in a running agent: the log level, and what `apply`
/// does with the rest; it is called when anything has changed. `running` is what is in force: what the agent was
/// started with and the reloads since then. Writes what came of it to the log as well.
ReloadOutcome ReloadConfig(const CommandLine& command_line, const Installation& installation, Options& running,
                           const std::function<void(const Options&)>& apply);

}  // namespace qxpagent
