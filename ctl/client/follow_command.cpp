#include "ctl/client/follow_command.h"

#include <algorithm>

namespace qxpctl {

namespace {

using std::chrono::seconds;

// A command can end without a report that completes it; its state is looked at this often.
constexpr seconds kPoll{10};

struct Follower {
    const AgentClient& agent;
    RetryingRequest& request;
    ResultCollector& collector;
    Command& command;
    uint64_t after;     // the cursor of the last report that was read
    uint64_t sequence;  // of the last change of a command that was read
    const std::function<void(const RunResult&)>& on_result;

    // The request outlives this.
    ~Follower() { request.OnReturn({}); }

    FollowOutcome Run() {
        for (;;) {
            const RetryingRequest::Clock::time_point asked = RetryingRequest::Clock::now();
            const bool final = IsFinal(command.state);
            size_t reports = 0;
            const RetryingRequest::End end = request.Try([&] { return ReadReports(final, reports); });
            if (const auto outcome = Outcome(final && reports == 0)) {
                return *outcome;
            }
            if (end == RetryingRequest::End::kGivenUp) {
                return FollowOutcome::kGivenUp;
            }
            if (end == RetryingRequest::End::kTimedOut || request.Expired()) {
                return FollowOutcome::kTimedOut;
            }
            if (!final && request.Try([this] { return UpdateCommand(); }) == RetryingRequest::End::kGivenUp) {
                return FollowOutcome::kGivenUp;
            }
            if (reports == 0 && !IsFinal(command.state) && !request.PauseAfter(asked)) {
                return FollowOutcome::kGivenUp;
            }
        }
    }

    bool ReadReports(bool final, size_t& count) {
        ReportFilter filter;
        filter.id = command.id;
        filter.after = after;
        filter.wait = final ? seconds(0) : request.Left(kPoll);
        const std::optional<ReportPage> page = agent.GetReports(filter, request.GetTick());
        if (!page) {
            return false;
        }
        for (const Report& report : page->reports) {
            for (const RunResult* const result : collector.Add(report)) {
                on_result(*result);
            }
        }
        count = page->reports.size();
        after = std::max(after, page->cursor);
        return true;
    }

    bool UpdateCommand() {
        for (;;) {
            const std::optional<CommandPage> page = agent.ListCommands({.after = sequence}, request.GetTick());
            if (!page) {
                return false;
            }
            for (const Command& changed : page->commands) {
                if (changed.id == command.id) {
                    command = changed;
                }
            }
            if (page->commands.empty() || page->sequence <= sequence) {
                return true;
            }
            sequence = page->sequence;
        }
    }

    // Set once nothing more will come.
    // @param drained  the state is final, and all reports before it have been read.
    std::optional<FollowOutcome> Outcome(bool drained) const {
        if (collector.Complete()) {
            return FollowOutcome::kComplete;
        }
        if (collector.Refused() || (drained && command.state == CommandState::kRefused)) {
            return FollowOutcome::kRefused;
        }
        if (collector.Interrupted() || (drained && command.state == CommandState::kInterrupted)) {
            return FollowOutcome::kInterrupted;
        }
        return drained ? std::optional(FollowOutcome::kComplete) : std::nullopt;
    }

    void CheckThatTheStoreIsTheSame() const {
        const AgentStatus status = agent.GetStatus();
        if (status.last_cursor < after || status.last_sequence < command.sequence) {
            throw AgentUnavailable(
                "the agent came back with another store, which does not know the policy; see its log");
        }
    }
};

}  // namespace

FollowOutcome FollowCommand(const AgentClient& agent, RetryingRequest& request, ResultCollector& collector,
                            Command& command, uint64_t after, const std::function<void(const RunResult&)>& on_result) {
    Follower follower{agent, request, collector, command, after, command.sequence, on_result};
    request.OnReturn([&follower] { follower.CheckThatTheStoreIsTheSame(); });
    return follower.Run();
}

}  // namespace qxpctl
