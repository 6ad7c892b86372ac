#include <limits>
#include <memory>

#include "ctl/agent_client.h"
#include "ctl/commands.h"
#include "ctl/files.h"
#include "ctl/table.h"
#include "ctl/text.h"
#include "ctl/time_text.h"

namespace qxpctl {

namespace {

struct ResultsOptions {
    std::string id;
    std::string raw;
    std::string output;
    bool pending = false;
    bool acknowledge = false;
};

constexpr const char* kFooter =
    R"(Lists the reports that the agent keeps: what the plugin sent (source plugin), the result files that it wrote (file) and
the agent's own last words on commands that were interrupted (agent). A report that is acknowledged has arrived where it
was to go, and is the first to make room.

Examples:
  qxpctl results                                  all, oldest first
  qxpctl results nightly --pending --acknowledge  what is new of one command; it is not new afterwards
  qxpctl results --raw 42 --output result.json    a result file as the plugin wrote it
  qxpctl results --json | jq -r '.reports[] | select(.document.msg_type == "4") | .id'

Exit codes: 0 done; 2 there is no such result file; 3 the agent cannot be reached; 5 the file or the standard output
could not be written: nothing is acknowledged then.)";

Row Headings() {
    Row row;
    for (const char* const text : {"CURSOR", "RECEIVED", "SOURCE", "BYTES", "ACKNOWLEDGED", "ID", "FILE"})
        row.push_back({text, Color::Bold});
    return row;
}

Row RowOf(const Report& report) {
    return {{std::to_string(report.cursor)},
            {ShortTime(report.received)},
            {report.source},
            {std::to_string(report.bytes)},
            report.acknowledged ? Cell{"yes"} : Cell{"no", Color::Yellow},
            {report.id},
            {report.file}};
}

// Everything that is stored now, page by page, so that the documents of one page alone are in the memory at once unless
// they are to be printed.
std::vector<Report> Collect(AgentClient& agent, const ResultsOptions& options, bool with_documents) {
    ReportFilter filter;
    filter.id = options.id;
    if (options.pending)
        filter.acknowledged = false;
    std::vector<Report> reports;
    for (;;) {
        ReportPage page = agent.GetReports(filter).value();
        for (Report& report : page.reports) {
            report.content = Json();
            if (!with_documents)
                report.document = Json();
            reports.push_back(std::move(report));
        }
        if (page.reports.empty() || page.cursor <= filter.after)
            return reports;
        filter.after = page.cursor;
    }
}

void Acknowledge(AgentClient& agent, const std::vector<uint64_t>& cursors, const Console& console) {
    if (cursors.empty())
        return;
    const uint64_t count = agent.Acknowledge(cursors);
    console.Remark(Count(count, "report") + " acknowledged");
}

ExitCode List(const ResultsOptions& options, const Console& console, const CommonOptions& common) {
    AgentClient agent(FindSocket(common.socket));
    std::vector<Report> reports = Collect(agent, options, common.json);
    std::vector<uint64_t> pending;
    Json list = Json::array();
    std::vector<Row> rows{Headings()};
    for (Report& report : reports) {
        if (!report.acknowledged)
            pending.push_back(report.cursor);
        if (common.json)
            list.push_back(std::move(report.document));
        else
            rows.push_back(RowOf(report));
    }
    const uint64_t cursor = reports.empty() ? 0 : reports.back().cursor;
    const Json document = {{"reports", std::move(list)}, {"cursor", cursor}};
    const std::string text = common.json ? ToLine(document) : FormatTable(rows, console.Output());
    if (options.output.empty() || options.output == "-")
        console.Print(text);
    else
        WriteOutputFile(options.output, text);
    if (options.acknowledge)
        Acknowledge(agent, pending, console);
    return ExitCode::Success;
}

uint64_t ReadCursor(const std::string& text) {
    const std::optional<uint32_t> cursor = ParseNumber(text, std::numeric_limits<uint32_t>::max());
    if (!cursor || *cursor == 0)
        throw BadInput("--raw takes the cursor of a result, as 'qxpctl results' lists it, not '" + text + "'");
    return *cursor;
}

ExitCode WriteRaw(const ResultsOptions& options, const Console& console, const CommonOptions& common) {
    const uint64_t cursor = ReadCursor(options.raw);
    AgentClient agent(FindSocket(common.socket));
    const std::string bytes = agent.GetResultFile(cursor);
    if (!options.output.empty() && options.output != "-") {
        WriteOutputFile(options.output, bytes);
        if (common.json)
            console.Print(ToLine({{"cursor", cursor}, {"output", options.output}, {"bytes", bytes.size()}}));
        else
            console.Remark(options.output + ": " + Count(bytes.size(), "byte"));
    } else {
        console.Print(console.Output().Untrusted(bytes));
    }
    if (options.acknowledge)
        Acknowledge(agent, {cursor}, console);
    return ExitCode::Success;
}

}  // namespace

void AddResultsCommand(const CommandSetup& program) {
    const auto options = std::make_shared<ResultsOptions>();
    const CommandSetup command =
        program.SubCommand("results", "List the reports and result files that the agent keeps, or fetch one");
    const OptionSetup id = command.Argument("ID", options->id, "Only those of this command [all]");
    command.Flag("--pending", options->pending, "Only those that nobody has acknowledged");
    const OptionSetup raw = command.Value("--raw", "CURSOR", options->raw, "Fetch this result file, as it was written");
    raw.Excludes(id);
    command.Value("--output,-o", "FILE", options->output, "Where to write; '-' or not given: the standard output");
    command.Flag("--acknowledge", options->acknowledge, "Acknowledge what has been listed or written");
    command.SocketOption();
    command.JsonOption();
    command.Footer(kFooter);
    command.Action([options, raw](const Console& console, const CommonOptions& common) {
        return raw.Given() ? WriteRaw(*options, console, common) : List(*options, console, common);
    });
}

}  // namespace qxpctl
