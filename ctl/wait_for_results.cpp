#include "ctl/wait_for_results.h"

#include <algorithm>
#include <thread>

namespace qxpctl {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::seconds;

// The plugin looks at its runs every few seconds, and a report has its way to go.
constexpr seconds kGrace{60};
// An agent that answers a poll at once with nothing is not asked more often than this.
constexpr std::chrono::milliseconds kMinPollInterval{250};

seconds NextPoll(std::optional<seconds> limit, Clock::time_point start) {
    if (!limit)
        return AgentClient::kMaxPoll;
    const auto left = *limit - (Clock::now() - start);
    return std::clamp(std::chrono::ceil<seconds>(left), seconds(0), AgentClient::kMaxPoll);
}

}  // namespace

WaitOutcome WaitForResults(AgentClient& agent, ResultCollector& collector, const std::string& policy_id, uint64_t after,
                           std::optional<seconds> limit, const Tick& tick,
                           const std::function<void(const RunResult&)>& on_result) {
    const Clock::time_point start = Clock::now();
    for (;;) {
        const Clock::time_point asked = Clock::now();
        const seconds wait = NextPoll(limit, start);
        const std::optional<ReportPage> page = agent.GetReports(policy_id, after, wait, tick);
        if (!page)
            return WaitOutcome::GivenUp;
        for (const Report& report : page->reports) {
            for (const RunResult* const result : collector.Add(report.document))
                on_result(*result);
        }
        after = page->cursor;
        if (collector.Complete())
            return WaitOutcome::Complete;
        if (collector.Refused())
            return WaitOutcome::Refused;
        if (limit && Clock::now() - start >= *limit)
            return WaitOutcome::TimedOut;
        if (page->reports.empty())
            std::this_thread::sleep_until(asked + kMinPollInterval);
    }
}

std::optional<seconds> DefaultWait(const Policy& policy) {
    uint32_t longest = 0;
    for (const PackedScript& script : policy.scripts) {
        if (script.timeout == 0)
            return std::nullopt;
        longest = std::max(longest, script.timeout);
    }
    return seconds(longest) + kGrace;
}

}  // namespace qxpctl
