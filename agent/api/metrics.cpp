#include <prometheus/family.h>
#include <prometheus/gauge.h>
#include <prometheus/registry.h>
#include <prometheus/text_serializer.h>

#include <algorithm>
#include <chrono>

#include "agent/api/api_json.h"

namespace qxpagent {

namespace {

// 0 when nothing is pending, and when the clock was set back.
double AgeSeconds(const std::optional<WallTime>& since) {
    if (!since.has_value()) {
        return 0;
    }
    return std::max(0.0, std::chrono::duration<double>(std::chrono::system_clock::now() - *since).count());
}

// Gauges of one moment. They are made for each scrape, so that none can show what was true before.
class Gauges {
public:
    template <typename Number>
    void Add(const char* name, const char* help, Number value) {
        Family(name, help).Add({}, static_cast<double>(value));
    }

    void AddVersions(const AgentStatus& status) {
        Family("qxpagent_build_info", "Always 1; the versions are in the labels.", {{"version", status.version}})
            .Add({{"plugin_version", status.plugin_version}}, 1.0);
    }

    void AddCommands(const StoreFigures& store) {
        auto& family =
            Family("qxpagent_commands",
                   "Commands in the journal, by state: received are queued for the plugin, delivered are with it and "
                   "unfinished, the others are in a final state.");
        for (const auto& [state, count] : CommandsByState(store)) {
            family.Add({{"state", state}}, static_cast<double>(count));
        }
    }

    std::vector<prometheus::MetricFamily> Collect() const { return registry_.Collect(); }

private:
    prometheus::Family<prometheus::Gauge>& Family(const char* name, const char* help,
                                                  const prometheus::Labels& labels = {}) {
        return prometheus::BuildGauge().Name(name).Help(help).Labels(labels).Register(registry_);
    }

    prometheus::Registry registry_;
};

std::vector<prometheus::MetricFamily> GaugesOf(const AgentStatus& status) {
    const StoreFigures& store = status.store;
    Gauges gauges;
    gauges.AddVersions(status);
    gauges.Add("qxpagent_uptime_seconds", "Time since the agent started.", status.uptime.count());
    gauges.Add("qxpagent_plugin_started", "1 while the plugin is started.",
               status.plugin_status == qxppolicy::kPluginStarted);
    gauges.Add("qxpagent_scripts_queued",
               "Scripts of commands in state received: journalled, and not yet handed to the plugin.",
               status.scripts_queued);
    gauges.Add("qxpagent_scripts_unreported",
               "Scripts of commands in state delivered that have no result yet: the plugin starts them at once, so "
               "they are starting, running or being reported.",
               status.scripts_waiting);
    gauges.AddCommands(store);
    gauges.Add("qxpagent_reports", "Reports in the store.", store.reports);
    gauges.Add("qxpagent_reports_pending", "Reports in the store that nobody has acknowledged.", store.reports_pending);
    gauges.Add("qxpagent_reports_oldest_pending_age_seconds",
               "Age of the oldest report that nobody has acknowledged, 0 when there is none.",
               AgeSeconds(store.oldest_pending));
    gauges.Add("qxpagent_reports_waiting", "Reports in memory that the store does not take at present.",
               status.reports_waiting);
    gauges.Add("qxpagent_store_bytes", "Texts in the store.", store.bytes);
    gauges.Add("qxpagent_store_writable", "1 while the store takes what comes.", store.fault.empty());
    return gauges.Collect();
}

}  // namespace

std::string MetricsText(const AgentStatus& status) {
    std::vector<prometheus::MetricFamily> families = GaugesOf(status);
    families.insert(families.end(), status.counters.begin(), status.counters.end());
    for (prometheus::MetricFamily& family : families) {  // the library keeps them in the order of a hash
        std::sort(family.metric.begin(), family.metric.end(),
                  [](const auto& a, const auto& b) { return a.label < b.label; });
    }
    return prometheus::TextSerializer().Serialize(families);
}

}  // namespace qxpagent
