#include "ctl/client/retrying_request.h"

#include <algorithm>
#include <thread>

namespace qxpctl {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds kFirstPause{100};
constexpr milliseconds kLongestPause{2000};
constexpr milliseconds kTickInterval{100};

std::optional<RetryingRequest::Clock::time_point> DeadlineAfter(std::optional<seconds> limit) {
    return limit ? std::optional(RetryingRequest::Clock::now() + *limit) : std::nullopt;
}

}  // namespace

RetryingRequest::RetryingRequest(const Console& console, std::optional<seconds> limit, Tick tick)
    : console_(console), tick_(std::move(tick)), deadline_(DeadlineAfter(limit)) {
}

RetryingRequest::End RetryingRequest::Try(const std::function<bool()>& request) {
    for (milliseconds pause = kFirstPause;; pause = std::min(2 * pause, kLongestPause)) {
        try {
            if (away_ && on_return_) {
                on_return_();
            }
            if (!request()) {
                return End::kGivenUp;
            }
            if (away_) {
                Say("the agent is back");
            }
            away_ = false;
            return End::kDone;
        } catch (const AgentAway&) {
            if (!away_) {
                Say("the agent has gone away; waiting for it to come back");
            }
            away_ = true;
        }
        if (Expired()) {
            return End::kTimedOut;
        }
        if (!Pause(pause)) {
            return End::kGivenUp;
        }
    }
}

seconds RetryingRequest::Left(seconds most) const {
    if (!deadline_) {
        return most;
    }
    return std::clamp(std::chrono::ceil<seconds>(*deadline_ - Clock::now()), seconds(0), most);
}

bool RetryingRequest::Pause(milliseconds pause) const {
    Clock::time_point end = Clock::now() + pause;
    if (deadline_) {
        end = std::min(end, *deadline_);
    }
    for (Clock::time_point now = Clock::now(); now < end; now = Clock::now()) {
        if (tick_ && !tick_()) {
            return false;
        }
        std::this_thread::sleep_for(std::min<Clock::duration>(kTickInterval, end - now));
    }
    return !tick_ || tick_();
}

void RetryingRequest::Say(const std::string& text) const {
    if (!console_.Remarks().IsTerminal()) {
        return;
    }
    if (before_remark_) {
        before_remark_();
    }
    console_.Remark(text);
}

}  // namespace qxpctl
