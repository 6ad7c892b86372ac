// The requests about the agent itself: status, health, metrics.
#include <string>
#include <vector>

#include <fmt/core.h>

#include "agent/api/api.h"
#include "agent/api/api_json.h"

namespace qxpagent {

namespace {

std::vector<std::string> Problems(AgentControl& agent) {
    std::vector<std::string> problems;
    try {
        const AgentStatus status = agent.Status();
        if (status.plugin_status != qxppolicy::kPluginStarted) {
            problems.push_back(fmt::format("The plugin is not started: its status is {}.", status.plugin_status));
        }
        if (!status.store.fault.empty()) {
            problems.push_back("The store takes nothing: " + status.store.fault);
        }
    } catch (const StoreError& error) {
        problems.push_back(std::string("The store cannot be read: ") + error.what());
    }
    return problems;
}

}  // namespace

qxphttp::Response Api::ShowStatus(qxphttp::Request& /*request*/, const std::string& /*name*/) {
    return JsonResponse(200, StatusToJson(agent_.Status()));
}

qxphttp::Response Api::ShowHealth(qxphttp::Request& /*request*/, const std::string& /*name*/) {
    const std::vector<std::string> problems = Problems(agent_);
    return problems.empty() ? JsonResponse(200, {{"status", "ok"}})
                            : JsonResponse(503, {{"status", "failing"}, {"problems", problems}});
}

qxphttp::Response Api::ShowMetrics(qxphttp::Request& /*request*/, const std::string& /*name*/) {
    qxphttp::Response response;
    response.content_type = kMetricsContentType;
    response.body = MetricsText(agent_.Status());
    return response;
}

}  // namespace qxpagent
