#include "ctl/client/retrying_request.h"

#include <algorithm>
#include <thread>

#include "base/whole_number.h"
#include "policy/rules.h"

namespace qxpctl {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds kFirstPause{100};
constexpr milliseconds kLongestPause{2000};
constexpr milliseconds kTickInterval{100};
constexpr milliseconds kMinPollInterval{250};

}  // namespace

std::optional<seconds> ParseWait(const std::string& text) {
    if (text.empty()) {
        return std::nullopt;
    }
    const std::optional<uint32_t> number = qxpbase::ParseNumber(text, qxppolicy::kMaxTimeoutSeconds);
    if (!number) {
        throw BadInput("--wait takes a whole number of seconds from 0 to {}, not '{}'", qxppolicy::kMaxTimeoutSeconds,
                       text);
    }
    return seconds(*number);
}

RetryingRequest::RetryingRequest(const Console& console, std::optional<seconds> limit, Tick tick)
    : console_(console),
      tick_(std::move(tick)),
      deadline_(limit ? std::optional(Clock::now() + *limit) : std::nullopt) {
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
        if (!PauseUntil(Clock::now() + pause)) {
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

bool RetryingRequest::PauseAfter(Clock::time_point asked) const {
    return PauseUntil(asked + kMinPollInterval);
}

bool RetryingRequest::PauseUntil(Clock::time_point end) const {
    end = deadline_ ? std::min(end, *deadline_) : end;
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
