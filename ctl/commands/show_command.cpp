#include "base/time_text.h"
#include "ctl/client/agent_client.h"
#include "ctl/client/agent_socket.h"
#include "ctl/client/results.h"
#include "ctl/commands/commands.h"
#include "ctl/commands/run_view.h"
#include "ctl/terminal/text.h"

namespace qxpctl {

namespace {

using qxpbase::ShortTime;

constexpr const char* kFooter =
    R"(Prints what the agent knows of a command: who sent it and when, its state and the reason, then each script's result and
output. Control characters are shown escaped on a terminal and left alone in a pipe.

Examples:
  qxpctl show 2f1c4f0e-5b7e-4f43-9a55-0d6a6e1f9b1e
  qxpctl show nightly --json | jq -r '.reports[].document.data.result[]?.run_outdata'

Exit codes: 0 the command is known; 2 it is not; 3 the agent cannot be reached.)";

std::string Head(const Command& command, const Stream& output) {
    std::vector<Row> rows;
    const auto add = [&rows](const char* label, const std::string& text, Color color = Color::kPlain) {
        rows.push_back({{label, Color::kBold}, {text, color}});
    };
    add("ID", command.id);
    add("Command", fmt::format("{}, {}", command.command, Count(command.scripts, "script")));
    add("State", StateName(command.state), StateColor(command.state));
    if (!command.reason.empty()) {
        add("Reason", command.reason, StateColor(command.state));
    }
    add("Sent by", fmt::format("{}, received {}", command.submitter, ShortTime(command.received)));
    if (!command.finished.empty()) {
        add("Finished", ShortTime(command.finished));
    }
    for (const std::string& script : command.unreported) {
        add(IsFinal(command.state) ? "No result" : "Waiting", script);
    }
    return output.Table(rows);
}

std::string ResultText(const RunResult& result, const Stream& output) {
    const std::string text = fmt::format("\n{} {}, started {}\n{}", RunHeading(result, output),
                                         StateText(&result, FollowOutcome::kComplete, output),
                                         OneLine(result.start_time), output.Untrusted(result.output));
    return text.back() == '\n' ? text : text + "\n";
}

std::string ReportText(const Report& report, const Stream& output) {
    const ReportContent content = ReadReportContent(report.content);
    std::string text;
    switch (content.kind) {
        case ReportContent::Kind::kResults:
            for (const RunResult& result : content.runs) {
                text += ResultText(result, output);
            }
            return text;
        case ReportContent::Kind::kRefusal:
            text = output.Paint(Color::kRed, "refused by the plugin");
            break;
        case ReportContent::Kind::kInterruption:
            text = output.Paint(Color::kRed, "interrupted") +
                   (content.reason.empty() ? "" : ": " + OneLine(content.reason));
            break;
        case ReportContent::Kind::kUnknown:
            text = fmt::format("of an unknown form, {}; 'qxpctl show --json' shows it", SizeText(report.bytes));
            break;
    }
    return fmt::format("\n{}: {}\n", output.Paint(Color::kBold, fmt::format("report {}", report.cursor)), text);
}

void PrintReports(const std::vector<Report>& reports, const Console& console) {
    for (const Report& report : reports) {
        console.Print(ReportText(report, console.Output()));
    }
}

// The agent's answer has the first of the reports; the others come page by page.
ExitCode Show(const std::string& id, const Console& console, const CommonOptions& common) {
    const AgentClient agent(FindSocket(common.socket));
    CommandDetail detail = agent.GetCommand(id);
    if (!common.json) {
        console.Print(Head(detail.command, console.Output()));
        PrintReports(detail.reports, console);
    }
    ReportFilter filter;
    filter.id = id;
    filter.after = detail.reports.empty() ? 0 : detail.reports.back().cursor;
    detail.reports.clear();
    while (detail.has_more) {
        ReportPage page = agent.GetReports(filter).value();
        detail.has_more = page.cursor > filter.after;
        filter.after = page.cursor;
        if (!common.json) {
            PrintReports(page.reports, console);
            continue;
        }
        for (Report& report : page.reports) {
            detail.document["reports"].push_back(std::move(report.document));
        }
    }
    if (common.json) {
        detail.document.erase("more");
        console.Print(ToLine(detail.document));
    }
    return ExitCode::kSuccess;
}

}  // namespace

void AddShowCommand(const CommandSetup& program) {
    const auto [command, id] =
        AddSubCommand(program, "show", "Show one command with its results and outputs", kFooter, Show);
    command.Argument("ID", *id, "The ID of the command, as run and submit gave it").Required();
    AddAgentOptions(command);
}

}  // namespace qxpctl
