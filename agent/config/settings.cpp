#include "agent/config/settings.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <optional>
#include <sstream>
#include <utility>

#include "base/whole_number.h"
#include "policy/rules.h"

namespace qxpagent {

namespace {

// Each `apply` returns what is wrong with the value, as the end of "NAME …"; empty when it was taken.
using Mistake = std::string;

Mistake ApplyPath(std::filesystem::path& path, const std::string& value) {
    if (value.empty()) {
        return "must be a path";
    }
    path = value;
    return {};
}

Mistake ApplyDays(std::chrono::hours& age, const std::string& value) {
    constexpr uint64_t kMostDays = 36500;
    const std::optional<uint64_t> days = qxpbase::WholeNumber(value);
    if (!days.has_value() || *days == 0 || *days > kMostDays) {
        return "must be a whole number of days from 1 to 36500";
    }
    age = std::chrono::hours(24 * *days);
    return {};
}

Mistake ApplyBytes(uint64_t& bytes, const std::string& value) {
    constexpr std::array<std::pair<std::string_view, int>, 4> kUnits = {
        {{"KiB", 10}, {"MiB", 20}, {"GiB", 30}, {"", 0}}};
    const auto* const unit =
        std::find_if(kUnits.begin(), kUnits.end(), [&](const auto& each) { return value.ends_with(each.first); });
    std::string_view digits = std::string_view(value).substr(0, value.size() - unit->first.size());
    digits = digits.substr(0, digits.find_last_not_of(' ') + 1);
    const std::optional<uint64_t> number = qxpbase::WholeNumber(digits);
    constexpr uint64_t kMost = uint64_t{INT64_MAX};
    if (!number.has_value() || *number == 0 || *number > kMost >> unit->second) {
        return "must be a number of bytes from 1, or of KiB, MiB or GiB, as in 512MiB";
    }
    bytes = *number << unit->second;
    return {};
}

Mistake ApplyOnline(Options& options, const std::string& value) {
    options.online = ParseServerAddress(value);
    return value.empty() || options.online.has_value() ? "" : "must be ADDRESS:PORT, with a port from 1 to 65535";
}

Mistake ApplyLogLevel(Options& options, const std::string& value) {
    constexpr std::array<std::string_view, 6> kLevels = {"trace", "debug", "info", "warn", "error", "off"};
    if (std::find(kLevels.begin(), kLevels.end(), value) == kLevels.end()) {
        return "must be trace, debug, info, warn, error or off";
    }
    options.log_level = value;
    return {};
}

Mistake ApplyText(std::string& text, const std::string& value) {
    text = value;
    return {};
}

Mistake ApplyDirectories(std::vector<std::filesystem::path>& directories, const std::string& value) {
    directories.clear();
    std::istringstream list(value);
    for (std::string directory; std::getline(list, directory, ':');) {
        if (directory.empty() || qxppolicy::ValidateScriptDirectory(directory)) {
            return "must be absolute paths parted by ':', of letters, digits and /._+@=,- alone";
        }
        directories.emplace_back(directory);
    }
    return {};
}

Mistake ApplyNames(std::vector<std::string>& names, const std::string& value) {
    names.clear();
    std::istringstream list(value);
    for (std::string name; std::getline(list, name, ':');) {
        const bool is_name = std::all_of(name.begin(), name.end(), [](unsigned char character) {
            return std::isalnum(character) != 0 || character == '_';
        });
        if (name.empty() || !is_name) {
            return "must be names of variables parted by ':', of letters, digits and '_' alone";
        }
        names.push_back(name);
    }
    return {};
}

using Takes = Setting::Takes;

const std::array kSettings = {
    Setting{"socket", "PATH [../data/qxpagent/agent.sock]", "Unix socket to serve", Takes::kPath, false,
            [](Options& options, const std::string& value) { return ApplyPath(options.socket, value); }},
    Setting{"socket-group", "GROUP", "Group whose members may use the socket, by name or number", Takes::kText, false,
            [](Options& options, const std::string& value) { return ApplyText(options.socket_group, value); }},
    Setting{"plugin", "PATH [../lib/libqxpmaint.so]", "Plugin library to load", Takes::kPath, false,
            [](Options& options, const std::string& value) { return ApplyPath(options.plugin, value); }},
    Setting{"init-param", "TEXT",
            "Parameter string for the plugin, as in agent_type=KSTL:conf_path=FILE; a relative FILE is taken from the "
            "agent's own directory",
            Takes::kText, false,
            [](Options& options, const std::string& value) { return ApplyText(options.init_param, value); }},
    Setting{"online", "ADDRESS:PORT", "Tell the plugin that the server is connected at this address", Takes::kText,
            false, &ApplyOnline},
    Setting{"log", "FILE|stderr|journal", "Log to a file, stderr or the journal, in place of $QXHOST_LOG", Takes::kLog,
            false, [](Options& options, const std::string& value) { return ApplyText(options.log, value); }},
    Setting{"log-level", "LEVEL",
            "Least level to log, in place of $QXHOST_LOG_LEVEL: trace, debug, info, warn, error or off", Takes::kText,
            true, &ApplyLogLevel},
    Setting{"store", "PATH [../data/qxpagent/agent.db]", "Database of commands and reports", Takes::kPath, false,
            [](Options& options, const std::string& value) { return ApplyPath(options.store, value); }},
    Setting{
        "script-directories", "DIR[:DIR]...",
        "Directories that a policy may name for its scripts, and those below; root's alone, from / on", Takes::kText,
        false,
        [](Options& options, const std::string& value) { return ApplyDirectories(options.script_directories, value); }},
    Setting{"script-environment", "NAME[:NAME]...",
            "Variables of the agent's environment that scripts inherit besides PATH, HOME, USER, LOGNAME, SHELL, TERM, "
            "TMPDIR, TZ, LANG, LANGUAGE and LC_*",
            Takes::kText, false,
            [](Options& options, const std::string& value) { return ApplyNames(options.script_environment, value); }},
    Setting{"retention-days", "DAYS [30]", "How long commands and acknowledged reports are kept", Takes::kText, true,
            [](Options& options, const std::string& value) { return ApplyDays(options.retention.age, value); }},
    Setting{"retention-size", "SIZE [1GiB]", "How much text of reports is kept: bytes, or with KiB, MiB or GiB",
            Takes::kText, true,
            [](Options& options, const std::string& value) { return ApplyBytes(options.retention.bytes, value); }},
    Setting{
        "leftover-days", "DAYS [7]", "How long script files and result files stay in the plugin's directories",
        Takes::kText, true,
        [](Options& options, const std::string& value) { return ApplyDays(options.retention.leftover_age, value); }},
};

}  // namespace

std::span<const Setting> Settings() {
    return kSettings;
}

const Setting* FindSetting(std::string_view name) {
    const auto* const found =
        std::find_if(kSettings.begin(), kSettings.end(), [&](const Setting& setting) { return setting.name == name; });
    return found != kSettings.end() ? found : nullptr;
}

std::string WithAbsolutePath(const Setting& setting, const std::string& value, const std::filesystem::path& directory) {
    const bool is_path =
        setting.takes == Takes::kPath || (setting.takes == Takes::kLog && value != "stderr" && value != "journal");
    return is_path && !value.empty() ? (directory / value).lexically_normal().string() : value;
}

}  // namespace qxpagent
