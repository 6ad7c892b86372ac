#pragma once

#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

#include "agent/agent_control.h"
#include "agent/api/http_message.h"

namespace qxpagent {

/// The agent's HTTP API: finds the handler for a request, checks what it was given, answers in JSON. docs/openapi.yaml
/// describes it to its clients.
class Api final : public HttpHandler {
public:
    /// The agent must outlive it.
    explicit Api(AgentControl& agent) : agent_(agent) {}

    size_t MaxBodyBytes(const HttpRequest& head) const override;
    HttpResponse Handle(HttpRequest request) override;

    static constexpr size_t kMaxCommandBytes = size_t{100} << 20;
    static constexpr size_t kMaxSmallBodyBytes = size_t{64} << 10;

    /// A request of the API: of one method on one path, with these query parameters, each at most once.
    struct Route {
        std::string_view path;  // its last part may be "{…}", which stands for any text but none
        std::string_view method;
        size_t max_body;
        std::vector<std::string_view> parameters;
        HttpResponse (Api::*handle)(HttpRequest&, const std::string& name);  // name: what stood for the '{…}'
    };
    static std::span<const Route> Routes();

private:
    // api_commands.cpp
    HttpResponse SubmitCommand(HttpRequest& request, const std::string& name);
    HttpResponse ListCommands(HttpRequest& request, const std::string& name);
    HttpResponse ShowCommand(HttpRequest& request, const std::string& name);
    HttpResponse RunOnce(HttpRequest& request, const std::string& name);

    // api_reports.cpp
    HttpResponse ListReports(HttpRequest& request, const std::string& name);
    HttpResponse AcknowledgeReports(HttpRequest& request, const std::string& name);
    HttpResponse ListResults(HttpRequest& request, const std::string& name);
    HttpResponse ShowResult(HttpRequest& request, const std::string& name);

    // api_status.cpp
    HttpResponse ShowStatus(HttpRequest& request, const std::string& name);
    HttpResponse ShowHealth(HttpRequest& request, const std::string& name);
    HttpResponse ShowMetrics(HttpRequest& request, const std::string& name);

    AgentControl& agent_;
};

}  // namespace qxpagent
