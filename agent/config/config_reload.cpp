#include "agent/config/config_reload.h"

#include <utility>

#include "agent/log.h"

namespace qxpagent {

namespace {

std::string Joined(const std::vector<std::string>& names) {
    std::string list;
    for (const std::string& name : names) {
        list.append(list.empty() ? "" : ", ").append(name);
    }
    return list.empty() ? "nothing" : list;
}

std::string AddressText(const std::optional<ServerAddress>& address) {
    return address.has_value() ? address->ip + " " + address->port : "";
}

// What is only read at the start and differs.
std::vector<std::string> NeedingRestart(const Options& running, const Options& wanted) {
    const std::pair<const char*, bool> differences[] = {
        {"socket", running.socket != wanted.socket},
        {"socket-group", running.socket_group != wanted.socket_group},
        {"plugin", running.plugin != wanted.plugin},
        {"init-param", running.init_param != wanted.init_param},
        {"online", AddressText(running.online) != AddressText(wanted.online)},
        {"log", running.log != wanted.log},
        {"store", running.store != wanted.store},
        {"script-directories", running.script_directories != wanted.script_directories},
        {"script-environment", running.script_environment != wanted.script_environment},
    };
    std::vector<std::string> names;
    for (const auto& [name, differs] : differences) {
        if (differs) {
            names.emplace_back(name);
        }
    }
    return names;
}

void Log(const ReloadOutcome& outcome) {
    for (const std::string& mistake : outcome.mistakes) {
        QXPAGENT_LOG(kLogError, "configuration not reloaded: %s", mistake.c_str());
    }
    if (outcome.mistakes.empty()) {
        QXPAGENT_LOG(kLogInfo, "configuration reloaded: changed %s", Joined(outcome.applied).c_str());
    }
    if (!outcome.needs_restart.empty()) {
        QXPAGENT_LOG(kLogWarn, "configuration: a restart is needed for %s", Joined(outcome.needs_restart).c_str());
    }
}

}  // namespace

ConfigReload::ConfigReload(CommandLine command_line, Installation installation, Options running, Reloadable& target)
    : command_line_(std::move(command_line)),
      installation_(std::move(installation)),
      running_(std::move(running)),
      target_(target) {
}

ReloadOutcome ConfigReload::Reload() {
    const LoadedOptions loaded = LoadOptions(command_line_, installation_);
    ReloadOutcome outcome;
    outcome.mistakes = loaded.mistakes;
    if (outcome.mistakes.empty()) {
        outcome.needs_restart = NeedingRestart(running_, loaded.options);
        ApplyRetention(loaded.options.retention, outcome);
        if (loaded.options.log_level != running_.log_level) {
            outcome.applied.emplace_back("log-level");
        }
    }
    // Under whichever of the two levels lets it be seen.
    const bool is_seen = CLogDebug::Instance()->CheckLogLevel(kLogInfo);
    if (is_seen) {
        Log(outcome);
    }
    if (outcome.mistakes.empty()) {
        ApplyLogLevel(loaded.options.log_level);
    }
    if (!is_seen) {
        Log(outcome);
    }
    return outcome;
}

void ConfigReload::ApplyLogLevel(const std::string& wanted) {
    if (wanted != running_.log_level) {
        // Without a setting, what the host SDK does by itself.
        QxSetLogLevel(wanted.empty() ? "info" : wanted.c_str());
        running_.log_level = wanted;
    }
}

void ConfigReload::ApplyRetention(const Retention& wanted, ReloadOutcome& outcome) {
    const size_t before = outcome.applied.size();
    Retention& running = running_.retention;
    if (wanted.age != running.age) {
        outcome.applied.emplace_back("retention-days");
    }
    if (wanted.bytes != running.bytes) {
        outcome.applied.emplace_back("retention-size");
    }
    if (wanted.leftover_age != running.leftover_age) {
        outcome.applied.emplace_back("leftover-days");
    }
    if (outcome.applied.size() > before) {
        running = wanted;
        target_.SetRetention(wanted);
    }
}

}  // namespace qxpagent
