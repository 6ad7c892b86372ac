#pragma once

#include <string>

#include "ctl/console.h"
#include "ctl/results.h"
#include "ctl/wait_for_results.h"

namespace qxpctl {

/// The output of one run, for the standard output: as it is for a pipe, escaped for a terminal, and with a heading when
/// the policy holds several scripts.
std::string RunOutput(const RunResult& result, bool heading, const Stream& output);

/// A line for each script and one for the whole, for people.
std::string RunSummary(const ResultCollector& collector, WaitOutcome outcome, const Stream& stream);

/// The same and the outputs, for programs.
std::string RunJson(const std::string& policy_id, const ResultCollector& collector, WaitOutcome outcome);

}  // namespace qxpctl
