#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ctl/client/agent_objects.h"
#include "ctl/terminal/error.h"
#include "http/client.h"

namespace qxpctl {

using qxphttp::Tick;

/// What became of a command that was sent.
// NOLINTNEXTLINE(bugprone-exception-escape): a check in the JSON library's move constructor looks as if it could throw
struct Submission {
    /// False when the agent knew this very document already; nothing was done then.
    bool taken = false;
    Command command;
};

struct CommandFilter {
    uint64_t after = 0;            // only what changed after this sequence
    std::chrono::seconds wait{0};  // for the first one; at most AgentClient::kMaxPoll
};

struct ReportFilter {
    std::string id;                    // empty: of any command
    std::optional<bool> acknowledged;  // not set: either
    bool documents = true;             // false: Report::content is left out
    uint64_t after = 0;                // only greater cursors
    std::chrono::seconds wait{0};      // as above
};

/// The agent's HTTP API over its Unix socket, one connection a request. One request at a time; belongs to one thread.
///
/// Every call throws AgentAway when the agent cannot be reached or takes nothing now, AgentUnavailable when it answers
/// what no agent answers or cannot go on (no permission, a full disk, a failure of its own), BadInput with the agent's
/// own words when it refuses the request as it is. Calls that take a Tick return nothing when it gave up.
class AgentClient {
public:
    /// Throws BadInput for a path that is too long for a socket.
    explicit AgentClient(std::string socket_path);

    AgentStatus GetStatus() const;
    Health GetHealth() const;

    /// Sends a policy. Throws CommandRefused when the agent's admission check refuses it, NotAcknowledged when the
    /// plugin did not answer in time and may still run it, and BadInput also when another document has its ID.
    std::optional<Submission> Submit(const std::string& document, const Tick& tick = {}) const;

    /// A page of each holds 1000 at most, of reports about 16 MiB of documents.
    std::optional<CommandPage> ListCommands(const CommandFilter& filter, const Tick& tick = {}) const;
    std::optional<ReportPage> GetReports(const ReportFilter& filter, const Tick& tick = {}) const;
    CommandDetail GetCommand(const std::string& id) const;

    /// Returns how many were not acknowledged before.
    uint64_t Acknowledge(const std::vector<uint64_t>& cursors) const;
    /// The bytes of a result file as the plugin wrote them.
    std::string GetResultFile(uint64_t cursor) const;

    /// Runs a policy file of the process directory and waits for its end, however long. True when it was accepted.
    std::optional<bool> RunOnce(const std::string& name, const Tick& tick = {}) const;

    /// The longest that the agent holds a request open.
    static constexpr std::chrono::seconds kMaxPoll{60};

    /// How long each answer may take beyond a poll's wait.
    void SetTimeout(std::chrono::milliseconds timeout) { timeout_ = timeout; }

private:
    using Answer = qxphttp::Answer;

    std::optional<Answer> Perform(const std::string& target, const std::string* body, std::chrono::milliseconds timeout,
                                  const Tick& tick) const;
    template <typename Reader>
    auto Get(const std::string& target, std::chrono::seconds wait, const Tick& tick, Reader reader) const;
    std::optional<Json> Post(const std::string& target, const Json& body, std::chrono::milliseconds timeout,
                             const Tick& tick) const;
    Json ReadObject(const Answer& answer) const;
    template <typename Reader>
    auto Interpret(const Answer& answer, Reader reader) const;
    [[noreturn]] void FailRefused(const Answer& answer) const;
    [[noreturn]] void FailForeign(const std::string& what) const;

    const std::string socket_path_;
    std::chrono::milliseconds timeout_;
};

/// The agent cannot be reached, or says that it cannot serve right now: the same request may succeed later.
class AgentAway : public AgentUnavailable {
public:
    enum class Cause {
        kUnreachable,  // the request was not delivered
        kBroken,  // the connection ended, or took too long, before the answer was there: it may have been delivered
        kBusy,    // the agent answered that it takes nothing now
    };
    AgentAway(Cause cause, const std::string& text) : AgentUnavailable(text), cause_(cause) {}

    Cause GetCause() const { return cause_; }

private:
    Cause cause_;
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
using NotAcknowledged = FailureOf<ExitCode::kWaitTimedOut>;

}  // namespace qxpctl
