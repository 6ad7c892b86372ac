#pragma once

#include <span>
#include <string>
#include <string_view>

#include "agent/config/options.h"

namespace qxpagent {

/// One setting of the agent: an option of the command line, --NAME, and a key of the configuration file.
struct Setting {
    const char* name;
    const char* value;  // what its value is, for the help
    const char* help;
    enum class Takes { kText, kPath, kLog } takes;  // which values a relative path is completed in
    bool reloadable;                                // taken over from the file on SIGHUP, without a restart
    std::string (*apply)(Options&, const std::string& value);
};

/// All of them, in the order of the help.
std::span<const Setting> Settings();
/// Null when there is none of that name.
const Setting* FindSetting(std::string_view name);

/// The value with a relative path in it taken from `directory`.
std::string WithAbsolutePath(const Setting& setting, const std::string& value, const std::filesystem::path& directory);

}  // namespace qxpagent
