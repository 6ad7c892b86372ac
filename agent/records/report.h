#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "base/time_text.h"

namespace qxpagent {

using qxpbase::WallTime;

/// Where a report came from: the plugin's message, a result file of the plugin, or the agent itself (of a command that
/// was interrupted). The database keeps these numbers: append, never insert.
enum class ReportSource { kPlugin, kFile, kAgent };

/// One report. Cursors are 1, 2, 3, … in order of arrival, and are never used again.
struct Report {
    uint64_t cursor = 0;
    std::string id;  // the report's "ID", empty when it has none
    ReportSource source = ReportSource::kPlugin;
    std::string file;  // the result file's name; empty unless kFile
    WallTime received;
    std::optional<WallTime> acknowledged;
    uint32_t json_data_type = 0;
    int32_t value = 0;
    std::string text;    // left out where a query says so
    uint64_t bytes = 0;  // of the text
};

struct ReportQuery {
    std::optional<std::string> id;       // only reports with this ID
    std::optional<ReportSource> source;  // only reports from there
    std::optional<bool> acknowledged;    // only those that are, or are not
    uint64_t after = 0;                  // only reports with a greater cursor
    size_t limit = 1000;
    bool with_text = true;
    std::chrono::milliseconds wait{0};  // for the first match
};

}  // namespace qxpagent
