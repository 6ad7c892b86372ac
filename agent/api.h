#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "agent/http_message.h"
#include "agent/report_store.h"

namespace qxpagent {

/// What became of a command that was submitted.
enum class SubmitResult {
    kDelivered,
    kNotRunning,       // the agent is stopping, or the plugin is not started
    kBusy,             // too much is waiting already
    kNotAcknowledged,  // the plugin may have it, but has not said so in time
    kFailed,           // the plugin failed over it
};

struct AgentStatus {
    std::string version;
    unsigned int plugin_status = 0;
    std::string plugin_version;
    std::chrono::seconds uptime{0};
    uint64_t commands_delivered = 0;
    std::filesystem::path data_directory;
    std::filesystem::path policy_directory;
    std::filesystem::path process_directory;
    std::filesystem::path result_directory;
};

/// What the API asks of the agent. Called from several threads at once.
class AgentControl {
public:
    virtual ~AgentControl() = default;
    /// Delivers a command document to the plugin. `id` is the document's "ID".
    virtual SubmitResult Submit(const std::string& id, std::string document) = 0;
    /// Runs a policy file of the process directory and waits for its end: accepted or not; nothing when not running.
    virtual std::optional<bool> RunOnce(const std::string& name) = 0;
    virtual AgentStatus Status() const = 0;
};

/// The agent's HTTP API: finds the handler for a request, checks what it was given, answers in JSON.
class Api final : public HttpHandler {
public:
    /// Both must outlive it.
    Api(AgentControl& agent, ReportStore& reports) : agent_(agent), reports_(reports) {}

    size_t MaxBodyBytes(const HttpRequest& head) const override;
    HttpResponse Handle(HttpRequest request) override;

private:
    struct Route;
    static const Route kRoutes[];

    HttpResponse SubmitCommand(HttpRequest& request);
    HttpResponse FetchReports(HttpRequest& request);
    HttpResponse RunOnce(HttpRequest& request);
    HttpResponse ShowStatus(HttpRequest& request);

    AgentControl& agent_;
    ReportStore& reports_;
};

}  // namespace qxpagent
