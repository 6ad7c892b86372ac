#include "ctl/commands/run_view.h"

#include <array>

#include "ctl/terminal/json.h"
#include "ctl/terminal/text.h"

namespace qxpctl {

namespace {

struct OutcomeText {
    ExitCode code;
    const char* command;
    const char* script;  // one without a result
};

const OutcomeText& TextOf(FollowOutcome outcome) {
    // In the order of FollowOutcome. A complete command whose scripts all succeeded is not looked up.
    static constexpr std::array<OutcomeText, 5> kTexts = {{
        {ExitCode::kNegative, "failed", "not run"},
        {ExitCode::kNegative, "refused", "refused"},
        {ExitCode::kNegative, "interrupted", "interrupted"},
        {ExitCode::kWaitTimedOut, "wait timed out", "no result yet"},
        {ExitCode::kInterrupted, "given up", "no result yet"},
    }};
    return kTexts.at(static_cast<size_t>(outcome));
}

bool Succeeded(const ResultCollector& collector, FollowOutcome outcome) {
    return outcome == FollowOutcome::kComplete && collector.AllSucceeded();
}

const char* RunStateName(const RunResult* result, FollowOutcome outcome) {
    if (result == nullptr) {
        return TextOf(outcome).script;
    }
    return result->succeeded ? "succeeded" : result->timed_out ? "timed out" : "failed";
}

}  // namespace

ExitCode ExitCodeOf(const ResultCollector& collector, FollowOutcome outcome) {
    return Succeeded(collector, outcome) ? ExitCode::kSuccess : TextOf(outcome).code;
}

Color StateColor(CommandState state) {
    if (state == CommandState::kReported) {
        return Color::kGreen;
    }
    return IsFinal(state) ? Color::kRed : Color::kYellow;
}

std::string StateText(const RunResult* result, FollowOutcome outcome, const Stream& stream) {
    const bool waiting = outcome == FollowOutcome::kTimedOut || outcome == FollowOutcome::kGivenUp;
    const bool succeeded = result != nullptr && result->succeeded;
    const Color color = succeeded ? Color::kGreen : result == nullptr && waiting ? Color::kYellow : Color::kRed;
    std::string text = stream.Paint(color, RunStateName(result, outcome));
    if (result != nullptr && !result->timed_out) {
        text += fmt::format(" in {} s", OneLine(result->seconds));
    }
    return text;
}

std::string ReasonOf(const Command& command, const ResultCollector& collector) {
    return command.reason.empty() ? collector.InterruptionReason() : command.reason;
}

std::string RunHeading(const RunResult& result, const Stream& output) {
    return output.Paint(Color::kBold, fmt::format("==> {} <==", OneLine(result.script_id)));
}

std::string RunOutput(const RunResult& result, bool heading, const Stream& output) {
    std::string text = output.Untrusted(result.output);
    if (!heading) {
        return text;
    }
    const bool open_end = !text.empty() && text.back() != '\n';
    return fmt::format("{}\n{}{}", RunHeading(result, output), text, open_end ? "\n" : "");
}

std::string RunSummary(const ResultCollector& collector, FollowOutcome outcome, const Stream& stream) {
    size_t succeeded = 0;
    std::string text;
    for (const std::string& id : collector.ScriptIds()) {
        const RunResult* const result = collector.Find(id);
        text += fmt::format("{}: {}\n", OneLine(id), StateText(result, outcome, stream));
        succeeded += result != nullptr && result->succeeded ? 1U : 0U;
    }
    const std::string total = Count(collector.ScriptIds().size(), "script");
    return text + stream.Paint(Color::kBold, fmt::format("{} of {} succeeded", succeeded, total)) + "\n";
}

std::string RunJson(const Command& command, const ResultCollector& collector, FollowOutcome outcome) {
    const std::string reason = ReasonOf(command, collector);
    Json document = {{"id", command.id},
                     {"outcome", Succeeded(collector, outcome) ? "succeeded" : TextOf(outcome).command},
                     {"reason", reason.empty() ? Json() : Json(reason)},
                     {"scripts", Json::array()}};
    for (const std::string& id : collector.ScriptIds()) {
        const RunResult* const result = collector.Find(id);
        Json script = {{"scriptid", id}, {"state", RunStateName(result, outcome)}};
        if (result != nullptr) {
            script.update({{"seconds", result->seconds},
                           {"started", result->start_time},
                           {"ended", result->end_time},
                           {"file", result->file},
                           {"output", result->output}});
        }
        document["scripts"].push_back(std::move(script));
    }
    return ToLine(document);
}

}  // namespace qxpctl
