#include "agent/reports/run_counters.h"

#include <limits>

namespace qxpagent {

namespace {

// Of a run's duration, which the plugin tells in whole seconds.
constexpr double kUpperBounds[] = {1, 2, 5, 10, 30, 60, 300, 900, 3600, 14400};

}  // namespace

RunCounters::RunCounters() {
    for (const double bound : kUpperBounds) {
        counters_.run_seconds.emplace_back(bound, 0);
    }
    counters_.run_seconds.emplace_back(std::numeric_limits<double>::infinity(), 0);
}

void RunCounters::CommandTaken() {
    const std::lock_guard lock(mutex_);
    ++counters_.commands_taken;
}

void RunCounters::RefusedAtAdmission() {
    const std::lock_guard lock(mutex_);
    ++counters_.commands_refused_at_admission;
}

void RunCounters::RefusedByPlugin() {
    const std::lock_guard lock(mutex_);
    ++counters_.commands_refused_by_plugin;
}

void RunCounters::Interrupted(uint64_t runs) {
    const std::lock_guard lock(mutex_);
    counters_.runs_interrupted += runs;
}

void RunCounters::RemovedUndelivered(uint64_t reports) {
    const std::lock_guard lock(mutex_);
    counters_.removed_undelivered += reports;
}

void RunCounters::ReportLost() {
    const std::lock_guard lock(mutex_);
    ++counters_.reports_lost;
}

void RunCounters::Count(const ReportContent& content) {
    const std::lock_guard lock(mutex_);
    for (const RunResult& run : content.runs) {
        ++(run.succeeded ? counters_.runs_succeeded : run.timed_out ? counters_.runs_timed_out : counters_.runs_failed);
        counters_.output_bytes += run.output_bytes;
        counters_.run_seconds_sum += static_cast<double>(run.seconds);
        for (auto& [bound, runs] : counters_.run_seconds) {
            runs += static_cast<double>(run.seconds) <= bound ? 1 : 0;
        }
    }
}

AgentCounters RunCounters::Get() const {
    const std::lock_guard lock(mutex_);
    return counters_;
}

}  // namespace qxpagent
