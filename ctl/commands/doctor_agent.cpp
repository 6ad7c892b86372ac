#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>
#include <system_error>

#include "base/errno_text.h"
#include "base/time_text.h"
#include "ctl/client/agent_client.h"
#include "ctl/client/agent_socket.h"
#include "ctl/commands/doctor.h"
#include "ctl/terminal/child_process.h"
#include "ctl/terminal/text.h"

namespace qxpctl {

namespace {

using qxpbase::DurationText;
using qxpbase::ParseTime;

namespace fs = std::filesystem;
using std::chrono::seconds;

constexpr const char* kConfigurationCheck = "configuration";
constexpr const char* kSocketCheck = "socket";
constexpr const char* kAgentCheck = "agent";
constexpr const char* kPluginCheck = "plugin";
constexpr const char* kStoreCheck = "store";
constexpr const char* kReportsCheck = "reports";

constexpr seconds kConfigurationDeadline{30};
// A check is no place to wait for an agent that hangs.
constexpr seconds kAgentDeadline{15};
constexpr seconds kOldReport{86400};
constexpr size_t kMaxMistakes = 20;

// Each line that the agent writes about its configuration is a mistake of its own.
void AddMistakes(const std::string& output, const std::string& advice, Findings& findings) {
    std::istringstream lines(output);
    size_t mistakes = 0;
    for (std::string line; mistakes < kMaxMistakes && std::getline(lines, line);) {
        if (!line.empty()) {
            findings.Fail(kConfigurationCheck, line, advice);
            ++mistakes;
        }
    }
    if (mistakes == 0) {
        findings.Fail(kConfigurationCheck, "the agent does not take it, and does not say why", advice);
    }
}

// False when it is of no use to try to connect.
bool CheckSocketFile(const std::string& socket, Findings& findings) {
    struct stat status {};
    if (lstat(socket.c_str(), &status) != 0 && (errno == ENOENT || errno == ENOTDIR)) {
        findings.Fail(
            kSocketCheck, "there is no socket " + socket,
            "start qxpagent (systemctl start qxpagent; why it does not start: journalctl -u qxpagent), or name "
            "its socket with --socket");
        return false;
    }
    if (access(socket.c_str(), R_OK | W_OK) != 0) {
        const int error = errno;
        findings.Fail(kSocketCheck, fmt::format("no permission to use {}: {}", socket, qxpbase::ErrnoText(error)),
                      WhoMayUse(socket));
        return false;
    }
    if (!S_ISSOCK(status.st_mode)) {
        findings.Fail(kSocketCheck, socket + " is not a socket", "move it away and start qxpagent");
        return false;
    }
    if ((status.st_mode & (S_IROTH | S_IWOTH)) != 0) {
        findings.Fail(kSocketCheck, socket + " can be used by everybody", "chmod o-rw " + ShellWord(socket));
    }
    return true;
}

// A sentence of the agent's, for advice to follow it.
std::string WithoutFullStop(std::string sentence) {
    if (sentence.ends_with('.')) {
        sentence.pop_back();
    }
    return sentence;
}

void CheckThatItIsThisInstallation(const AgentStatus& status, const fs::path& root, Findings& findings) {
    const std::string data = TextMember(status.document, "data_directory");
    std::error_code failure;
    const fs::path real_data = fs::weakly_canonical(data, failure);
    const fs::path relative = real_data.lexically_relative(fs::weakly_canonical(root, failure));
    if (!data.empty() && !failure && (relative.empty() || *relative.begin() == "..")) {
        findings.Warn(kAgentCheck, "the agent on this socket serves another installation, with its data in " + data,
                      "name that one with --root, or this one's socket with --socket");
    }
}

void CheckStatus(const AgentStatus& status, Findings& findings) {
    if (status.version != QXPCTL_VERSION) {
        findings.Warn(kAgentCheck,
                      fmt::format("the agent has version {}, this tool {}", status.version, QXPCTL_VERSION),
                      "restart the agent after an upgrade, and use the tool that came with it");
    }
    if (status.plugin_status != kPluginStarted) {
        findings.Fail(kPluginCheck, "the plugin is " + PluginStateName(status.plugin_status),
                      "see the agent's log, and restart the agent");
    }
    findings.OkUnlessFound(kPluginCheck, "started, version " + status.plugin_version);
    if (!status.store_fault.empty()) {
        findings.Fail(kStoreCheck, "the store takes nothing: " + WithoutFullStop(status.store_fault),
                      "make room on its disk, or see the agent's log");
    }
    findings.OkUnlessFound(kStoreCheck, "takes commands and reports");
    const auto oldest = ParseTime(status.oldest_pending);
    const auto age =
        oldest ? std::chrono::duration_cast<seconds>(std::chrono::system_clock::now() - *oldest) : seconds(0);
    const std::string pending = Count(status.reports_pending, "report") + " pending";
    if (age > kOldReport) {
        findings.Warn(kReportsCheck, fmt::format("{}, the oldest for {}", pending, DurationText(age)),
                      "nobody takes them: check the link to the server, or read them with 'qxpctl results --pending "
                      "--acknowledge'");
    }
    findings.OkUnlessFound(kReportsCheck, pending);
}

}  // namespace

void CheckConfiguration(const fs::path& root, Findings& findings) {
    const std::string program = (root / "bin/qxpagent").string();
    if (access(program.c_str(), X_OK) != 0) {
        findings.Fail(kConfigurationCheck, "it cannot be checked without " + program, "see 'files'");
        return;
    }
    const ChildResult result = RunChild(program, {"--check-config"}, kConfigurationDeadline);
    const std::string advice = fmt::format("mend it; '{} --check-config' tells when it is good", program);
    switch (result.end) {
        case ChildResult::End::kNotStarted:
            findings.Fail(kConfigurationCheck,
                          fmt::format("{} cannot be run: {}", program, qxpbase::ErrnoText(result.code)),
                          "install it again");
            break;
        case ChildResult::End::kTimedOut:
            findings.Fail(kConfigurationCheck,
                          "the agent was not done with it in " + DurationText(kConfigurationDeadline), advice);
            break;
        case ChildResult::End::kKilled:
            findings.Fail(kConfigurationCheck, fmt::format("the agent was killed by signal {} over it", result.code),
                          advice);
            break;
        case ChildResult::End::kExited:
            if (result.code != 0) {
                AddMistakes(result.output, advice, findings);
            }
            break;
    }
    findings.OkUnlessFound(kConfigurationCheck, "the agent can read it");
}

void CheckAgent(const fs::path& root, const std::string& socket, Findings& findings) {
    if (!CheckSocketFile(socket, findings)) {
        return;
    }
    AgentClient agent(socket);
    agent.SetTimeout(kAgentDeadline);
    try {
        const AgentStatus status = agent.GetStatus();
        findings.OkUnlessFound(kSocketCheck, socket + " answers");
        CheckThatItIsThisInstallation(status, root, findings);
        CheckStatus(status, findings);
        for (const std::string& problem : agent.GetHealth().problems) {
            findings.Fail(kAgentCheck, "the agent is failing: " + WithoutFullStop(problem), "see its log");
        }
        findings.OkUnlessFound(kAgentCheck, "qxpagent " + status.version);
    } catch (const AgentAway& error) {
        const bool busy = error.GetCause() == AgentAway::Cause::kBusy;
        findings.Fail(busy ? kAgentCheck : kSocketCheck, error.what(),
                      busy ? "wait, and check again"
                           : "start qxpagent: the socket was left behind by one that has ended, or it hangs");
    } catch (const Error& error) {
        findings.Fail(kAgentCheck, error.what(), "see its log");
    }
}

}  // namespace qxpctl
