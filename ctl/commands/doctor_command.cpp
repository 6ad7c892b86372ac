#include <algorithm>
#include <cstdlib>

#include "ctl/client/agent_socket.h"
#include "ctl/commands/commands.h"
#include "ctl/commands/doctor.h"
#include "ctl/terminal/json.h"
#include "ctl/terminal/text.h"

namespace qxpctl {

namespace {

constexpr const char* kFooter =
    R"(Looks at the files and their permissions, the trusted keys, the configuration, the room on the disk, the clock, the
socket, and through it at the agent, its plugin and its store. Prints a line a finding: ok, warn or fail, what was found,
and what to do. Changes nothing. Some things only root can see.

Examples:
  sudo qxpctl doctor
  qxpctl doctor --root /opt/qxpmaint --json | jq -r '.findings[] | select(.level != "ok") | .text'

Exit codes: 0 nothing failed; 1 something did.)";

const char* LevelName(Level level) {
    return level == Level::kOk ? "ok" : level == Level::kWarn ? "warn" : "fail";
}

std::string AsText(const Findings& findings, const Stream& output) {
    std::string text;
    for (const Finding& finding : findings.All()) {
        const std::string name = LevelName(finding.level);
        const Color color = finding.level == Level::kOk     ? Color::kGreen
                            : finding.level == Level::kWarn ? Color::kYellow
                                                            : Color::kRed;
        text += fmt::format("{}{:{}}{}: {}{}\n", output.Paint(color, name), "", 6 - name.size(), finding.check,
                            OneLine(finding.text), finding.advice.empty() ? "" : "; " + OneLine(finding.advice));
    }
    return text;
}

std::string AsJson(const std::string& root, const std::string& socket, const Findings& findings) {
    Json document = {
        {"installation", root}, {"socket", socket}, {"ok", !findings.Any(Level::kFail)}, {"findings", Json::array()}};
    for (const Finding& finding : findings.All()) {
        document["findings"].push_back({{"level", LevelName(finding.level)},
                                        {"check", finding.check},
                                        {"text", finding.text},
                                        {"advice", finding.advice}});
    }
    return ToLine(document);
}

ExitCode Examine(const std::string& root_option, const Console& console, const CommonOptions& common) {
    const std::string root = root_option.empty() ? InstallationRoot() : root_option;
    const bool own_socket = !root_option.empty() && common.socket.empty() && std::getenv("QXPAGENT_SOCKET") == nullptr;
    const std::string socket = own_socket ? SocketOf(root) : FindSocket(common.socket);
    Findings findings;
    CheckFiles(root, findings);
    CheckTrustedKeys(root, findings);
    CheckConfiguration(root, findings);
    CheckData(root, findings);
    CheckClock(root, findings);
    CheckAgent(root, socket, findings);
    console.Print(common.json ? AsJson(root, socket, findings) : AsText(findings, console.Output()));
    return findings.Any(Level::kFail) ? ExitCode::kNegative : ExitCode::kSuccess;
}

}  // namespace

void Findings::OkUnlessFound(const std::string& check, const std::string& text) {
    if (std::none_of(all_.begin(), all_.end(), [&](const Finding& finding) { return finding.check == check; })) {
        all_.push_back({Level::kOk, check, text, {}});
    }
}

bool Findings::Any(Level level) const {
    return std::any_of(all_.begin(), all_.end(), [level](const Finding& finding) { return finding.level == level; });
}

void AddDoctorCommand(const CommandSetup& program) {
    const auto [command, root] = AddSubCommand(
        program, "doctor", "Find out what is wrong with an installation, and what to do about it", kFooter, Examine);
    command.Value("--root", "DIR", *root, "The installation [that of this program]");
    AddAgentOptions(command);
}

}  // namespace qxpctl
