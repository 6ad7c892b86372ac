#pragma once

#include <filesystem>
#include <string_view>

namespace qxpagent {

/// The configuration file that the plugin will read when it is given this parameter string: as it is named there, so
/// relative to the working directory, or the plugin's default. Empty when none.
std::filesystem::path PluginConfigurationFile(std::string_view init_param);

}  // namespace qxpagent
