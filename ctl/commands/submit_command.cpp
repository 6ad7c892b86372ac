#include "ctl/client/agent_client.h"
#include "ctl/client/agent_socket.h"
#include "ctl/commands/commands.h"
#include "ctl/commands/ready_policy.h"
#include "ctl/terminal/progress.h"

namespace qxpctl {

namespace {

constexpr const char* kFooter =
    R"(Prints the ID under which the results come back; whether the agent has taken the policy or knew it already, and its state,
go to the standard error. The same policy may be sent again: it is run once. What the plugin makes of the scripts in it
is for the reports to tell ('qxpctl show'), or beforehand for 'qxpctl verify'.

Examples:
  qxpctl submit policy.json
  qxpctl pack --key ops.key.pem disk-check.sh | qxpctl submit -
  id=$(qxpctl submit policy.json) && qxpctl watch "$id" && qxpctl show "$id"

Exit codes: 0 the agent has the policy; 1 the agent or the plugin refused it; 2 unusable input, or the agent knows another
policy under this ID; 3 the agent cannot be reached or takes nothing; 4 the agent has it, but the plugin did not answer in
time.)";

ExitCode Submit(const std::string& path, const Console& console, const CommonOptions& common) {
    const ReadyPolicy policy = ReadReadyPolicy(path, PolicyRoad::kCommand);
    const AgentClient agent(FindSocket(common.socket));
    Spinner spinner(console);
    const auto [taken, command] = agent
                                      .Submit(policy.document,
                                              [&spinner] {
                                                  spinner.Tick("sending");
                                                  return true;
                                              })
                                      .value();
    spinner.Clear();
    if (common.json) {
        Json result = command.document;
        result["taken"] = taken;
        console.Print(ToLine(result));
    } else {
        console.Print(console.Output().Untrusted(command.id) + "\n");
        console.Remark("{}, {}{}{}", taken ? "taken" : "known already", StateName(command.state),
                       command.reason.empty() ? "" : ": ", command.reason);
    }
    return command.state == CommandState::kRefused ? ExitCode::kNegative : ExitCode::kSuccess;
}

}  // namespace

void AddSubmitCommand(const CommandSetup& program) {
    const auto [command, policy] =
        AddSubCommand(program, "submit", "Send a policy to the agent of this machine", kFooter, Submit);
    command.Argument("POLICY", *policy, "The policy document; '-' is the standard input").Required();
    AddAgentOptions(command);
}

}  // namespace qxpctl
