#pragma once

#include <functional>
#include <string>
#include <vector>

#include "agent/config/command_line.h"

namespace qxpagent {

/// The agent's configuration file is an INI file with the one section [qxpagent], whose keys are the settings.
///
/// Comments are whole lines that begin with ';' or '#', and what follows a ';' after white space. White space around
/// keys and values does not count. What is longer than kMostConfigLineBytes goes on the command line.
struct LoadedOptions {
    Options options;                    // of no use when there are mistakes
    std::vector<std::string> mistakes;  // of the file, by line: "FILE:LINE: TEXT", or "FILE: TEXT" for one of the whole
};

/// The options that command line, configuration file and environment give together, the first of them first, and the
/// defaults of the settings after all. Reads the file once; relative paths in it are taken from bin/. May be called
/// again, from any working directory.
LoadedOptions LoadOptions(const CommandLine& command_line, const Installation& installation);

/// What --check-config does: prints every mistake, or that there is none. Returns the exit code.
int PrintMistakes(const CommandLine& command_line, const LoadedOptions& loaded);

/// What reading the configuration again came to: names of settings.
struct ReloadOutcome {
    std::vector<std::string> applied;        // changed, and in force now
    std::vector<std::string> needs_restart;  // changed since the start, in force after a restart
    std::vector<std::string> mistakes;       // as LoadedOptions has them: nothing was changed
};

/// Reads the configuration file again and applies what can change in a running agent: the log level, and what `apply`
/// does with the rest; it is called when anything has changed. `running` is what is in force: what the agent was
/// started with and the reloads since then. Writes what came of it to the log as well.
ReloadOutcome ReloadConfig(const CommandLine& command_line, const Installation& installation, Options& running,
                           const std::function<void(const Options&)>& apply);

}  // namespace qxpagent
