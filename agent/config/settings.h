#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "agent/config/options.h"

namespace qxpagent {

/// One setting of the agent: an option of the command line, --NAME, and a key of the configuration file. Both read it
/// through this, so that they know the same names and refuse the same values (docs/decisions/010).
struct Setting {
    const char* name;
    const char* value;          // what its value is, for the help
    const char* default_value;  // empty: what holds without it is no value of its own
    const char* help;
    const char* environment;  // the variable that it stands in for, or null
    bool reloadable;          // taken over from the file on SIGHUP, without a restart

    /// Sets it from a text, with a relative path taken from `directory`. Returns what is wrong with the text, as the
    /// end of "NAME …"; then nothing is set. Empty when it was set.
    std::function<std::string(Options&, const std::string& text, const std::filesystem::path& directory)> set;
    std::function<bool(const Options&, const Options&)> equal;
    std::function<void(Options& to, const Options& from)> copy;
};

/// All of them, in the order of the help.
std::span<const Setting> Settings();
/// Null when there is none of that name.
const Setting* FindSetting(std::string_view name);

/// A line of the configuration file may have so many bytes: the INI library cuts longer ones in two.
inline constexpr size_t kMostConfigLineBytes = 196;

/// Reads "ADDRESS:PORT" or, for an IPv6 address, "[ADDRESS]:PORT". Nothing when it is neither.
std::optional<ServerAddress> ParseServerAddress(std::string_view text);

}  // namespace qxpagent
