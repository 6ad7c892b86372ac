#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "ctl/client/agent_client.h"
#include "ctl/client/agent_socket.h"
#include "ctl/commands/commands.h"
#include "ctl/terminal/progress.h"
#include "ctl/terminal/text.h"
#include "policy/rules.h"

namespace qxpctl {

namespace {

constexpr const char* kFooter =
    R"(Has the plugin run a policy file of its process directory and waits for the end of its scripts. The file is deleted
afterwards, accepted or not. Its name serves as the ID of the results.

Examples:
  qxpctl drop --process nightly.json && qxpctl runonce nightly.json && qxpctl results nightly.json

Exit codes: 0 the policy was accepted; 1 it was not, or there is no such file; 3 the agent cannot be reached;
130 Ctrl-C: the scripts go on.)";

// Where the file is missing, if it is and this user can see so. Looked for beforehand, since the plugin deletes it.
std::string MissingFrom(const AgentClient& agent, const std::string& name) {
    const std::string directory = agent.GetStatus().process_directory;
    struct stat status {};
    const bool missing = !directory.empty() && access(directory.c_str(), R_OK | X_OK) == 0 &&
                         lstat((directory + "/" + name).c_str(), &status) != 0 && errno == ENOENT;
    return missing ? directory : "";
}

ExitCode RunOnce(const std::string& name, const Console& console, const CommonOptions& common) {
    if (const qxppolicy::Fault fault = qxppolicy::ValidateRunOnceName(name)) {
        throw BadInput("the name '{}' {}; name a file of the process directory", name, *fault);
    }
    const AgentClient agent(FindSocket(common.socket));
    const std::string missing_from = MissingFrom(agent, name);
    const InterruptGuard interrupt;
    Spinner spinner(console);
    const std::optional<bool> accepted = agent.RunOnce(name, [&] {
        spinner.Tick("waiting for the scripts to end");
        return !interrupt.Interrupted();
    });
    spinner.Clear();
    if (!accepted) {
        throw Error(ExitCode::kInterrupted, "interrupted; the scripts go on: see 'qxpctl results'");
    }
    if (common.json) {
        console.Print(ToLine({{"name", name}, {"accepted", *accepted}}));
    } else if (*accepted) {
        console.Remark("{} was run; its results: qxpctl results {}", name, ShellWord(name));
    } else if (missing_from.empty()) {
        console.Remark(
            "{} was not accepted: the plugin refuses it, or there is no such file in the process directory; its log "
            "tells which",
            name);
    } else {
        console.Remark("{} was not accepted: there is no such file in {}; put it there with: qxpctl drop --process {}",
                       name, missing_from, ShellWord(name));
    }
    return *accepted ? ExitCode::kSuccess : ExitCode::kNegative;
}

}  // namespace

void AddRunOnceCommand(const CommandSetup& program) {
    const auto [command, name] = AddSubCommand(
        program, "runonce", "Have the plugin run a policy file of its process directory", kFooter, RunOnce);
    command.Argument("NAME", *name, "The file's name, without a directory").Required();
    AddAgentOptions(command);
}

}  // namespace qxpctl
