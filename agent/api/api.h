#pragma once

#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

#include "agent/api/agent_control.h"
#include "http/message.h"

namespace qxpagent {

/// The agent's HTTP API: finds the handler for a request, checks what it was given, answers in JSON. docs/openapi.yaml
/// describes it to its clients.
class Api final : public qxphttp::Handler {
public:
    /// The agent must outlive it.
    explicit Api(AgentControl& agent) : agent_(agent) {}

    size_t MaxBodyBytes(const qxphttp::Request& head) const override;
    qxphttp::Response Handle(qxphttp::Request request) override;

    static constexpr size_t kMaxCommandBytes = size_t{100} << 20;
    static constexpr size_t kMaxSmallBodyBytes = size_t{64} << 10;

    /// A request of the API: of one method on one path, with these query parameters, each at most once.
    struct Route {
        std::string_view path;  // its last part may be "{…}", which stands for any text but none
        std::string_view method;
        size_t max_body;
        std::vector<std::string_view> parameters;
        qxphttp::Response (Api::*handle)(qxphttp::Request&, const std::string& name);  // name: what stood for the '{…}'
    };
    static std::span<const Route> Routes();

private:
    // api_commands.cpp
    qxphttp::Response SubmitCommand(qxphttp::Request& request, const std::string& name);
    qxphttp::Response ListCommands(qxphttp::Request& request, const std::string& name);
    qxphttp::Response ShowCommand(qxphttp::Request& request, const std::string& name);
    qxphttp::Response RunOnce(qxphttp::Request& request, const std::string& name);

    // api_reports.cpp
    qxphttp::Response ListReports(qxphttp::Request& request, const std::string& name);
    qxphttp::Response AcknowledgeReports(qxphttp::Request& request, const std::string& name);
    qxphttp::Response ListResults(qxphttp::Request& request, const std::string& name);
    qxphttp::Response ShowResult(qxphttp::Request& request, const std::string& name);

    // api_status.cpp
    qxphttp::Response ShowStatus(qxphttp::Request& request, const std::string& name);
    qxphttp::Response ShowHealth(qxphttp::Request& request, const std::string& name);
    qxphttp::Response ShowMetrics(qxphttp::Request& request, const std::string& name);

    AgentControl& agent_;
};

}  // namespace qxpagent
