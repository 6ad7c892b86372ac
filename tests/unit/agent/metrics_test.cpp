#include "agent/api/metrics.h"

#include <gmock/gmock.h>

#include <cmath>
#include <sstream>

namespace qxpagent {
namespace {

using testing::HasSubstr;

AgentStatus Busy() {
    AgentStatus status;
    status.version = "1.2.3";
    status.plugin_version = "4 \"x\"";
    status.plugin_status = 2;
    status.scripts_queued = 7;
    status.scripts_waiting = 6;
    status.store = {12, 3, 0, {}, 5000000001, 0, {{CommandState::kReported, 8}, {CommandState::kDelivered, 2}}, ""};
    status.counters = {11, 4, 5, 1, 2, 3, 4, 1234567, {{0.1, 1}, {1, 4}, {INFINITY, 10}}, 99.5, 2};
    return status;
}

TEST(MetricsTest, EveryFigureIsExposed) {
    const std::string text = MetricsText(Busy());
    for (const char* line : {R"(qxpagent_build_info{version="1.2.3",plugin_version="4 \"x\""} 1)",
                             "qxpagent_plugin_started 1",
                             "qxpagent_scripts_queued 7",
                             "qxpagent_scripts_unreported 6",
                             "qxpagent_commands_taken_total 11",
                             R"(qxpagent_commands_refused_total{stage="admission"} 4)",
                             R"(qxpagent_commands_refused_total{stage="plugin"} 5)",
                             R"(qxpagent_runs_total{outcome="succeeded"} 1)",
                             R"(qxpagent_runs_total{outcome="failed"} 2)",
                             R"(qxpagent_runs_total{outcome="timed_out"} 3)",
                             R"(qxpagent_runs_total{outcome="interrupted"} 4)",
                             "qxpagent_run_output_bytes_total 1234567",
                             R"(qxpagent_run_duration_seconds_bucket{le="0.1"} 1)",
                             R"(qxpagent_run_duration_seconds_bucket{le="1"} 4)",
                             R"(qxpagent_run_duration_seconds_bucket{le="+Inf"} 10)",
                             "qxpagent_run_duration_seconds_count 10",
                             "qxpagent_run_duration_seconds_sum 99.5",
                             R"(qxpagent_commands{state="reported"} 8)",
                             R"(qxpagent_commands{state="delivered"} 2)",
                             R"(qxpagent_commands{state="refused"} 0)",
                             "qxpagent_reports 12",
                             "qxpagent_reports_pending 3",
                             "qxpagent_reports_oldest_pending_age_seconds 0",
                             "qxpagent_reports_removed_pending_total 2",
                             "qxpagent_store_bytes 5000000001",
                             "qxpagent_store_writable 1"}) {
        EXPECT_THAT(text, HasSubstr("\n" + std::string(line) + "\n"));
    }
}

TEST(MetricsTest, AgesAndFaultsAreToldAsTheyAreNow) {
    AgentStatus status;
    status.store.fault = "no space";
    const auto oldest = std::chrono::system_clock::now() - std::chrono::seconds(100);
    status.store.oldest_pending = oldest;
    const std::string text = MetricsText(status);
    EXPECT_THAT(text, HasSubstr("\nqxpagent_store_writable 0\n"));
    EXPECT_THAT(text, HasSubstr("\nqxpagent_plugin_started 0\n"));
    EXPECT_THAT(text, HasSubstr("\nqxpagent_run_duration_seconds_count 0\n")) << "before the first run";
    const std::string name = "\nqxpagent_reports_oldest_pending_age_seconds ";
    const double age = std::stod(text.substr(text.find(name) + name.size()));
    EXPECT_GE(age, 100);
    EXPECT_LE(age, std::chrono::duration<double>(std::chrono::system_clock::now() - oldest).count());
    status.store.oldest_pending = std::chrono::system_clock::now() + std::chrono::hours(1);
    EXPECT_THAT(MetricsText(status), HasSubstr(name + "0\n")) << "the clock was set back";
}

TEST(MetricsTest, TheFormIsWhatPrometheusReads) {
    std::string family;
    std::istringstream lines(MetricsText(Busy()));
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("# HELP ")) {
            family = line.substr(7, line.find(' ', 7) - 7);
            EXPECT_EQ('.', line.back()) << line;
        } else if (line.starts_with("# TYPE ")) {
            EXPECT_THAT(line, HasSubstr(" " + family + " ")) << "each family has its help first";
            EXPECT_EQ(line.ends_with(" counter"), family.ends_with("_total")) << line;
        } else {
            EXPECT_THAT(line, testing::MatchesRegex("qxpagent_[a-z_]+(\\{.*\\})? [0-9.e+-]+"));
            EXPECT_TRUE(line.starts_with(family)) << line;
        }
    }
}

}  // namespace
}  // namespace qxpagent
