#include <algorithm>

#include "ctl/client/agent_socket.h"
#include "ctl/client/follow_command.h"
#include "ctl/commands/commands.h"
#include "ctl/commands/pack_options.h"
#include "ctl/commands/run_view.h"
#include "ctl/terminal/progress.h"
#include "ctl/terminal/text.h"
#include "policy/rules.h"

namespace qxpctl {

namespace {

using qxppolicy::HandlingOf;
using qxppolicy::PackedPolicy;
using qxppolicy::PackedScript;
using qxppolicy::TypeHandling;

struct RunOptions {
    PackOptions pack;
    std::string wait;
    bool keep = false;
};

constexpr const char* kFooter =
    R"(Prints the output of each script as its result arrives; with several scripts, under a heading each. A summary follows on
the standard error. Control characters in an output are shown escaped on a terminal and left alone in a pipe.

With --command RunScriptFile (or RunScriptProcess) the plugin writes the results to files on the agent's machine, which
the agent takes into its store; they are shown in the same way.

When the agent goes away during the wait, as for a restart, run waits for it to come back and goes on. A policy that the
agent knows already, under the same ID and with the same text, is not run again: its results are shown.

Examples:
  qxpctl run --key ops.key.pem disk-check.sh
  qxpctl run --key ops.key.pem 'disk-check.sh,check=DISK CHECKED' collect-logs,id=logs
  qxpctl run --key ops.key.pem --wait 300 --json nightly/*.sh | jq -r '.scripts[] | select(.state != "succeeded")'

Exit codes: 0 every run succeeded; 1 a run failed, or the policy was refused or interrupted; 2 wrong options or unusable
input, nothing was sent; 3 the agent cannot be reached or takes nothing; 4 the wait ended first; 130 Ctrl-C. After 4 and
130 the scripts go on.)";

// The plugin looks at its runs every few seconds, and a report has its way to go.
constexpr std::chrono::seconds kGrace{60};

// A script that the plugin drops, or takes and never runs, has no result to wait for.
void CheckThatAllRun(const PackedPolicy& policy) {
    for (const PackedScript& script : policy.scripts) {
        const TypeHandling handling = HandlingOf(script.type);
        if (handling != TypeHandling::kShell && handling != TypeHandling::kProgram) {
            throw BadInput("the plugin runs no scripts of the type '{}' ({}); run takes sh and exe", script.type,
                           script.file);
        }
    }
}

std::vector<std::string> ScriptIdsOf(const PackedPolicy& policy) {
    std::vector<std::string> ids;
    for (const PackedScript& script : policy.scripts) {
        ids.push_back(script.id);
    }
    return ids;
}

// A policy on its way from the agent's admission check to the exit code.
class Runner {
public:
    Runner(const PackedPolicy& policy, const Console& console, const CommonOptions& common, bool acknowledge,
           std::optional<std::chrono::seconds> limit)
        : policy_(policy),
          console_(console),
          json_(common.json),
          acknowledge_(acknowledge),
          agent_(FindSocket(common.socket)),
          spinner_(console),
          collector_(policy.id, ScriptIdsOf(policy)),
          request_(console, limit, [this] { return Tick(); }) {
        request_.BeforeRemark([this] { spinner_.Clear(); });
    }

    ExitCode Run() {
        // From here on reports count, unless the agent knows this very policy already.
        uint64_t after = agent_.GetStatus().last_cursor;
        Submission submission;
        try {
            submission = Submit();
        } catch (const CommandRefused& refusal) {
            submission.command.id = policy_.id;
            submission.command.reason = refusal.Reason();
            return Finish(submission.command, FollowOutcome::kRefused);
        }
        spinner_.Clear();
        if (!submission.taken) {
            after = 0;
            console_.Remark("the agent knew this policy already; these are its results");
        }
        sent_ = true;
        const FollowOutcome outcome = Follow(submission.command, after);
        return Finish(submission.command, outcome);
    }

private:
    bool Tick() {
        spinner_.Tick(sent_ ? fmt::format("waiting for {} of {}", collector_.PendingCount(),
                                          Count(policy_.scripts.size(), "script"))
                            : "sending");
        return !interrupt_.Interrupted();
    }

    Submission Submit() {
        std::optional<Submission> submission;
        const auto send = [&] {
            try {
                submission = agent_.Submit(policy_.document, request_.GetTick());
            } catch (const NotAcknowledged&) {
                submission = {true, agent_.GetCommand(policy_.id).command};
            }
            return submission.has_value();
        };
        RetryingRequest::End end = RetryingRequest::End::kDone;
        try {
            end = send() ? RetryingRequest::End::kDone : RetryingRequest::End::kGivenUp;
        } catch (const AgentAway& error) {
            if (error.GetCause() != AgentAway::Cause::kBroken) {
                throw;
            }
            // The agent may have the policy or not; sent again, it is run once all the same.
            end = request_.Try(send);
        }
        const auto fail = [&](ExitCode code, const char* what) {
            throw Error(code,
                        fmt::format("{}; it may have the policy {} all the same: see 'qxpctl show'", what, policy_.id));
        };
        if (end == RetryingRequest::End::kTimedOut) {
            fail(ExitCode::kAgentUnavailable, "the agent went away while the policy was being sent");
        }
        if (end == RetryingRequest::End::kGivenUp) {
            fail(ExitCode::kInterrupted, "interrupted while the policy was being sent to the agent");
        }
        return std::move(*submission);
    }

    FollowOutcome Follow(Command& command, uint64_t after) {
        const auto show = [this](const RunResult& result) {
            spinner_.Clear();
            if (!json_) {
                console_.Print(RunOutput(result, policy_.scripts.size() > 1, console_.Output()));
            }
        };
        try {
            return FollowCommand(agent_, request_, collector_, command, after, show);
        } catch (const AgentUnavailable& error) {
            throw AgentUnavailable("policy {} was sent, but then: {}", policy_.id, error.what());
        }
    }

    ExitCode Finish(const Command& command, FollowOutcome outcome) {
        spinner_.Clear();
        if (json_) {
            console_.Print(RunJson(command, collector_, outcome));
        } else {
            static_cast<void>(console_.Remarks().Write(RunSummary(collector_, outcome, console_.Remarks())));
        }
        Acknowledge();
        Explain(outcome, ReasonOf(command, collector_));
        return ExitCodeOf(collector_, outcome);
    }

    // What has been shown has arrived. Nothing is lost when the agent cannot be told.
    void Acknowledge() const {
        if (!acknowledge_ || collector_.Cursors().empty()) {
            return;
        }
        try {
            agent_.Acknowledge(collector_.Cursors());
        } catch (const Error& error) {
            console_.Warn(fmt::format("the reports stay unacknowledged: {}", error.what()));
        }
    }

    void Explain(FollowOutcome outcome, const std::string& reason) const {
        switch (outcome) {
            case FollowOutcome::kRefused:
                console_.Remark("the policy {} was refused: {}", policy_.id,
                                reason.empty()
                                    ? "the plugin trusts another key, or too many scripts are in progress; its "
                                      "log tells which, and 'qxpctl verify' checks the key"
                                    : reason);
                break;
            case FollowOutcome::kInterrupted:
                console_.Remark("the policy {} was interrupted: {}", policy_.id,
                                reason.empty() ? "the agent ended before its results were there" : reason);
                break;
            case FollowOutcome::kTimedOut:
                console_.Remark("the wait is over{} look later with: qxpctl show {}",
                                request_.IsAway() ? ", and the agent is away:" : ": the scripts go on;",
                                ShellWord(policy_.id));
                break;
            case FollowOutcome::kGivenUp:
                console_.Remark("interrupted: the scripts go on; look later with: qxpctl show {}",
                                ShellWord(policy_.id));
                break;
            case FollowOutcome::kComplete:
                break;
        }
    }

    const PackedPolicy& policy_;
    const Console& console_;
    const bool json_;
    const bool acknowledge_;
    const InterruptGuard interrupt_;
    const AgentClient agent_;
    Spinner spinner_;
    ResultCollector collector_;
    RetryingRequest request_;
    bool sent_ = false;
};

// How long to wait: not set when a script may run for ever and the operator names no time.
std::optional<std::chrono::seconds> WaitLimit(const std::string& option, const PackedPolicy& policy) {
    if (!option.empty()) {
        return ParseWait(option);
    }
    uint32_t longest = 0;
    for (const PackedScript& script : policy.scripts) {
        if (script.timeout == 0) {
            return std::nullopt;
        }
        longest = std::max(longest, script.timeout);
    }
    return std::chrono::seconds(longest) + kGrace;
}

ExitCode PackAndRun(const RunOptions& options, const Console& console, const CommonOptions& common) {
    const PackedPolicy policy = Pack(options.pack);
    CheckThatAllRun(policy);
    const std::optional<std::chrono::seconds> limit = WaitLimit(options.wait, policy);
    WarnOfOpenKeyFile(options.pack.key_file, console);
    return Runner(policy, console, common, !options.keep, limit).Run();
}

}  // namespace

void AddRunCommand(const CommandSetup& program) {
    const auto [command, options] =
        AddSubCommand(program, "run", "Sign scripts, have the agent run them, show the results",
                      fmt::format("{}\n\n{}", kScriptArgumentHelp, kFooter), PackAndRun);
    AddPackOptions(command, options->pack);
    command.Value("--wait", "SECONDS", options->wait,
                  "How long to wait for the results [a minute longer than\n"
                  "the longest time-out when every script has one, else\n"
                  "for as long as it takes]");
    command.Flag("--no-acknowledge", options->keep, "Leave the reports unacknowledged, for another reader");
    AddAgentOptions(command);
}

}  // namespace qxpctl
