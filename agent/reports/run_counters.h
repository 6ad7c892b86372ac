#pragma once

#include <prometheus/counter.h>
#include <prometheus/family.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>

#include <vector>

#include "agent/records/report_document.h"

namespace qxpagent {

/// What has happened since the agent started, under the names and with the help texts of the metrics. Any thread.
class RunCounters {
    using CounterFamily = prometheus::Family<prometheus::Counter>;

    CounterFamily& Family(const char* name, const char* help);

    prometheus::Registry registry_;  // owns all that is referred to below
    CounterFamily& refused_;
    CounterFamily& runs_;

public:
    RunCounters();

    /// Counts the runs of a report that was stored.
    void Count(const ReportContent& content);

    /// The figures as they are now.
    std::vector<prometheus::MetricFamily> Collect() const { return registry_.Collect(); }

    prometheus::Counter& commands_taken;
    prometheus::Counter& refused_at_admission;  // commands
    prometheus::Counter& refused_by_plugin;     // commands, whether refused at once or later
    prometheus::Counter& runs_succeeded;
    prometheus::Counter& runs_failed;
    prometheus::Counter& runs_timed_out;
    prometheus::Counter& runs_interrupted;  // runs that will never have a result
    prometheus::Counter& output_bytes;
    prometheus::Histogram& run_seconds;
    prometheus::Counter& removed_undelivered;  // reports that retention removed before anybody acknowledged them
    prometheus::Counter& reports_lost;         // that neither the store nor the memory had room for
};

}  // namespace qxpagent
