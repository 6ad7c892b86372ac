#pragma once

#include <mutex>

#include "agent/records/report_document.h"

namespace qxpagent {

/// What has happened since the agent started.
struct AgentCounters {
    uint64_t commands_taken = 0;
    uint64_t commands_refused_at_admission = 0;
    uint64_t commands_refused_by_plugin = 0;
    uint64_t runs_succeeded = 0;
    uint64_t runs_failed = 0;
    uint64_t runs_timed_out = 0;
    uint64_t runs_interrupted = 0;
    uint64_t output_bytes = 0;
    std::vector<std::pair<double, uint64_t>> run_seconds;  // upper bound, runs at most that long; the last is infinity
    double run_seconds_sum = 0;
    uint64_t removed_undelivered = 0;  // reports that retention removed before anybody acknowledged them
    uint64_t reports_lost = 0;         // that neither the store nor the memory had room for
};

/// What has happened since the start, counted. Any thread.
class RunCounters {
public:
    RunCounters();

    void CommandTaken();
    void RefusedAtAdmission();
    /// Commands that the plugin refused, at once or later.
    void RefusedByPlugin();
    /// Runs that will never have a result.
    void Interrupted(uint64_t runs);
    void RemovedUndelivered(uint64_t reports);
    void ReportLost();
    /// The runs of a report that was stored.
    void Count(const ReportContent& content);

    AgentCounters Get() const;

private:
    mutable std::mutex mutex_;
    AgentCounters counters_;  // guarded by mutex_
};

}  // namespace qxpagent
