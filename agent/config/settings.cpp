#include "agent/config/settings.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <functional>
#include <sstream>
#include <utility>

#include "base/whole_number.h"
#include "policy/rules.h"

namespace qxpagent {

namespace {

namespace fs = std::filesystem;

// Each of these sets a value from a text. It returns what is wrong with the text, as the end of "NAME …", or nothing.
using Mistake = std::string;

Mistake SetPath(fs::path& path, const std::string& text, const fs::path& directory) {
    if (text.empty()) {
        return "must be a path";
    }
    path = (directory / text).lexically_normal();
    return {};
}

Mistake SetLog(std::string& log, const std::string& text, const fs::path& directory) {
    const bool is_file = !text.empty() && text != "stderr" && text != "journal";
    log = is_file ? (directory / text).lexically_normal().string() : text;
    return {};
}

Mistake SetText(std::string& value, const std::string& text, const fs::path& /*directory*/) {
    value = text;
    return {};
}

Mistake SetDays(std::chrono::hours& age, const std::string& text, const fs::path& /*directory*/) {
    constexpr uint64_t kMostDays = 36500;
    const std::optional<uint64_t> days = qxpbase::WholeNumber(text);
    if (!days.has_value() || *days == 0 || *days > kMostDays) {
        return "must be a whole number of days from 1 to 36500";
    }
    age = std::chrono::hours(24 * *days);
    return {};
}

Mistake SetBytes(uint64_t& bytes, const std::string& text, const fs::path& /*directory*/) {
    constexpr std::array<std::pair<std::string_view, int>, 4> kUnits = {
        {{"KiB", 10}, {"MiB", 20}, {"GiB", 30}, {"", 0}}};
    const auto* const unit =
        std::find_if(kUnits.begin(), kUnits.end(), [&](const auto& each) { return text.ends_with(each.first); });
    std::string_view digits = std::string_view(text).substr(0, text.size() - unit->first.size());
    digits = digits.substr(0, digits.find_last_not_of(' ') + 1);
    const std::optional<uint64_t> number = qxpbase::WholeNumber(digits);
    if (!number.has_value() || *number == 0 || *number > uint64_t{INT64_MAX} >> unit->second) {
        return "must be a number of bytes from 1, or of KiB, MiB or GiB, as in 512MiB";
    }
    bytes = *number << unit->second;
    return {};
}

Mistake SetAddress(std::optional<ServerAddress>& address, const std::string& text, const fs::path& /*directory*/) {
    const auto parsed = ParseServerAddress(text);
    if (!text.empty() && !parsed.has_value()) {
        return "must be ADDRESS:PORT, with a port from 1 to 65535";
    }
    address = parsed;
    return {};
}

Mistake SetLogLevel(std::string& level, const std::string& text, const fs::path& /*directory*/) {
    constexpr std::array<std::string_view, 6> kLevels = {"trace", "debug", "info", "warn", "error", "off"};
    if (std::find(kLevels.begin(), kLevels.end(), text) == kLevels.end()) {
        return "must be trace, debug, info, warn, error or off";
    }
    level = text;
    return {};
}

template <typename Item, typename IsItem>
Mistake SetList(std::vector<Item>& items, const std::string& text, const IsItem& is_item, const char* mistake) {
    std::vector<Item> parsed;
    std::istringstream list(text);
    for (std::string item; std::getline(list, item, ':');) {
        if (item.empty() || !is_item(item)) {
            return mistake;
        }
        parsed.emplace_back(item);
    }
    items = std::move(parsed);
    return {};
}

Mistake SetDirectories(std::vector<fs::path>& directories, const std::string& text, const fs::path& /*directory*/) {
    return SetList(
        directories, text,
        [](const std::string& item) { return !qxppolicy::ValidateScriptDirectory(item).has_value(); },
        "must be absolute paths parted by ':', of letters, digits and /._+@=,- alone");
}

Mistake SetNames(std::vector<std::string>& names, const std::string& text, const fs::path& /*directory*/) {
    const auto is_name = [](const std::string& item) {
        return std::all_of(item.begin(), item.end(), [](unsigned char c) { return std::isalnum(c) != 0 || c == '_'; });
    };
    return SetList(names, text, is_name, "must be names of variables parted by ':', of letters, digits and '_' alone");
}

enum class Change { kNeedsRestart, kReloads };

// `field` leads from options to the value: a member or a function.
template <typename Field, typename Value>
Setting Row(const char* name, const char* value, const char* default_value, Change change, const char* help,
            Field field, Mistake (*set)(Value&, const std::string&, const fs::path&),
            const char* environment = nullptr) {
    return {
        name,
        value,
        default_value,
        help,
        environment,
        change == Change::kReloads,
        [=](Options& options, const std::string& text, const fs::path& directory) {
            return set(std::invoke(field, options), text, directory);
        },
        [=](const Options& one, const Options& other) { return std::invoke(field, one) == std::invoke(field, other); },
        [=](Options& to, const Options& from) { std::invoke(field, to) = std::invoke(field, from); }};
}

const std::array kSettings = {
    Row("socket", "PATH", "../data/qxpagent/agent.sock", Change::kNeedsRestart, "Unix socket to serve",
        &Options::socket, SetPath),
    Row("socket-group", "GROUP", "", Change::kNeedsRestart, "Group whose members may use the socket, by name or number",
        &Options::socket_group, SetText),
    Row("plugin", "PATH", "../lib/libqxpmaint.so", Change::kNeedsRestart, "Plugin library to load", &Options::plugin,
        SetPath),
    Row("init-param", "TEXT", "", Change::kNeedsRestart,
        "Parameter string for the plugin, as in agent_type=KSTL:conf_path=FILE; a relative FILE is taken from the "
        "agent's own directory",
        &Options::init_param, SetText),
    Row("online", "ADDRESS:PORT", "", Change::kNeedsRestart,
        "Tell the plugin that the server is connected at this address", &Options::online, SetAddress),
    Row("log", "FILE|stderr|journal", "", Change::kNeedsRestart,
        "Log to a file, stderr or the journal, in place of $QXHOST_LOG", &Options::log, SetLog, "QXHOST_LOG"),
    Row("log-level", "LEVEL", "", Change::kReloads,
        "Least level to log, in place of $QXHOST_LOG_LEVEL: trace, debug, info, warn, error or off",
        &Options::log_level, SetLogLevel, "QXHOST_LOG_LEVEL"),
    Row("store", "PATH", "../data/qxpagent/agent.db", Change::kNeedsRestart, "Database of commands and reports",
        &Options::store, SetPath),
    Row("script-directories", "DIR[:DIR]...", "", Change::kNeedsRestart,
        "Directories that a policy may name for its scripts, and those below; root's alone, from / on",
        &Options::script_directories, SetDirectories),
    Row("script-environment", "NAME[:NAME]...", "", Change::kNeedsRestart,
        "Variables of the agent's environment that scripts inherit besides PATH, HOME, USER, LOGNAME, SHELL, TERM, "
        "TMPDIR, TZ, LANG, LANGUAGE and LC_*",
        &Options::script_environment, SetNames),
    Row(
        "retention-days", "DAYS", "30", Change::kReloads, "How long commands and acknowledged reports are kept",
        [](auto& options) -> auto& { return options.retention.age; }, SetDays),
    Row(
        "retention-size", "SIZE", "1GiB", Change::kReloads,
        "How much text of reports is kept: bytes, or with KiB, MiB or GiB",
        [](auto& options) -> auto& { return options.retention.bytes; }, SetBytes),
    Row(
        "leftover-days", "DAYS", "7", Change::kReloads,
        "How long script files and result files stay in the plugin's directories",
        [](auto& options) -> auto& { return options.retention.leftover_age; }, SetDays),
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

std::optional<ServerAddress> ParseServerAddress(std::string_view text) {
    const size_t colon = text.rfind(':');
    if (colon == std::string_view::npos) {
        return std::nullopt;
    }
    std::string_view ip = text.substr(0, colon);
    const bool bracketed = ip.size() > 2 && ip.front() == '[' && ip.back() == ']';
    if (bracketed) {
        ip = ip.substr(1, ip.size() - 2);
    }
    const char* const allowed =
        bracketed ? "0123456789abcdefABCDEF:." : "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ.-_";
    const std::optional<uint64_t> port = qxpbase::WholeNumber(text.substr(colon + 1));
    if (ip.empty() || ip.find_first_not_of(allowed) != std::string_view::npos || !port.has_value() || *port == 0 ||
        *port > UINT16_MAX) {
        return std::nullopt;
    }
    return ServerAddress{std::string(ip), std::to_string(*port)};
}

}  // namespace qxpagent
