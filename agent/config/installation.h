#pragma once

#include <filesystem>
#include <string_view>

namespace qxpagent {

/// Where things lie: bin/, lib/, etc/ and data/ beside each other, found from where this program lies.
struct Installation {
    std::filesystem::path bin;
    std::filesystem::path agent_data;  // data/qxpagent
};

/// Throws StartupError when /proc does not tell.
Installation FindInstallation();

/// Creates data/qxpagent (mode 0750) where it is missing, and changes the working directory to bin/, which the plugin's
/// paths are relative to. Throws StartupError.
void EnterInstallation(const Installation& installation);

/// The configuration file that the plugin will read when it is given this parameter string: as it is named there, so
/// relative to the working directory, or the plugin's default. Empty when none.
std::filesystem::path PluginConfigurationFile(std::string_view init_param);

}  // namespace qxpagent
