#include <memory>

#include "ctl/agent_client.h"
#include "ctl/commands.h"
#include "ctl/files.h"
#include "ctl/json.h"
#include "ctl/policy.h"
#include "ctl/spinner.h"
#include "ctl/text.h"

namespace qxpctl {

namespace {

constexpr const char* kFooter =
    R"(Prints the ID under which the results come back. The agent hands every command to the plugin; what the plugin makes of
the scripts in it is for the reports to tell, or beforehand for 'qxpctl verify'.

Examples:
  qxpctl submit policy.json
  qxpctl pack --key ops.key.pem disk-check.sh | qxpctl submit -
  id=$(qxpctl submit policy.json)
  curl --get --unix-socket "$QXPAGENT_SOCKET" --data-urlencode "id=$id" --data wait=60 http://agent/v1/reports)";

ExitCode Submit(const std::string& policy, const Console& console, const CommonOptions& common) {
    const std::string document = ReadDocument(policy, kMaxPolicyBytes, "policy");
    // Said here, with the file's name, rather than by the agent.
    if (!Json::accept(document))
        throw BadInput((policy == "-" ? "the standard input" : policy) +
                       " is not a JSON document; make a policy with 'qxpctl pack'");
    AgentClient agent(FindSocket(common.socket));
    Spinner spinner(console);
    const std::optional<std::string> id = agent.Submit(document, [&spinner] {
        spinner.Tick("sending");
        return true;
    });
    spinner.Clear();
    if (common.json) {
        const Json result = {{"id", id.value_or("")}, {"delivered", true}};
        console.Print(ToLine(result));
    } else {
        console.Print(console.Output().Untrusted(id.value_or("")) + "\n");
    }
    return ExitCode::Success;
}

}  // namespace

void AddSubmitCommand(CLI::App& program, Invocation& invocation) {
    const auto policy = std::make_shared<std::string>();
    CLI::App* const command = program.add_subcommand("submit", "Send a policy to the agent of this machine");
    command->add_option("POLICY", *policy, "The policy document; '-' is the standard input")->type_name("")->required();
    AddSocketOption(*command, invocation);
    AddJsonOption(*command, invocation);
    command->footer(kFooter);
    command->callback([policy, &invocation] {
        invocation.action = [policy](const Console& console, const CommonOptions& common) {
            return Submit(*policy, console, common);
        };
    });
}

}  // namespace qxpctl
