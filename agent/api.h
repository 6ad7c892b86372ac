#pragma once

#include <cstddef>

#include "agent/agent_control.h"
#include "agent/http_message.h"

namespace qxpagent {

/// The agent's HTTP API: finds the handler for a request, checks what it was given, answers in JSON.
class Api final : public HttpHandler {
public:
    /// The agent must outlive it.
    explicit Api(AgentControl& agent) : agent_(agent) {}

    size_t MaxBodyBytes(const HttpRequest& head) const override;
    HttpResponse Handle(HttpRequest request) override;

private:
    struct Route;
    static const Route kRoutes[];

    HttpResponse SubmitCommand(HttpRequest& request);
    HttpResponse ListCommands(HttpRequest& request);
    HttpResponse FetchReports(HttpRequest& request);
    HttpResponse RunOnce(HttpRequest& request);
    HttpResponse ShowStatus(HttpRequest& request);

    AgentControl& agent_;
};

}  // namespace qxpagent
