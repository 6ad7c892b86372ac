#include "agent/reports/run_counters.h"

namespace qxpagent {

// The bounds of the durations, which the plugin tells in whole seconds, go from a command to the longest maintenance.
RunCounters::RunCounters()
    : refused_(Family("qxpagent_commands_refused_total",
                      "Commands that were refused: by the admission check, before they were journalled, or by the "
                      "plugin, at once or later.")),
      runs_(Family("qxpagent_runs_total", "Scripts that were run, by outcome.")),
      commands_taken(Family("qxpagent_commands_taken_total", "Commands that were journalled.").Add({})),
      refused_at_admission(refused_.Add({{"stage", "admission"}})),
      refused_by_plugin(refused_.Add({{"stage", "plugin"}})),
      runs_succeeded(runs_.Add({{"outcome", "succeeded"}})),
      runs_failed(runs_.Add({{"outcome", "failed"}})),
      runs_timed_out(runs_.Add({{"outcome", "timed_out"}})),
      runs_interrupted(runs_.Add({{"outcome", "interrupted"}})),
      output_bytes(Family("qxpagent_run_output_bytes_total", "Output of scripts that was reported.").Add({})),
      run_seconds(prometheus::BuildHistogram()
                      .Name("qxpagent_run_duration_seconds")
                      .Help("How long scripts ran, from their start to their result.")
                      .Register(registry_)
                      .Add({}, prometheus::Histogram::BucketBoundaries{1, 2, 5, 10, 30, 60, 300, 900, 3600, 14400})),
      removed_undelivered(Family("qxpagent_reports_removed_pending_total",
                                 "Reports that retention removed before anybody acknowledged them.")
                              .Add({})),
      reports_lost(Family("qxpagent_reports_lost_total", "Reports that neither the store nor the memory had room for.")
                       .Add({})) {
}

RunCounters::CounterFamily& RunCounters::Family(const char* name, const char* help) {
    return prometheus::BuildCounter().Name(name).Help(help).Register(registry_);
}

void RunCounters::Count(const ReportContent& content) {
    for (const RunResult& run : content.runs) {
        (run.succeeded ? runs_succeeded : run.timed_out ? runs_timed_out : runs_failed).Increment();
        output_bytes.Increment(static_cast<double>(run.output_bytes));
        run_seconds.Observe(static_cast<double>(run.seconds));
    }
}

}  // namespace qxpagent
