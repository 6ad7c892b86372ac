#pragma once

#include <prometheus/metric_family.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "agent/commands/submit_outcome.h"
#include "agent/records/command_record.h"
#include "agent/records/report.h"
#include "agent/records/store_figures.h"

namespace qxpagent {

/// What the API tells about the agent as a whole.
struct AgentStatus {
    std::string version;
    unsigned int plugin_status = 0;
    std::string plugin_version;
    std::chrono::seconds uptime{0};
    std::filesystem::path data_directory;
    std::filesystem::path policy_directory;
    std::filesystem::path process_directory;
    std::filesystem::path result_directory;
    uint64_t scripts_queued = 0;   // scripts of commands that are not yet handed to the plugin
    uint64_t scripts_waiting = 0;  // scripts of delivered commands that have no result yet
    uint64_t reports_waiting = 0;  // in memory, since the store cannot be written
    StoreFigures store;
    std::vector<prometheus::MetricFamily> counters;  // what has happened since the agent started
};

/// What the API asks of the agent. Called from several threads at once. All but Submit throw StoreError when the store
/// cannot be read.
class AgentControl {
public:
    virtual ~AgentControl() = default;

    /// Checks, journals and delivers a policy.
    virtual SubmitOutcome Submit(std::string document, const qxpbase::Peer& peer) = 0;
    virtual std::optional<CommandRecord> FindCommand(const std::string& id) = 0;
    /// By sequence, oldest change first.
    virtual std::vector<CommandRecord> ListCommands(const CommandQuery& query) = 0;

    /// By cursor, oldest first: at most `limit` reports and about 16 MiB of text, but at least one when any matches.
    virtual std::vector<Report> ListReports(const ReportQuery& query) = 0;
    virtual std::optional<Report> FindReport(uint64_t cursor) = 0;
    /// Marks reports as received for good; returns how many were not marked before.
    virtual uint64_t Acknowledge(const std::vector<uint64_t>& cursors) = 0;
    virtual uint64_t AcknowledgeUpTo(uint64_t cursor) = 0;

    /// Runs a policy file of the process directory and waits for its end: accepted or not; nothing when not running.
    virtual std::optional<bool> RunOnce(const std::string& name, const qxpbase::Peer& peer) = 0;
    virtual AgentStatus Status() = 0;
};

}  // namespace qxpagent
