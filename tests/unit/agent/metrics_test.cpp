#include <gmock/gmock.h>

#include "agent/api/api_json.h"
#include "agent/reports/run_counters.h"

namespace qxpagent {
namespace {

using testing::HasSubstr;

TEST(MetricsTest, EveryFigureIsExposed) {
    RunCounters counters;
    counters.commands_taken.Increment(11);
    counters.refused_at_admission.Increment(4);
    counters.refused_by_plugin.Increment(5);
    counters.runs_interrupted.Increment(4);
    counters.removed_undelivered.Increment(2);
    ReportContent content;
    content.runs = {{"a", "", "", true, false, 1, 1234567}, {"b", "", "", false, false, 2, 0},
                    {"c", "", "", false, false, 90, 0},     {"d", "", "", false, true, 20000, 0},
                    {"e", "", "", false, true, 3, 0},       {"f", "", "", false, true, 4, 0}};
    counters.Count(content);
    AgentStatus status;
    status.version = "1.2.3";
    status.plugin_version = "4 \"x\"";
    status.plugin_status = 2;
    status.scripts_queued = 7;
    status.scripts_waiting = 6;
    status.store = {12, 3, 0, {}, 5000000001, 0, {{CommandState::kReported, 8}, {CommandState::kDelivered, 2}}, ""};
    status.counters = counters.Collect();
    const std::string text = MetricsText(status);
    for (const std::string line : {R"(build_info{version="1.2.3",plugin_version="4 \"x\""} 1)",
                                   "plugin_started 1",
                                   "scripts_queued 7",
                                   "scripts_unreported 6",
                                   "commands_taken_total 11",
                                   R"(commands_refused_total{stage="admission"} 4)",
                                   R"(commands_refused_total{stage="plugin"} 5)",
                                   R"(runs_total{outcome="succeeded"} 1)",
                                   R"(runs_total{outcome="failed"} 2)",
                                   R"(runs_total{outcome="timed_out"} 3)",
                                   R"(runs_total{outcome="interrupted"} 4)",
                                   "run_output_bytes_total 1234567",
                                   R"(run_duration_seconds_bucket{le="1"} 1)",
                                   R"(run_duration_seconds_bucket{le="2"} 2)",
                                   R"(run_duration_seconds_bucket{le="60"} 4)",
                                   R"(run_duration_seconds_bucket{le="+Inf"} 6)",
                                   "run_duration_seconds_count 6",
                                   "run_duration_seconds_sum 20100",
                                   R"(commands{state="reported"} 8)",
                                   R"(commands{state="delivered"} 2)",
                                   R"(commands{state="refused"} 0)",
                                   "reports 12",
                                   "reports_pending 3",
                                   "reports_oldest_pending_age_seconds 0",
                                   "reports_removed_pending_total 2",
                                   "store_bytes 5000000001",
                                   "store_writable 1"}) {
        EXPECT_THAT(text, HasSubstr("\nqxpagent_" + line + "\n"));
    }
}

TEST(MetricsTest, AgesAndFaultsAreToldAsTheyAreNow) {
    AgentStatus status;
    status.counters = RunCounters().Collect();
    status.store.fault = "no space";
    const auto oldest = std::chrono::system_clock::now() - std::chrono::seconds(100);
    status.store.oldest_pending = oldest;
    const std::string text = MetricsText(status);
    EXPECT_THAT(text, HasSubstr("\nqxpagent_store_writable 0\n"));
    EXPECT_THAT(text, HasSubstr("\nqxpagent_plugin_started 0\n"));
    EXPECT_THAT(text, HasSubstr("\nqxpagent_run_duration_seconds_count 0\n")) << "before the first run";
    const std::string name = "\nqxpagent_reports_oldest_pending_age_seconds ";
    const std::chrono::duration<double> age(std::stod(text.substr(text.find(name) + name.size())));
    EXPECT_TRUE(age.count() >= 100 && age <= std::chrono::system_clock::now() - oldest) << age.count();
    status.store.oldest_pending = std::chrono::system_clock::now() + std::chrono::hours(1);
    EXPECT_THAT(MetricsText(status), HasSubstr(name + "0\n")) << "the clock was set back";
}

}  // namespace
}  // namespace qxpagent
