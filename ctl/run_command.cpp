#include <memory>

#include "ctl/agent_client.h"
#include "ctl/commands.h"
#include "ctl/interrupt.h"
#include "ctl/json.h"
#include "ctl/pack_options.h"
#include "ctl/run_view.h"
#include "ctl/script_type.h"
#include "ctl/spinner.h"
#include "ctl/text.h"
#include "ctl/wait_for_results.h"

namespace qxpctl {

namespace {

struct RunOptions {
    PackOptions pack;
    std::string wait;
};

constexpr const char* kFooter =
    R"(Prints the output of each script as its result arrives; with several scripts, under a heading each. A summary follows on
the standard error. Control characters in an output are shown escaped on a terminal and left alone in a pipe.

With --command RunScriptFile (or RunScriptProcess) the results become files on the agent's machine: run then says where,
and does not wait.

Examples:
  qxpctl run --key ops.key.pem disk-check.sh
  qxpctl run --key ops.key.pem 'disk-check.sh,check=DISK CHECKED' collect-logs,id=logs
  qxpctl run --key ops.key.pem --wait 300 --json nightly/*.sh | jq -r '.scripts[] | select(.state != "succeeded")'

Exit codes: 0 every run succeeded; 1 a run failed, or the policy was refused; 2 wrong options or unusable input, nothing
was sent; 3 the agent cannot be reached; 4 the wait ended first; 130 Ctrl-C. After 4 and 130 the scripts go on.)";

// A script that the plugin drops, or takes and never runs, has no result to wait for.
void CheckThatAllRun(const Policy& policy) {
    for (const PackedScript& script : policy.scripts) {
        const TypeHandling handling = HandlingOf(script.type);
        if (handling != TypeHandling::Shell && handling != TypeHandling::Program)
            throw BadInput("the plugin runs no scripts of the type '" + script.type + "' (" + script.file +
                           "); run takes sh and exe");
    }
}

std::string HowToLookLater(const std::string& policy_id, const std::string& socket) {
    return "the scripts go on; look later with: curl --get --unix-socket " + ShellWord(socket) + " --data-urlencode " +
           ShellWord("id=" + policy_id) + " http://agent/v1/reports";
}

std::string Waiting(const ResultCollector& collector) {
    const size_t total = collector.ScriptIds().size();
    return "waiting for " + std::to_string(collector.PendingCount()) + " of " + std::to_string(total) +
           (total == 1 ? " script" : " scripts");
}

ExitCode ExitCodeOf(WaitOutcome outcome, bool all_succeeded) {
    switch (outcome) {
        case WaitOutcome::Complete:
            return all_succeeded ? ExitCode::Success : ExitCode::Negative;
        case WaitOutcome::Refused:
            return ExitCode::Negative;
        case WaitOutcome::TimedOut:
            return ExitCode::WaitTimedOut;
        case WaitOutcome::GivenUp:
            break;
    }
    return ExitCode::Interrupted;
}

// One run of the command, from the packed policy to the exit code.
class Runner {
public:
    Runner(const Policy& policy, const Console& console, const CommonOptions& common)
        : policy_(policy), console_(console), json_(common.json), agent_(FindSocket(common.socket)) {}

    ExitCode Run(std::optional<std::chrono::seconds> limit) {
        // From here on reports count: an older policy may have had the same ID.
        const AgentStatus status = agent_.GetStatus();
        Submit();
        return policy_.command == kRunNormal ? Follow(status.last_cursor, limit) : PointAtFiles(status);
    }

private:
    void Submit() {
        Spinner spinner(console_);
        agent_.Submit(policy_.document, [&spinner] {
            spinner.Tick("sending");
            return true;
        });
    }

    ExitCode PointAtFiles(const AgentStatus& status) {
        if (json_) {
            console_.Print(
                ToLine({{"id", policy_.id}, {"outcome", "submitted"}, {"result_directory", status.result_directory}}));
        } else {
            console_.Print(console_.Output().Untrusted(policy_.id) + "\n");
            console_.Remark("submitted; the results will be files " + status.result_directory + "/" + policy_.id +
                            "*.json on the agent's machine");
        }
        return ExitCode::Success;
    }

    ExitCode Follow(uint64_t after, std::optional<std::chrono::seconds> limit) {
        ResultCollector collector(policy_);
        const InterruptGuard interrupt;
        Spinner spinner(console_);
        const auto tick = [&] {
            spinner.Tick(Waiting(collector));
            return !interrupt.Interrupted();
        };
        const auto show = [&](const RunResult& result) {
            spinner.Clear();
            if (!json_)
                console_.Print(RunOutput(result, policy_.scripts.size() > 1, console_.Output()));
        };
        const WaitOutcome outcome = WaitOrSayHow(collector, after, limit, tick, show);
        spinner.Clear();
        if (json_)
            console_.Print(RunJson(policy_.id, collector, outcome));
        else
            static_cast<void>(console_.Remarks().Write(RunSummary(collector, outcome, console_.Remarks())));
        Explain(outcome);
        return ExitCodeOf(outcome, collector.AllSucceeded());
    }

    WaitOutcome WaitOrSayHow(ResultCollector& collector, uint64_t after, std::optional<std::chrono::seconds> limit,
                             const Tick& tick, const std::function<void(const RunResult&)>& show) {
        try {
            return WaitForResults(agent_, collector, policy_.id, after, limit, tick, show);
        } catch (const AgentUnavailable& error) {
            throw AgentUnavailable("policy " + policy_.id + " was sent, but then: " + error.what());
        }
    }

    void Explain(WaitOutcome outcome) const {
        if (outcome == WaitOutcome::Refused)
            console_.Remark("the plugin refused the policy " + policy_.id +
                            ": it trusts another key, or too many scripts are in progress; its log tells which, and "
                            "'qxpctl verify' checks the key");
        if (outcome == WaitOutcome::TimedOut)
            console_.Remark("the wait is over: " + HowToLookLater(policy_.id, agent_.SocketPath()));
        if (outcome == WaitOutcome::GivenUp)
            console_.Remark("interrupted: " + HowToLookLater(policy_.id, agent_.SocketPath()));
    }

    const Policy& policy_;
    const Console& console_;
    const bool json_;
    AgentClient agent_;
};

std::optional<std::chrono::seconds> WaitLimit(const std::string& option, const Policy& policy) {
    if (option.empty())
        return DefaultWait(policy);
    const std::optional<uint32_t> seconds = ParseNumber(option, kMaxTimeoutSeconds);
    if (!seconds)
        throw BadInput("--wait takes a whole number of seconds from 0 to " + std::to_string(kMaxTimeoutSeconds) +
                       ", not '" + option + "'");
    return std::chrono::seconds(*seconds);
}

ExitCode PackAndRun(const RunOptions& options, const Console& console, const CommonOptions& common) {
    const Policy policy = Pack(options.pack).policy;
    CheckThatAllRun(policy);
    const std::optional<std::chrono::seconds> limit = WaitLimit(options.wait, policy);
    WarnOfOpenKeyFile(options.pack.key_file, console);
    return Runner(policy, console, common).Run(limit);
}

}  // namespace

void AddRunCommand(CLI::App& program, Invocation& invocation) {
    const auto options = std::make_shared<RunOptions>();
    CLI::App* const command = program.add_subcommand("run", "Sign scripts, have the agent run them, show the results");
    AddPackOptions(*command, options->pack);
    command
        ->add_option("--wait", options->wait,
                     "How long to wait for the results [a minute longer than\n"
                     "the longest time-out when every script has one, else\n"
                     "for as long as it takes]")
        ->type_name("SECONDS");
    AddSocketOption(*command, invocation);
    AddJsonOption(*command, invocation);
    command->footer(std::string(kScriptArgumentHelp) + "\n\n" + kFooter);
    command->callback([options, &invocation] {
        invocation.action = [options](const Console& console, const CommonOptions& common) {
            return PackAndRun(*options, console, common);
        };
    });
}

}  // namespace qxpctl
