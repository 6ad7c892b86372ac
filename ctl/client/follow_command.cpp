#include "ctl/client/follow_command.h"

#include <algorithm>

namespace qxpctl {

namespace {

using std::chrono::seconds;

// The plugin looks at its runs every few seconds, and a report has its way to go.
constexpr seconds kGrace{60};
// A command can end without a report that completes it; its state is looked at this often.
constexpr seconds kPoll{10};
// An agent that answers a poll at once with nothing is not asked more often than this.
constexpr std::chrono::milliseconds kMinPollInterval{250};
constexpr unsigned kPageLimit = 1000;

class Follower {
public:
    Follower(AgentClient& agent, RetryingRequest& patience, ResultCollector& collector, Command& command,
             uint64_t after, const std::function<void(const RunResult&)>& on_result)
        : agent_(agent),
          request_(patience),
          collector_(collector),
          command_(command),
          after_(after),
          sequence_(command.sequence),
          on_result_(on_result) {
        request_.OnReturn([this] { CheckThatTheStoreIsTheSame(); });
    }
    ~Follower() { request_.OnReturn({}); }
    Follower(const Follower&) = delete;
    Follower& operator=(const Follower&) = delete;

    FollowOutcome Run() {
        for (;;) {
            const RetryingRequest::Clock::time_point asked = RetryingRequest::Clock::now();
            const bool final = IsFinal(command_.state);
            size_t reports = 0;
            const RetryingRequest::End end = request_.Try([&] { return ReadReports(final, reports); });
            if (const auto outcome = Outcome(final && reports == 0)) {
                return *outcome;
            }
            if (end == RetryingRequest::End::kGivenUp) {
                return FollowOutcome::kGivenUp;
            }
            if (end == RetryingRequest::End::kTimedOut || request_.Expired()) {
                return FollowOutcome::kTimedOut;
            }
            if (!final && request_.Try([this] { return UpdateCommand(); }) == RetryingRequest::End::kGivenUp) {
                return FollowOutcome::kGivenUp;
            }
            const auto elapsed = RetryingRequest::Clock::now() - asked;
            if (reports == 0 && !IsFinal(command_.state) && elapsed < kMinPollInterval &&
                !request_.Pause(std::chrono::ceil<std::chrono::milliseconds>(kMinPollInterval - elapsed))) {
                return FollowOutcome::kGivenUp;
            }
        }
    }

private:
    bool ReadReports(bool final, size_t& count) {
        ReportFilter filter;
        filter.id = command_.id;
        filter.after = after_;
        filter.limit = kPageLimit;
        filter.wait = final ? seconds(0) : request_.Left(kPoll);
        const std::optional<ReportPage> page = agent_.GetReports(filter, request_.GetTick());
        if (!page) {
            return false;
        }
        for (const Report& report : page->reports) {
            for (const RunResult* const result : collector_.Add(report)) {
                on_result_(*result);
            }
        }
        count = page->reports.size();
        after_ = std::max(after_, page->cursor);
        return true;
    }

    bool UpdateCommand() {
        for (;;) {
            CommandFilter filter;
            filter.after = sequence_;
            filter.limit = kPageLimit;
            const std::optional<CommandPage> page = agent_.ListCommands(filter, request_.GetTick());
            if (!page) {
                return false;
            }
            for (const Command& changed : page->commands) {
                if (changed.id == command_.id) {
                    command_ = changed;
                }
            }
            if (page->commands.empty() || page->sequence <= sequence_) {
                return true;
            }
            sequence_ = page->sequence;
        }
    }

    // The final word, once all reports before it have been taken.
    std::optional<FollowOutcome> Outcome(bool drained) const {
        if (collector_.Complete()) {
            return FollowOutcome::kComplete;
        }
        if (collector_.Refused() || (drained && command_.state == CommandState::kRefused)) {
            return FollowOutcome::kRefused;
        }
        if (collector_.Interrupted() || (drained && command_.state == CommandState::kInterrupted)) {
            return FollowOutcome::kInterrupted;
        }
        if (drained) {
            return FollowOutcome::kComplete;
        }
        return std::nullopt;
    }

    void CheckThatTheStoreIsTheSame() {
        const AgentStatus status = agent_.GetStatus();
        if (status.last_cursor < after_ || status.last_sequence < command_.sequence) {
            throw AgentUnavailable(
                "the agent came back with another store, which does not know the policy; see its log");
        }
    }

    AgentClient& agent_;
    RetryingRequest& request_;
    ResultCollector& collector_;
    Command& command_;
    uint64_t after_;
    uint64_t sequence_;
    const std::function<void(const RunResult&)>& on_result_;
};

}  // namespace

FollowOutcome FollowCommand(AgentClient& agent, RetryingRequest& patience, ResultCollector& collector, Command& command,
                            uint64_t after, const std::function<void(const RunResult&)>& on_result) {
    return Follower(agent, patience, collector, command, after, on_result).Run();
}

std::optional<seconds> DefaultWait(const qxppolicy::PackedPolicy& policy) {
    uint32_t longest = 0;
    for (const qxppolicy::PackedScript& script : policy.scripts) {
        if (script.timeout == 0) {
            return std::nullopt;
        }
        longest = std::max(longest, script.timeout);
    }
    return seconds(longest) + kGrace;
}

}  // namespace qxpctl
