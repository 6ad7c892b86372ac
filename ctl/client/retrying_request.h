#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "ctl/client/agent_client.h"
#include "ctl/terminal/console.h"

namespace qxpctl {

/// How long --wait says to wait; not set for an empty text. Throws BadInput for what is no whole number of seconds.
std::optional<std::chrono::seconds> ParseWait(const std::string& text);

/// Keeps a wait going while the agent is away, as when it is restarted: tries again, with growing pauses, until the
/// request succeeds, the wait ends or the user gives up. Says once on a terminal that the agent is away, and once that
/// it is back. Belongs to one thread.
class RetryingRequest {
public:
    using Clock = std::chrono::steady_clock;
    enum class End { kDone, kTimedOut, kGivenUp };

    /// @param limit  how long in all; not set means for as long as it takes. Counts from here.
    /// @param tick   false gives up.
    RetryingRequest(const Console& console, std::optional<std::chrono::seconds> limit, Tick tick);

    /// Runs a request until it is done. What it throws, other than AgentAway, passes through.
    /// @param request  false when its own tick gave up.
    End Try(const std::function<bool()>& request);

    /// Called before the request is tried again after the agent was away: the place to look whether what answers now
    /// still knows what the request is about. May throw what a request may.
    void OnReturn(std::function<void()> callback) { on_return_ = std::move(callback); }
    /// Told before something is written to the terminal.
    void BeforeRemark(std::function<void()> callback) { before_remark_ = std::move(callback); }

    bool Expired() const { return deadline_ && Clock::now() >= *deadline_; }
    /// Whole seconds that are left, at most the given ones.
    std::chrono::seconds Left(std::chrono::seconds most) const;
    /// True while the last try found no agent.
    bool IsAway() const { return away_; }
    const Tick& GetTick() const { return tick_; }
    /// Waits until a poll may follow one that was asked at this time and brought nothing, so that an agent that answers
    /// at once is not asked without a pause. False when tick gave up.
    bool PauseAfter(Clock::time_point asked) const;

private:
    bool PauseUntil(Clock::time_point end) const;
    void Say(const std::string& text) const;

    const Console& console_;
    const Tick tick_;
    const std::optional<Clock::time_point> deadline_;
    std::function<void()> on_return_;
    std::function<void()> before_remark_;
    bool away_ = false;
};

}  // namespace qxpctl
