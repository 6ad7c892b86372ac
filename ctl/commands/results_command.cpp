#include <limits>

#include "base/time_text.h"
#include "base/whole_number.h"
#include "ctl/client/agent_client.h"
#include "ctl/client/agent_socket.h"
#include "ctl/commands/commands.h"
#include "ctl/terminal/files.h"
#include "ctl/terminal/text.h"

namespace qxpctl {

namespace {

using qxpbase::ShortTime;

struct ResultsOptions {
    std::string id;
    std::string raw;
    std::string output;
    bool pending = false;
    bool acknowledge = false;
    OptionSetup raw_option;  // set once the options have been declared
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

bool GoesToFile(const ResultsOptions& options) {
    return !options.output.empty() && options.output != "-";
}

Row Headings() {
    Row row;
    for (const char* const text : {"CURSOR", "RECEIVED", "SOURCE", "BYTES", "ACKNOWLEDGED", "ID", "FILE"}) {
        row.push_back({text, Color::kBold});
    }
    return row;
}

Row RowOf(const Report& report) {
    return {{std::to_string(report.cursor)},
            {ShortTime(report.received)},
            {report.source},
            {std::to_string(report.bytes)},
            report.acknowledged ? Cell{"yes"} : Cell{"no", Color::kYellow},
            {report.id},
            {report.file}};
}

// What is listed, and what of it nobody has acknowledged.
struct Listing {
    std::string text;
    std::vector<uint64_t> pending;
};

// Everything that is stored now, page by page: of the documents, only those of one page are in the memory as values. A
// table needs none.
Listing Collect(const AgentClient& agent, const ResultsOptions& options, const Console& console, bool json) {
    ReportFilter filter;
    filter.id = options.id;
    filter.documents = json;
    if (options.pending) {
        filter.acknowledged = false;
    }
    Listing listing{json ? R"({"reports":[)" : "", {}};
    std::vector<Row> rows{Headings()};
    for (;;) {
        const ReportPage page = agent.GetReports(filter).value();
        for (const Report& report : page.reports) {
            if (!report.acknowledged) {
                listing.pending.push_back(report.cursor);
            }
            if (json) {
                listing.text.append(listing.text.ends_with('[') ? "" : ",").append(ToText(report.document));
            } else {
                rows.push_back(RowOf(report));
            }
        }
        if (page.reports.empty() || page.cursor <= filter.after) {
            break;
        }
        filter.after = page.cursor;
    }
    listing.text += json ? fmt::format("],\"cursor\":{}}}\n", filter.after) : console.Output().Table(rows);
    return listing;
}

void Acknowledge(const AgentClient& agent, const std::vector<uint64_t>& cursors, const Console& console) {
    if (!cursors.empty()) {
        console.Remark("{} acknowledged", Count(agent.Acknowledge(cursors), "report"));
    }
}

uint64_t ParseCursor(const std::string& text) {
    const std::optional<uint32_t> cursor = qxpbase::ParseNumber(text, std::numeric_limits<uint32_t>::max());
    if (!cursor || *cursor == 0) {
        throw BadInput("--raw takes the cursor of a result, as 'qxpctl results' lists it, not '{}'", text);
    }
    return *cursor;
}

void WriteRaw(const AgentClient& agent, uint64_t cursor, const ResultsOptions& options, const Console& console,
              bool json) {
    const std::string bytes = agent.GetResultFile(cursor);
    if (!GoesToFile(options)) {
        console.Print(console.Output().Untrusted(bytes));
        return;
    }
    WriteOutputFile(options.output, bytes);
    if (json) {
        console.Print(ToLine({{"cursor", cursor}, {"output", options.output}, {"bytes", bytes.size()}}));
    } else {
        console.Remark("{}: {}", options.output, Count(bytes.size(), "byte"));
    }
}

ExitCode ShowResults(const ResultsOptions& options, const Console& console, const CommonOptions& common) {
    std::vector<uint64_t> shown;
    if (options.raw_option.Given()) {
        shown = {ParseCursor(options.raw)};
    }
    const AgentClient agent(FindSocket(common.socket));
    if (!shown.empty()) {
        WriteRaw(agent, shown.front(), options, console, common.json);
    } else {
        Listing listing = Collect(agent, options, console, common.json);
        if (GoesToFile(options)) {
            WriteOutputFile(options.output, listing.text);
        } else {
            console.Print(listing.text);
        }
        shown = std::move(listing.pending);
    }
    if (options.acknowledge) {
        Acknowledge(agent, shown, console);
    }
    return ExitCode::kSuccess;
}

}  // namespace

void AddResultsCommand(const CommandSetup& program) {
    const auto [command, options] =
        AddSubCommand(program, "results", "List the reports and result files that the agent keeps, or fetch one",
                      kFooter, ShowResults);
    const OptionSetup id = command.Argument("ID", options->id, "Only those of this command [all]");
    command.Flag("--pending", options->pending, "Only those that nobody has acknowledged");
    options->raw_option = command.Value("--raw", "CURSOR", options->raw, "Fetch this result file, as it was written");
    options->raw_option.Excludes(id);
    command.Value("--output,-o", "FILE", options->output, "Where to write; '-' or not given: the standard output");
    command.Flag("--acknowledge", options->acknowledge, "Acknowledge what has been listed or written");
    AddAgentOptions(command);
}

}  // namespace qxpctl
