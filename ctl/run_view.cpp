#include "ctl/run_view.h"

#include <algorithm>

#include "ctl/json.h"
#include "ctl/text.h"

namespace qxpctl {

namespace {

struct State {
    const char* name;
    Color color;
};

State StateOf(const RunResult* result, WaitOutcome outcome) {
    if (!result && outcome == WaitOutcome::Refused)
        return {"refused", Color::Red};
    if (!result)
        return {"no result yet", Color::Yellow};
    if (result->succeeded)
        return {"succeeded", Color::Green};
    return result->timed_out ? State{"timed out", Color::Red} : State{"failed", Color::Red};
}

const char* OutcomeName(WaitOutcome outcome, bool all_succeeded) {
    switch (outcome) {
        case WaitOutcome::Complete:
            return all_succeeded ? "succeeded" : "failed";
        case WaitOutcome::Refused:
            return "refused";
        case WaitOutcome::TimedOut:
            return "wait timed out";
        case WaitOutcome::GivenUp:
            break;
    }
    return "interrupted";
}

}  // namespace

std::string RunOutput(const RunResult& result, bool heading, const Stream& output) {
    std::string text = output.Untrusted(result.output);
    if (!heading)
        return text;
    if (!text.empty() && text.back() != '\n')
        text += '\n';
    return output.Paint(Color::Bold, "==> " + OneLine(result.script_id) + " <==") + "\n" + text;
}

std::string RunSummary(const ResultCollector& collector, WaitOutcome outcome, const Stream& stream) {
    size_t succeeded = 0;
    std::string text;
    for (const std::string& id : collector.ScriptIds()) {
        const RunResult* const result = collector.Find(id);
        const State state = StateOf(result, outcome);
        text += OneLine(id) + ": " + stream.Paint(state.color, state.name);
        if (result && !result->timed_out)
            text += " in " + OneLine(result->seconds) + " s";
        text += "\n";
        succeeded += result && result->succeeded ? 1U : 0U;
    }
    const size_t total = collector.ScriptIds().size();
    return text +
           stream.Paint(Color::Bold, std::to_string(succeeded) + " of " + std::to_string(total) +
                                         (total == 1 ? " script" : " scripts") + " succeeded") +
           "\n";
}

std::string RunJson(const std::string& policy_id, const ResultCollector& collector, WaitOutcome outcome) {
    Json document = {
        {"id", policy_id}, {"outcome", OutcomeName(outcome, collector.AllSucceeded())}, {"scripts", Json::array()}};
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
