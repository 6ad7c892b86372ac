#include <memory>

#include "base/whole_number.h"
#include "ctl/client/agent_client.h"
#include "ctl/client/follow_command.h"
#include "ctl/commands/commands.h"
#include "ctl/commands/pack_options.h"
#include "ctl/commands/run_view.h"
#include "ctl/terminal/interrupt.h"
#include "ctl/terminal/json.h"
#include "ctl/terminal/spinner.h"
#include "ctl/terminal/text.h"
#include "policy/rules.h"

namespace qxpctl {

namespace {

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

// A script that the plugin drops, or takes and never runs, has no result to wait for.
void CheckThatAllRun(const qxppolicy::PackedPolicy& policy) {
    for (const qxppolicy::PackedScript& script : policy.scripts) {
        const qxppolicy::TypeHandling handling = qxppolicy::HandlingOf(script.type);
        if (handling != qxppolicy::TypeHandling::kShell && handling != qxppolicy::TypeHandling::kProgram) {
            throw BadInput("the plugin runs no scripts of the type '" + script.type + "' (" + script.file +
                           "); run takes sh and exe");
        }
    }
}

std::string HowToLookLater(const std::string& policy_id) {
    return "the scripts go on; look later with: qxpctl show " + ShellWord(policy_id);
}

std::string Waiting(const ResultCollector& collector) {
    const size_t total = collector.ScriptIds().size();
    return "waiting for " + std::to_string(collector.PendingCount()) + " of " + std::to_string(total) +
           (total == 1 ? " script" : " scripts");
}

ExitCode ExitCodeOf(FollowOutcome outcome, bool all_succeeded) {
    switch (outcome) {
        case FollowOutcome::kComplete:
            return all_succeeded ? ExitCode::kSuccess : ExitCode::kNegative;
        case FollowOutcome::kRefused:
        case FollowOutcome::kInterrupted:
            return ExitCode::kNegative;
        case FollowOutcome::kTimedOut:
            return ExitCode::kWaitTimedOut;
        case FollowOutcome::kGivenUp:
            break;
    }
    return ExitCode::kInterrupted;
}

std::vector<std::string> ScriptIdsOf(const qxppolicy::PackedPolicy& policy) {
    std::vector<std::string> ids;
    for (const qxppolicy::PackedScript& script : policy.scripts) {
        ids.push_back(script.id);
    }
    return ids;
}

// One run of the command, from the packed policy to the exit code.
class Runner {
public:
    Runner(const qxppolicy::PackedPolicy& policy, const Console& console, const CommonOptions& common, bool acknowledge,
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
    ExitCode Finish(const Command& command, FollowOutcome outcome) {
        spinner_.Clear();
        if (json_) {
            console_.Print(RunJson(command, collector_, outcome));
        } else {
            static_cast<void>(console_.Remarks().Write(RunSummary(collector_, outcome, console_.Remarks())));
        }
        Acknowledge();
        Explain(outcome, ReasonOf(command, collector_));
        return ExitCodeOf(outcome, collector_.AllSucceeded());
    }

    bool Tick() {
        spinner_.Tick(sent_ ? Waiting(collector_) : "sending");
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
            if (error.Why() != AgentAway::Cause::kBroken) {
                throw;
            }
            // The agent may have the policy or not; sent again, it is run once all the same.
            end = request_.Try(send);
        }
        const std::string unsure = "; it may have the policy " + policy_.id + " all the same: see 'qxpctl show'";
        if (end == RetryingRequest::End::kTimedOut) {
            throw AgentUnavailable("the agent went away while the policy was being sent" + unsure);
        }
        if (end == RetryingRequest::End::kGivenUp) {
            throw Error(ExitCode::kInterrupted, "interrupted while the policy was being sent to the agent" + unsure);
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
            throw AgentUnavailable("policy " + policy_.id + " was sent, but then: " + error.what());
        }
    }

    // What has been shown has arrived. Nothing is lost when the agent cannot be told.
    void Acknowledge() {
        if (!acknowledge_ || collector_.Cursors().empty()) {
            return;
        }
        try {
            agent_.Acknowledge(collector_.Cursors());
        } catch (const Error& error) {
            console_.Warn(std::string("the reports stay unacknowledged: ") + error.what());
        }
    }

    void Explain(FollowOutcome outcome, const std::string& reason) const {
        if (outcome == FollowOutcome::kRefused) {
            console_.Remark("the policy " + policy_.id + " was refused: " +
                            (reason.empty() ? "the plugin trusts another key, or too many scripts are in progress; its "
                                              "log tells which, and 'qxpctl verify' checks the key"
                                            : reason));
        }
        if (outcome == FollowOutcome::kInterrupted) {
            console_.Remark("the policy " + policy_.id + " was interrupted: " +
                            (reason.empty() ? "the agent ended before its results were there" : reason));
        }
        if (outcome == FollowOutcome::kTimedOut && request_.IsAway()) {
            console_.Remark("the wait is over, and the agent is away: look later with: qxpctl show " +
                            ShellWord(policy_.id));
        } else if (outcome == FollowOutcome::kTimedOut) {
            console_.Remark("the wait is over: " + HowToLookLater(policy_.id));
        }
        if (outcome == FollowOutcome::kGivenUp) {
            console_.Remark("interrupted: " + HowToLookLater(policy_.id));
        }
    }

    const qxppolicy::PackedPolicy& policy_;
    const Console& console_;
    const bool json_;
    const bool acknowledge_;
    const InterruptGuard interrupt_;
    AgentClient agent_;
    Spinner spinner_;
    ResultCollector collector_;
    RetryingRequest request_;
    bool sent_ = false;
};

std::optional<std::chrono::seconds> WaitLimit(const std::string& option, const qxppolicy::PackedPolicy& policy) {
    if (option.empty()) {
        return DefaultWait(policy);
    }
    const std::optional<uint32_t> seconds = qxpbase::ParseNumber(option, qxppolicy::kMaxTimeoutSeconds);
    if (!seconds) {
        throw BadInput("--wait takes a whole number of seconds from 0 to " +
                       std::to_string(qxppolicy::kMaxTimeoutSeconds) + ", not '" + option + "'");
    }
    return std::chrono::seconds(*seconds);
}

ExitCode PackAndRun(const RunOptions& options, const Console& console, const CommonOptions& common) {
    const qxppolicy::PackedPolicy policy = Pack(options.pack);
    CheckThatAllRun(policy);
    const std::optional<std::chrono::seconds> limit = WaitLimit(options.wait, policy);
    WarnOfOpenKeyFile(options.pack.key_file, console);
    return Runner(policy, console, common, !options.keep, limit).Run();
}

}  // namespace

void AddRunCommand(const CommandSetup& program) {
    const auto options = std::make_shared<RunOptions>();
    const CommandSetup command = program.SubCommand("run", "Sign scripts, have the agent run them, show the results");
    AddPackOptions(command, options->pack);
    command.Value("--wait", "SECONDS", options->wait,
                  "How long to wait for the results [a minute longer than\n"
                  "the longest time-out when every script has one, else\n"
                  "for as long as it takes]");
    command.Flag("--no-acknowledge", options->keep, "Leave the reports unacknowledged, for another reader");
    command.SocketOption();
    command.JsonOption();
    command.Footer(std::string(kScriptArgumentHelp) + "\n\n" + kFooter);
    command.Action([options](const Console& console, const CommonOptions& common) {
        return PackAndRun(*options, console, common);
    });
}

}  // namespace qxpctl
