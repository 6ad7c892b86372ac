#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "agent/agent_connect.h"
#include "agent/installation.h"

namespace qxpagent {

/// What the command line asks for, all paths absolute.
struct Options {
    std::filesystem::path socket;
    std::filesystem::path plugin;
    std::string init_param;               // empty: the plugin's default
    std::optional<ServerAddress> online;  // nothing: offline
    std::string log;                      // as QXHOST_LOG; empty: as the environment says
    std::string log_level;                // as QXHOST_LOG_LEVEL; empty: as the environment says
};

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

/// Reads the command line. Relative paths are taken from the working directory. Nothing when the process is to end at
/// once with `exit_code`: help, the version or what is wrong has then been printed.
std::optional<Options> ParseOptions(int argc, char** argv, const Installation& installation, int& exit_code);

}  // namespace qxpagent
