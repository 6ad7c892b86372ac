#include "ctl/commands/run_view.h"

#include <algorithm>

#include "ctl/terminal/json.h"
#include "ctl/terminal/text.h"

namespace qxpctl {

namespace {

const char* OutcomeName(FollowOutcome outcome, bool all_succeeded) {
    switch (outcome) {
        case FollowOutcome::kComplete:
            return all_succeeded ? "succeeded" : "failed";
        case FollowOutcome::kRefused:
            return "refused";
        case FollowOutcome::kInterrupted:
            return "interrupted";
        case FollowOutcome::kTimedOut:
            return "wait timed out";
        case FollowOutcome::kGivenUp:
            break;
    }
    return "given up";
}

}  // namespace

RunState StateOf(const RunResult* result, FollowOutcome outcome) {
    if (result && result->succeeded) {
        return {"succeeded", Color::kGreen};
    }
    if (result) {
        return result->timed_out ? RunState{"timed out", Color::kRed} : RunState{"failed", Color::kRed};
    }
    switch (outcome) {
        case FollowOutcome::kComplete:
            return {"not run", Color::kRed};
        case FollowOutcome::kRefused:
            return {"refused", Color::kRed};
        case FollowOutcome::kInterrupted:
            return {"interrupted", Color::kRed};
        case FollowOutcome::kTimedOut:
        case FollowOutcome::kGivenUp:
            break;
    }
    return {"no result yet", Color::kYellow};
}

std::string ReasonOf(const Command& command, const ResultCollector& collector) {
    return command.reason.empty() ? collector.InterruptionReason() : command.reason;
}

std::string RunOutput(const RunResult& result, bool heading, const Stream& output) {
    std::string text = output.Untrusted(result.output);
    if (!heading) {
        return text;
    }
    if (!text.empty() && text.back() != '\n') {
        text += '\n';
    }
    return output.Paint(Color::kBold, "==> " + OneLine(result.script_id) + " <==") + "\n" + text;
}

std::string RunSummary(const ResultCollector& collector, FollowOutcome outcome, const Stream& stream) {
    size_t succeeded = 0;
    std::string text;
    for (const std::string& id : collector.ScriptIds()) {
        const RunResult* const result = collector.Find(id);
        const RunState state = StateOf(result, outcome);
        text += OneLine(id) + ": " + stream.Paint(state.color, state.name);
        if (result && !result->timed_out) {
            text += " in " + OneLine(result->seconds) + " s";
        }
        text += "\n";
        succeeded += result && result->succeeded ? 1U : 0U;
    }
    const size_t total = collector.ScriptIds().size();
    return text +
           stream.Paint(Color::kBold, std::to_string(succeeded) + " of " + std::to_string(total) +
                                          (total == 1 ? " script" : " scripts") + " succeeded") +
           "\n";
}

std::string RunJson(const Command& command, const ResultCollector& collector, FollowOutcome outcome) {
    const std::string reason = ReasonOf(command, collector);
    Json document = {{"id", command.id},
                     {"outcome", OutcomeName(outcome, collector.AllSucceeded())},
                     {"reason", reason.empty() ? Json() : Json(reason)},
                     {"scripts", Json::array()}};
    for (const std::string& id : collector.ScriptIds()) {
        const RunResult* const result = collector.Find(id);
        Json script = {{"scriptid", id}, {"state", StateOf(result, outcome).name}};
        if (result) {
            script["seconds"] = result->seconds;
            script["started"] = result->start_time;
            script["ended"] = result->end_time;
            script["file"] = result->file;
            script["output"] = result->output;
        }
        document["scripts"].push_back(std::move(script));
    }
    return ToLine(document);
}

}  // namespace qxpctl
