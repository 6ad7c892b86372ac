#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace qxpagent {

/// Where the management server is.
struct ServerAddress {
    std::string ip;
    std::string port;  // decimal, 1 to 65535
    bool operator==(const ServerAddress&) const = default;
};

/// How long things are kept.
struct Retention {
    std::chrono::hours age{30 * 24};          // of commands and acknowledged reports in the store
    uint64_t bytes = uint64_t{1} << 30;       // of all texts in the store
    std::chrono::hours leftover_age{7 * 24};  // of script files and result files in the plugin's directories
};

/// What the configuration file and the command line ask for, all paths absolute. Each is a row of the table of
/// settings.
struct Options {
    std::filesystem::path socket;
    std::filesystem::path plugin;
    std::string init_param;                                 // empty: the plugin's default
    std::optional<ServerAddress> online;                    // nothing: offline
    std::string log;                                        // as QXHOST_LOG; empty: as the environment says
    std::string log_level;                                  // as QXHOST_LOG_LEVEL; empty: as the environment says
    std::string socket_group;                               // group that may use the socket; empty: the agent's own
    std::filesystem::path store;                            // database file
    std::vector<std::filesystem::path> script_directories;  // that policies may name besides the plugin's own
    std::vector<std::string> script_environment;            // variables that scripts inherit besides the usual
    Retention retention;
};

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

}  // namespace qxpagent
