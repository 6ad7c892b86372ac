#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "agent/config/installation.h"
#include "agent/config/settings.h"

namespace qxpagent {

/// What the agent was started with. It is kept, since a reload reads the configuration file again under it.
struct CommandLine {
    using Texts = std::vector<std::pair<const Setting*, std::string>>;

    std::filesystem::path config_file;  // absolute
    bool config_named = false;          // with --config: then it must be there
    bool check_config = false;
    std::filesystem::path directory;  // that relative paths in these are taken from
    Texts settings;                   // given as options
    Texts environment;                // given by variables
};

/// Reads the command line and the environment. Nothing when the process is to end at once with `exit_code`: help, the
/// version or what is wrong has then been printed.
std::optional<CommandLine> ParseCommandLine(int argc, char** argv, const Installation& installation, int& exit_code);

}  // namespace qxpagent
