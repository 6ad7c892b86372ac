#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ctl/client/agent_http.h"
#include "ctl/client/agent_objects.h"

namespace qxpctl {

/// What became of a command that was sent.
// NOLINTNEXTLINE(bugprone-exception-escape): a check in the JSON library's move constructor looks as if it could throw
struct Submission {
    /// False when the agent knew this very document already; nothing was done then.
    bool taken = false;
    Command command;
};

struct ReportFilter {
    std::string id;                    // empty: of any command
    std::string source;                // plugin, file, agent; empty: any
    std::optional<bool> acknowledged;  // not set: either
    bool documents = true;             // false: Report::content is left out
    uint64_t after = 0;                // only greater cursors
    unsigned limit = 1000;             // 1 to 1000; an answer holds about 16 MiB of documents at most
    std::chrono::seconds wait{0};      // for the first one; at most AgentClient::kMaxPoll
};

struct CommandFilter {
    uint64_t after = 0;  // only what changed after this sequence
    unsigned limit = 100;
    std::chrono::seconds wait{0};
};

/// The agent's HTTP API. One request at a time; belongs to one thread.
///
/// Every call throws AgentAway when the agent cannot be reached or takes nothing now, AgentUnavailable when it answers
/// what no agent answers or cannot go on (a full disk, a failure of its own), BadInput with the agent's own words when
/// it refuses the request as it is. Calls that take a Tick return nothing when it gave up.
class AgentClient {
public:
    explicit AgentClient(std::string socket_path);

    const std::string& SocketPath() const { return http_.SocketPath(); }

    AgentStatus GetStatus(const Tick& tick = {});
    Health GetHealth();

    /// Sends a command document. Throws CommandRefused when the agent's admission check refuses it, NotAcknowledged
    /// when the plugin did not answer in time and may still run it, and BadInput also when another document has its ID.
    std::optional<Submission> Submit(const std::string& document, const Tick& tick = {});

    std::optional<CommandPage> ListCommands(const CommandFilter& filter, const Tick& tick = {});
    CommandDetail GetCommand(const std::string& id);

    std::optional<ReportPage> GetReports(const ReportFilter& filter, const Tick& tick = {});
    /// Returns how many were not acknowledged before.
    uint64_t Acknowledge(const std::vector<uint64_t>& cursors);
    /// The bytes of a result file as the plugin wrote them.
    std::string GetResultFile(uint64_t cursor);

    /// Runs a policy file of the process directory and waits for its end, however long. True when it was accepted.
    std::optional<bool> RunOnce(const std::string& name, const Tick& tick = {});

    /// The longest that the agent holds a request open.
    static constexpr std::chrono::seconds kMaxPoll{60};

    /// How long each answer may take beyond a poll's wait. Set by tests.
    void SetTimeout(std::chrono::milliseconds timeout) { timeout_ = timeout; }

private:
    std::optional<Json> Get(const std::string& target, std::chrono::milliseconds wait, const Tick& tick) const;
    std::optional<Json> Post(const std::string& target, const std::string& body, std::chrono::milliseconds timeout,
                             const Tick& tick) const;
    Json Read(const Answer& answer) const;
    [[noreturn]] void FailRefused(const Answer& answer) const;

    const AgentHttp http_;
    std::chrono::milliseconds timeout_;
};

/// The agent's admission check refuses this command: the plugin would not run it.
class CommandRefused : public Error {
public:
    explicit CommandRefused(const std::string& reason)
        : Error(ExitCode::kNegative, "the agent refuses the policy: " + reason), reason_(reason) {}

    const std::string& Reason() const { return reason_; }

private:
    std::string reason_;
};

/// The plugin has not acknowledged a command in time. The agent has it, and it may still run.
class NotAcknowledged : public Error {
public:
    explicit NotAcknowledged(const std::string& text) : Error(ExitCode::kWaitTimedOut, text) {}
};

}  // namespace qxpctl
