#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "ctl/agent_client.h"
#include "ctl/results.h"

namespace qxpctl {

enum class WaitOutcome { Complete, Refused, TimedOut, GivenUp };

/// Follows the reports of a policy until every script has its result, the policy is refused, or the wait ends.
/// @param after  the cursor from which reports count.
/// @param limit  how long to wait; not set means for as long as it takes.
/// @param tick   false gives up.
/// @param on_result  told of each result as it arrives.
/// Throws what AgentClient throws.
WaitOutcome WaitForResults(AgentClient& agent, ResultCollector& collector, const std::string& policy_id, uint64_t after,
                           std::optional<std::chrono::seconds> limit, const Tick& tick,
                           const std::function<void(const RunResult&)>& on_result);

/// How long to wait when nobody says: as long as the longest time-out and some grace; not set when a script may run for
/// ever.
std::optional<std::chrono::seconds> DefaultWait(const Policy& policy);

}  // namespace qxpctl
