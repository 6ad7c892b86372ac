#include "agent/api/metrics.h"

#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>

#include <algorithm>
#include <chrono>
#include <initializer_list>
#include <utility>
#include <vector>

#include "agent/api/api_json.h"

namespace qxpagent {

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

struct Sample {
    double value;
    std::vector<ClientMetric::Label> labels;
};

double ToDouble(uint64_t number) {
    return static_cast<double>(number);
}

MetricFamily Family(MetricType type, const char* name, const char* help) {
    MetricFamily family;
    family.name = name;
    family.help = help;
    family.type = type;
    return family;
}

MetricFamily Simple(MetricType type, const char* name, const char* help, const std::vector<Sample>& samples) {
    MetricFamily family = Family(type, name, help);
    for (const Sample& sample : samples) {
        ClientMetric metric;
        metric.label = sample.labels;
        (type == MetricType::Counter ? metric.counter.value : metric.gauge.value) = sample.value;
        family.metric.push_back(std::move(metric));
    }
    return family;
}

MetricFamily Counter(const char* name, const char* help, const std::vector<Sample>& samples) {
    return Simple(MetricType::Counter, name, help, samples);
}

MetricFamily Gauge(const char* name, const char* help, const std::vector<Sample>& samples) {
    return Simple(MetricType::Gauge, name, help, samples);
}

MetricFamily RunSeconds(const AgentCounters& counters) {
    MetricFamily family = Family(MetricType::Histogram, "qxpagent_run_duration_seconds",
                                 "How long scripts ran, from their start to their result.");
    ClientMetric metric;
    for (const auto& [bound, count] : counters.run_seconds) {
        metric.histogram.bucket.push_back({count, bound});
        metric.histogram.sample_count = count;  // the last bound is infinity
    }
    metric.histogram.sample_sum = counters.run_seconds_sum;
    family.metric.push_back(std::move(metric));
    return family;
}

MetricFamily CommandStates(const StoreFigures& store) {
    std::vector<Sample> samples;
    for (const CommandState state : qxppolicy::kCommandStates) {
        const auto count = store.states.find(state);
        samples.push_back(
            {count != store.states.end() ? ToDouble(count->second) : 0, {{"state", qxppolicy::StateName(state)}}});
    }
    return Gauge("qxpagent_commands",
                 "Commands in the journal, by state: received are queued for the plugin, delivered are with it and "
                 "unfinished, the others have their final word.",
                 samples);
}

// 0 when nothing is pending, and when the clock was set back.
double AgeSeconds(const std::optional<WallTime>& since) {
    if (!since.has_value()) {
        return 0;
    }
    return std::max(0.0, std::chrono::duration<double>(std::chrono::system_clock::now() - *since).count());
}

std::vector<MetricFamily> OfTheAgent(const AgentStatus& status) {
    return {Gauge("qxpagent_build_info", "Always 1; the versions are in the labels.",
                  {{1, {{"version", status.version}, {"plugin_version", status.plugin_version}}}}),
            Gauge("qxpagent_uptime_seconds", "Time since the agent started.",
                  {{static_cast<double>(status.uptime.count()), {}}}),
            Gauge("qxpagent_plugin_started", "1 while the plugin is started.",
                  {{status.plugin_status == qxppolicy::kPluginStarted ? 1.0 : 0, {}}}),
            Gauge("qxpagent_scripts_queued",
                  "Scripts of commands in state received: journalled, and not yet handed to the plugin.",
                  {{ToDouble(status.scripts_queued), {}}}),
            Gauge("qxpagent_scripts_unreported",
                  "Scripts of commands in state delivered that have no result yet: the plugin starts them at once, so "
                  "they are running, or just before or behind that.",
                  {{ToDouble(status.scripts_waiting), {}}})};
}

std::vector<MetricFamily> OfTheWork(const AgentCounters& counters) {
    return {Counter("qxpagent_commands_taken_total", "Commands that were journalled.",
                    {{ToDouble(counters.commands_taken), {}}}),
            Counter("qxpagent_commands_refused_total",
                    "Commands that were refused: by the admission check, before they were journalled, or by the "
                    "plugin, at once or "
                    "later.",
                    {{ToDouble(counters.commands_refused_at_admission), {{"stage", "admission"}}},
                     {ToDouble(counters.commands_refused_by_plugin), {{"stage", "plugin"}}}}),
            Counter("qxpagent_runs_total", "Scripts that were run, by outcome.",
                    {{ToDouble(counters.runs_succeeded), {{"outcome", "succeeded"}}},
                     {ToDouble(counters.runs_failed), {{"outcome", "failed"}}},
                     {ToDouble(counters.runs_timed_out), {{"outcome", "timed_out"}}},
                     {ToDouble(counters.runs_interrupted), {{"outcome", "interrupted"}}}}),
            RunSeconds(counters),
            Counter("qxpagent_run_output_bytes_total", "Output of scripts that was reported.",
                    {{ToDouble(counters.output_bytes), {}}})};
}

std::vector<MetricFamily> OfTheStore(const AgentStatus& status) {
    const StoreFigures& store = status.store;
    return {
        CommandStates(store),
        Gauge("qxpagent_reports", "Reports in the store.", {{ToDouble(store.reports), {}}}),
        Gauge("qxpagent_reports_pending", "Reports in the store that nobody has acknowledged.",
              {{ToDouble(store.reports_pending), {}}}),
        Gauge("qxpagent_reports_oldest_pending_age_seconds",
              "Age of the oldest report that nobody has acknowledged, 0 when there is none.",
              {{AgeSeconds(store.oldest_pending), {}}}),
        Counter("qxpagent_reports_removed_pending_total",
                "Reports that retention removed before anybody acknowledged them.",
                {{ToDouble(status.counters.removed_undelivered), {}}}),
        Gauge("qxpagent_reports_waiting", "Reports in memory that the store does not take at present.",
              {{ToDouble(status.reports_waiting), {}}}),
        Counter("qxpagent_reports_lost_total", "Reports that neither the store nor the memory had room for.",
                {{ToDouble(status.counters.reports_lost), {}}}),
        Gauge("qxpagent_store_bytes", "Texts in the store.", {{ToDouble(store.bytes), {}}}),
        Gauge("qxpagent_store_writable", "1 while the store takes what comes.", {{store.fault.empty() ? 1.0 : 0, {}}})};
}

}  // namespace

std::string MetricsText(const AgentStatus& status) {
    std::vector<MetricFamily> families = OfTheAgent(status);
    for (auto& group : {OfTheWork(status.counters), OfTheStore(status)}) {
        families.insert(families.end(), group.begin(), group.end());
    }
    return prometheus::TextSerializer().Serialize(families);
}

}  // namespace qxpagent
