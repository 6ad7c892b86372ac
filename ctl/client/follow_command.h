#pragma once

#include <functional>

#include "ctl/client/agent_client.h"
#include "ctl/client/results.h"
#include "ctl/client/retrying_request.h"

namespace qxpctl {

enum class FollowOutcome {
    kComplete,     // every result that there will be is there
    kRefused,      // by the plugin
    kInterrupted,  // the agent ended before all results were there; the rest will never come
    kTimedOut,     // the wait ended first
    kGivenUp,      // the user ended the wait
};

/// Follows a command to its final state, over restarts of the agent.
/// @param command    as it is known; brought up to date.
/// @param after      the cursor from which reports count.
/// @param on_result  told of each result as it arrives.
/// Throws what AgentClient throws but AgentAway, and AgentUnavailable when the agent comes back with a store that does
/// not know the command.
FollowOutcome FollowCommand(const AgentClient& agent, RetryingRequest& request, ResultCollector& collector,
                            Command& command, uint64_t after, const std::function<void(const RunResult&)>& on_result);

}  // namespace qxpctl
