#include "base/time_text.h"
#include "ctl/client/agent_client.h"
#include "ctl/client/agent_socket.h"
#include "ctl/commands/commands.h"
#include "ctl/terminal/text.h"

namespace qxpctl {

namespace {

using qxpbase::DurationText;
using qxpbase::ParseTime;

using std::chrono::seconds;

struct NoOptions {};

constexpr const char* kFooter = R"(Examples:
  qxpctl status
  qxpctl status --json | jq .reports.pending

Exit codes: 0 the agent says that all is well; 1 it names a problem; 3 it cannot be reached.)";

std::string CommandCounts(const Json& counts) {
    std::string text;
    for (const CommandState state : {CommandState::kReceived, CommandState::kDelivered, CommandState::kReported,
                                     CommandState::kRefused, CommandState::kInterrupted}) {
        const char* const name = StateName(state);
        text += fmt::format("{}{} {}", text.empty() ? "" : ", ", NumberMember(counts, name), name);
    }
    return text;
}

std::string ReportCounts(const AgentStatus& status) {
    const uint64_t stored = NumberMember(Member(status.document, "reports"), "stored");
    std::string text = fmt::format("{} stored, {} pending", stored, status.reports_pending);
    if (const auto oldest = ParseTime(status.oldest_pending)) {
        const auto age = std::chrono::duration_cast<seconds>(std::chrono::system_clock::now() - *oldest);
        text += ", the oldest for " + DurationText(age);
    }
    return text;
}

std::string AsTable(const AgentStatus& status, const Health& health, const Stream& output) {
    const auto row = [](const char* label, const std::string& text, Color color = Color::kPlain) {
        return Row{{label, Color::kBold}, {text, color}};
    };
    const std::string uptime = DurationText(seconds(NumberMember(status.document, "uptime_seconds")));
    std::vector<Row> rows = {
        row("Agent", fmt::format("qxpagent {}, up for {}", status.version, uptime)),
        health.ok ? row("Health", "ok", Color::kGreen) : row("Health", "failing", Color::kRed),
    };
    for (const std::string& problem : health.problems) {
        rows.push_back({{""}, {problem, Color::kRed}});
    }
    rows.push_back(row("Plugin",
                       fmt::format("{}{}{}", status.plugin_version, status.plugin_version.empty() ? "" : ", ",
                                   PluginStateName(status.plugin_status)),
                       status.plugin_status == kPluginStarted ? Color::kPlain : Color::kRed));
    rows.push_back(row("Commands", CommandCounts(Member(status.document, "commands"))));
    rows.push_back(row("Scripts", fmt::format("{} waiting", NumberMember(status.document, "scripts_waiting"))));
    rows.push_back(row("Reports", ReportCounts(status)));
    rows.push_back(status.store_fault.empty()
                       ? row("Store", SizeText(NumberMember(Member(status.document, "store"), "bytes")))
                       : row("Store", "takes nothing: " + status.store_fault, Color::kRed));
    rows.push_back(row("Policy files", status.policy_directory));
    rows.push_back(row("Run-once files", status.process_directory));
    return output.Table(rows);
}

ExitCode ShowStatus(const NoOptions& /*options*/, const Console& console, const CommonOptions& common) {
    const AgentClient agent(FindSocket(common.socket));
    const AgentStatus status = agent.GetStatus();
    const Health health = agent.GetHealth();
    if (common.json) {
        Json document = status.document;
        document["health"] = {{"status", health.ok ? "ok" : "failing"}, {"problems", health.problems}};
        console.Print(ToLine(document));
    } else {
        console.Print(AsTable(status, health, console.Output()));
    }
    return health.ok ? ExitCode::kSuccess : ExitCode::kNegative;
}

}  // namespace

void AddStatusCommand(const CommandSetup& program) {
    AddAgentOptions(
        AddSubCommand(program, "status", "Show how the agent, its plugin and its store are doing", kFooter, ShowStatus)
            .command);
}

}  // namespace qxpctl
