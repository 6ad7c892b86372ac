#include "base/time_text.h"
#include "ctl/client/agent_client.h"
#include "ctl/commands/commands.h"
#include "ctl/terminal/table.h"

namespace qxpctl {

namespace {

constexpr const char* kFooter = R"(Examples:
  qxpctl status
  qxpctl status --json | jq .reports.pending

Exit codes: 0 the agent says that all is well; 1 it names a problem; 3 it cannot be reached.)";

std::string CommandCounts(const Json& status) {
    const Json* const counts = FindMember(status, "commands");
    std::string text;
    for (const CommandState state : {CommandState::kReceived, CommandState::kDelivered, CommandState::kReported,
                                     CommandState::kRefused, CommandState::kInterrupted}) {
        const uint64_t number = counts ? NumberMember(*counts, StateName(state)) : 0;
        text += (text.empty() ? "" : ", ") + std::to_string(number) + " " + StateName(state);
    }
    return text;
}

std::string ReportCounts(const AgentStatus& status) {
    const Json* const reports = FindMember(status.document, "reports");
    std::string text = std::to_string(reports ? NumberMember(*reports, "stored") : 0) + " stored, " +
                       std::to_string(status.reports_pending) + " pending";
    if (const auto oldest = qxpbase::ParseTime(status.oldest_pending)) {
        text += ", the oldest for " + qxpbase::DurationText(std::chrono::duration_cast<std::chrono::seconds>(
                                          std::chrono::system_clock::now() - *oldest));
    }
    return text;
}

Cell StoreCell(const AgentStatus& status) {
    if (!status.store_fault.empty()) {
        return {"takes nothing: " + status.store_fault, Color::kRed};
    }
    const Json* const store = FindMember(status.document, "store");
    return {SizeText(store ? NumberMember(*store, "bytes") : 0)};
}

std::string AsTable(const AgentStatus& status, const Health& health, const Stream& output) {
    const auto label = [](const char* text) { return Cell{text, Color::kBold}; };
    const bool started = status.plugin_status == qxppolicy::kPluginStarted;
    const auto uptime = std::chrono::seconds(NumberMember(status.document, "uptime_seconds"));
    std::vector<Row> rows = {
        {label("Agent"), {"qxpagent " + status.version + ", up for " + qxpbase::DurationText(uptime)}},
        {label("Health"), health.ok ? Cell{"ok", Color::kGreen} : Cell{"failing", Color::kRed}},
    };
    for (const std::string& problem : health.problems) {
        rows.push_back({{""}, {problem, Color::kRed}});
    }
    rows.push_back({label("Plugin"),
                    {status.plugin_version + (status.plugin_version.empty() ? "" : ", ") +
                         qxppolicy::PluginStateName(status.plugin_status),
                     started ? Color::kPlain : Color::kRed}});
    rows.push_back({label("Commands"), {CommandCounts(status.document)}});
    rows.push_back({label("Scripts"), {std::to_string(NumberMember(status.document, "scripts_waiting")) + " waiting"}});
    rows.push_back({label("Reports"), {ReportCounts(status)}});
    rows.push_back({label("Store"), StoreCell(status)});
    rows.push_back({label("Policy files"), {status.policy_directory}});
    rows.push_back({label("Run-once files"), {status.process_directory}});
    return FormatTable(rows, output);
}

ExitCode ShowStatus(const Console& console, const CommonOptions& common) {
    AgentClient agent(FindSocket(common.socket));
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
    const CommandSetup command = program.SubCommand("status", "Show how the agent, its plugin and its store are doing");
    command.SocketOption();
    command.JsonOption();
    command.Footer(kFooter);
    command.Action(ShowStatus);
}

}  // namespace qxpctl
