#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ctl/json.h"

namespace qxpctl {

/// Called about ten times a second while a request is under way; false gives the request up.
using Tick = std::function<bool()>;

/// What GET /v1/status tells, as far as this tool needs it.
struct AgentStatus {
    uint64_t last_cursor = 0;
    std::string result_directory;
};

struct Report {
    /// The document that the plugin sent; null when it is not JSON.
    Json document;
};

struct ReportPage {
    std::vector<Report> reports;
    /// Where the next page begins.
    uint64_t cursor = 0;
};

/// The agent's HTTP API over its Unix socket. One request at a time; belongs to one thread.
///
/// Every call throws AgentUnavailable when the agent cannot be reached, is stopping, or answers what no agent answers,
/// and BadInput with the agent's own words when it refuses the request.
class AgentClient {
public:
    explicit AgentClient(std::string socket_path);
    ~AgentClient();
    AgentClient(const AgentClient&) = delete;
    AgentClient& operator=(const AgentClient&) = delete;

    const std::string& SocketPath() const { return socket_path_; }

    AgentStatus GetStatus();

    /// Sends a command document. Returns its ID as the agent read it, or nothing when tick gave up.
    std::optional<std::string> Submit(const std::string& document, const Tick& tick = {});

    /// Reports of a policy after a cursor, in order of arrival. Waits up to the given time, at most kMaxPoll, for the
    /// first one. Nothing when tick gave up.
    std::optional<ReportPage> GetReports(const std::string& policy_id, uint64_t after, std::chrono::seconds wait,
                                         const Tick& tick = {});

    /// The longest that the agent holds a request open.
    static constexpr std::chrono::seconds kMaxPoll{60};

    /// How long each answer may take beyond a poll's wait. Set by tests.
    void SetTimeout(std::chrono::milliseconds timeout) { timeout_ = timeout; }

private:
    struct Answer {
        long status = 0;
        std::string body;
    };
    class Transfer;

    std::optional<Answer> Perform(const std::string& path, const std::string* body, std::chrono::milliseconds timeout,
                                  const Tick& tick);
    Json Read(const Answer& answer) const;
    [[noreturn]] void FailUnreachable(const std::string& reason) const;
    [[noreturn]] void FailForeign(const std::string& what) const;

    const std::string socket_path_;
    std::chrono::milliseconds timeout_;
};

/// The agent's socket: what --socket says, else the environment variable QXPAGENT_SOCKET, else
/// ../data/qxpagent/agent.sock beside the directory of this program.
std::string FindSocket(const std::string& option);

}  // namespace qxpctl
