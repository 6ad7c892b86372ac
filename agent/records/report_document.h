#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qxpagent {

/// One run of a result document.
struct RunResult {
    std::string script_id;
    std::string start;  // as written
    std::string file;   // the script file; with the start it tells runs of equal script ids apart
    bool succeeded = false;
    bool timed_out = true;  // the plugin ended the run at its time-out: it then writes no end time
    uint64_t seconds = 0;
    uint64_t output_bytes = 0;
};

/// What a report says, as far as the agent looks into it.
struct ReportContent {
    bool readable = false;  // one JSON document; else nothing below is set
    std::string id;
    bool refusal = false;  // of a whole command
    std::vector<RunResult> runs;
};

/// Reads a report: the plugin's message or one of its result files. Members that are missing are empty; of equal keys
/// the first counts. Needs no more memory than the largest value: a report can be over a hundred MiB.
ReportContent ReadReport(std::string_view text);

/// The agent's own report, the final word of a command that was interrupted: one line of JSON with the members "ID",
/// "msg_type" "5", "data_type" "CommandInterrupted" and "data" with "reason" and "unreported". Bytes that are not
/// UTF-8 are replaced.
std::string InterruptedReport(const std::string& id, const std::string& reason,
                              const std::vector<std::string>& unreported);

}  // namespace qxpagent
