#pragma once

#include <string>

#include "ctl/client/follow_command.h"
#include "ctl/client/results.h"
#include "ctl/terminal/console.h"

namespace qxpctl {

/// The output of one run, for the standard output: as it is for a pipe, escaped for a terminal, and with a heading when
/// the policy holds several scripts.
std::string RunOutput(const RunResult& result, bool heading, const Stream& output);

/// A line for each script and one for the whole, for people.
std::string RunSummary(const ResultCollector& collector, FollowOutcome outcome, const Stream& stream);

/// The same and the outputs, for programs.
std::string RunJson(const Command& command, const ResultCollector& collector, FollowOutcome outcome);

/// Why a command was refused or interrupted, as far as anybody has said; may be empty.
std::string ReasonOf(const Command& command, const ResultCollector& collector);

/// The state of one run in a word, for people and programs.
struct RunState {
    const char* name;
    Color color;
};
/// @param result  null when there is none.
RunState StateOf(const RunResult* result, FollowOutcome outcome);

}  // namespace qxpctl
