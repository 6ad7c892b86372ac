#include <memory>

#include "base/time_text.h"
#include "ctl/client/agent_client.h"
#include "ctl/client/results.h"
#include "ctl/commands/command_view.h"
#include "ctl/commands/commands.h"
#include "ctl/terminal/table.h"
#include "ctl/terminal/text.h"

namespace qxpctl {

namespace {

constexpr const char* kFooter =
    R"(Prints what the agent knows of a command: who sent it and when, its state and the reason, then each script's result and
output. Control characters are shown escaped on a terminal and left alone in a pipe.

Examples:
  qxpctl show 2f1c4f0e-5b7e-4f43-9a55-0d6a6e1f9b1e
  qxpctl show nightly --json | jq -r '.reports[].document.data.result[]?.run_outdata'

Exit codes: 0 the command is known; 2 it is not; 3 the agent cannot be reached.)";

std::string Head(const Command& command, const Stream& output) {
    const auto label = [](const char* text) { return Cell{text, Color::kBold}; };
    std::vector<Row> rows = {
        {label("ID"), {command.id}},
        {label("Command"), {command.command + ", " + Count(command.scripts, "script")}},
        {label("State"), {StateName(command.state), StateColor(command.state)}},
    };
    if (!command.reason.empty()) {
        rows.push_back({label("Reason"), {command.reason, StateColor(command.state)}});
    }
    rows.push_back({label("Sent by"), {command.submitter + ", received " + qxpbase::ShortTime(command.received)}});
    if (!command.finished.empty()) {
        rows.push_back({label("Finished"), {qxpbase::ShortTime(command.finished)}});
    }
    for (const std::string& script : command.unreported) {
        rows.push_back({label(IsFinal(command.state) ? "No result" : "Waiting"), {script}});
    }
    return FormatTable(rows, output);
}

std::string ResultText(const RunResult& result, const Stream& output) {
    const char* const state = result.succeeded ? "succeeded" : result.timed_out ? "timed out" : "failed";
    std::string text = "\n" + output.Paint(Color::kBold, "==> " + OneLine(result.script_id) + " <==") + " " +
                       output.Paint(result.succeeded ? Color::kGreen : Color::kRed, state);
    if (!result.timed_out) {
        text += " in " + OneLine(result.seconds) + " s";
    }
    text += ", started " + OneLine(result.start_time) + "\n" + output.Untrusted(result.output);
    return text.back() == '\n' ? text : text + "\n";
}

std::string ReportText(const Report& report, const Stream& output) {
    const ReportContent content = ReadReportContent(report.content);
    const std::string heading = "\n" + output.Paint(Color::kBold, "report " + std::to_string(report.cursor)) + ": ";
    std::string text;
    switch (content.kind) {
        case ReportContent::Kind::kResults:
            for (const RunResult& result : content.runs) {
                text += ResultText(result, output);
            }
            return text;
        case ReportContent::Kind::kRefusal:
            return heading + output.Paint(Color::kRed, "refused by the plugin") + "\n";
        case ReportContent::Kind::kInterruption:
            return heading + output.Paint(Color::kRed, "interrupted") +
                   (content.reason.empty() ? "" : ": " + OneLine(content.reason)) + "\n";
        case ReportContent::Kind::kUnknown:
            break;
    }
    return heading + "of an unknown form, " + SizeText(report.bytes) + "; 'qxpctl show --json' shows it\n";
}

void PrintReports(const std::vector<Report>& reports, const Console& console) {
    for (const Report& report : reports) {
        console.Print(ReportText(report, console.Output()));
    }
}

// The agent's answer has the first of the reports; the others come page by page.
ExitCode Show(const std::string& id, const Console& console, const CommonOptions& common) {
    AgentClient agent(FindSocket(common.socket));
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
    const auto id = std::make_shared<std::string>();
    const CommandSetup command = program.SubCommand("show", "Show one command with its results and outputs");
    command.Argument("ID", *id, "The ID of the command, as run and submit gave it").Required();
    command.SocketOption();
    command.JsonOption();
    command.Footer(kFooter);
    command.Action([id](const Console& console, const CommonOptions& common) { return Show(*id, console, common); });
}

}  // namespace qxpctl
