#include "agent/config/config_reload.h"

#include <fmt/ranges.h>

#include "agent/log.h"

namespace qxpagent {

namespace {

void Log(const ReloadOutcome& outcome) {
    for (const std::string& mistake : outcome.mistakes) {
        QXPAGENT_LOG(kLogError, "configuration not reloaded: %s", mistake.c_str());
    }
    if (outcome.mistakes.empty()) {
        const std::string applied = fmt::format("{}", fmt::join(outcome.applied, ", "));
        QXPAGENT_LOG(kLogInfo, "configuration reloaded: changed %s", applied.empty() ? "nothing" : applied.c_str());
    }
    if (!outcome.needs_restart.empty()) {
        QXPAGENT_LOG(kLogWarn, "configuration: a restart is needed for %s",
                     fmt::format("{}", fmt::join(outcome.needs_restart, ", ")).c_str());
    }
}

}  // namespace

ReloadOutcome ReloadConfig(const CommandLine& command_line, const Installation& installation, Options& running,
                           const std::function<void(const Options&)>& apply) {
    const LoadedOptions loaded = LoadOptions(command_line, installation);
    const std::string level_before = running.log_level;
    ReloadOutcome outcome;
    outcome.mistakes = loaded.mistakes;
    for (const Setting& setting : Settings()) {
        if (outcome.mistakes.empty() && !setting.equal(running, loaded.options)) {
            if (setting.reloadable) {
                setting.copy(running, loaded.options);
            }
            (setting.reloadable ? outcome.applied : outcome.needs_restart).emplace_back(setting.name);
        }
    }
    // Logged under the more verbose of the old and the new level.
    const bool is_seen = CLogDebug::Instance()->CheckLogLevel(kLogInfo);
    if (is_seen) {
        Log(outcome);
    }
    if (running.log_level != level_before) {
        // Without a setting, what the host SDK does by itself.
        QxSetLogLevel(running.log_level.empty() ? "info" : running.log_level.c_str());
    }
    if (!outcome.applied.empty()) {
        apply(running);
    }
    if (!is_seen) {
        Log(outcome);
    }
    return outcome;
}

}  // namespace qxpagent
