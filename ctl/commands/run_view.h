#pragma once

#include <string>

#include "ctl/client/follow_command.h"
#include "ctl/client/results.h"
#include "ctl/terminal/console.h"
#include "ctl/terminal/error.h"

// What run, show and watch have to show of a command and its results.

namespace qxpctl {

Color StateColor(CommandState state);

/// The line above the output of a script.
std::string RunHeading(const RunResult& result, const Stream& output);

/// The output of one run, for the standard output: as it is for a pipe, escaped for a terminal, and with a heading when
/// the policy holds several scripts.
std::string RunOutput(const RunResult& result, bool heading, const Stream& output);

ExitCode ExitCodeOf(const ResultCollector& collector, FollowOutcome outcome);

/// A line for each script and one for the whole, for people.
std::string RunSummary(const ResultCollector& collector, FollowOutcome outcome, const Stream& stream);

/// The same and the outputs, for programs.
std::string RunJson(const Command& command, const ResultCollector& collector, FollowOutcome outcome);

/// Reason why a command was refused or interrupted, as far as anybody has given one; may be empty.
std::string ReasonOf(const Command& command, const ResultCollector& collector);

/// The state of one run in a word, painted; with a result, how long it took.
/// @param result  null when there is none.
/// @param outcome  of the command, for a run without a result.
std::string StateText(const RunResult* result, FollowOutcome outcome, const Stream& stream);

}  // namespace qxpctl
