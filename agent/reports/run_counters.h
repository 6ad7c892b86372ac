#pragma once

#include <mutex>

#include "agent/agent_control.h"
#include "agent/records/report_document.h"

namespace qxpagent {

/// What has happened since the start, counted. Any thread.
class RunCounters {
public:
    RunCounters();

    void CommandTaken();
    void RefusedAtDoor();
    /// A command that has got its final word so, whether at once or later.
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
