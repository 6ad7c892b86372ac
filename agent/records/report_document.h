#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qxpagent {

/// A report on its way to the manager, the JsonComboData message body. All numbers are little-endian:
///
///   offset 0   uint32    JSON data type, 1 or 2
///          4   int32     the sender's value
///          8   int32     the sender's second value
///         12   4 bytes   reserved
///         16   char[64]  first name, NUL-padded
///         80   char[64]  second name, NUL-padded
///        144   uint32    length L of the text
///        148   L bytes   JSON text, followed by one NUL
struct ReportEnvelope {
    uint32_t json_data_type;
    int32_t value;
    std::string_view text;  // points into the decoded bytes
};

inline constexpr size_t kEnvelopeHeaderBytes = 148;

/// Decodes an envelope. Nothing when a length does not fit the bytes exactly, the last byte is not NUL, or the type is
/// not 1 or 2. Any bytes are safe to give.
std::optional<ReportEnvelope> DecodeReportEnvelope(std::string_view bytes);

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

/// What a report says, as far as the agent reads it.
struct ReportContent {
    bool readable = false;  // one JSON document; else nothing below is set
    std::string id;
    bool refusal = false;  // of a whole command
    std::vector<RunResult> runs;
};

/// Reads a report: the plugin's message or one of its result files. Members that are missing are empty; of equal keys
/// the first counts. Needs no more memory than the largest value: a report can be over a hundred MiB. Any thread.
ReportContent ReadReport(std::string_view text);

/// The agent's own report of a command that was interrupted: one line of JSON with the members "ID", "msg_type" "5",
/// "data_type" "CommandInterrupted" and "data" with "reason" and "unreported". Bytes that are not UTF-8 are replaced.
std::string InterruptedReport(const std::string& id, const std::string& reason,
                              const std::vector<std::string>& unreported);

}  // namespace qxpagent
