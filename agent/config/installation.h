#pragma once

#include <filesystem>

namespace qxpagent {

/// Where things lie: bin/, lib/, etc/ and data/ beside each other, found from where this program lies.
struct Installation {
    std::filesystem::path bin;
    std::filesystem::path agent_data;  // data/qxpagent
    std::filesystem::path socket;      // the default one
    std::filesystem::path plugin;      // the default one
    std::filesystem::path store;       // the default one
};

/// Throws StartupError when /proc does not tell.
Installation FindInstallation();

/// Creates data/qxpagent (mode 0750) where it is missing, and changes the working directory to bin/, which the plugin's
/// paths are relative to. Throws StartupError.
void EnterInstallation(const Installation& installation);

}  // namespace qxpagent
