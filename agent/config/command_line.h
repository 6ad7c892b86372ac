#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "agent/config/installation.h"
#include "agent/config/options.h"

namespace qxpagent {

/// What the agent was started with. It is kept, since a reload reads the configuration file again under it.
struct CommandLine {
    std::filesystem::path config_file;  // absolute
    bool config_named = false;          // with --config: then it must be there
    bool check_config = false;
    std::map<std::string, std::string> settings;     // by name, as ConfigFile::settings
    std::map<std::string, std::string> environment;  // "log" and "log-level", as the host SDK's variables have them
};

/// Reads the command line and the environment. Relative paths are taken from the working directory. Nothing when the
/// process is to end at once with `exit_code`: help, the version or what is wrong has then been printed.
std::optional<CommandLine> ParseCommandLine(int argc, char** argv, const Installation& installation, int& exit_code);

struct LoadedOptions {
    Options options;                    // of no use when there are mistakes
    std::vector<std::string> mistakes;  // of the configuration file, as MistakeLines has them
};

/// The options that command line, configuration file and environment give together, the first of them first. Relative
/// paths in the file are taken from bin/. May be called again, from any working directory.
LoadedOptions LoadOptions(const CommandLine& command_line, const Installation& installation);

/// What --check-config does: prints every mistake, or that there is none. Returns the exit code.
int CheckConfig(const CommandLine& command_line, const Installation& installation);

}  // namespace qxpagent
