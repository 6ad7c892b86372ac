#include <sqlite3.h>

#include <algorithm>
#include <memory>
#include <utility>

#include "agent/store/store_access.h"

// Reports, and what they mean for their commands.

namespace qxpagent {

namespace {

constexpr char kColumns[] =
    "SELECT cursor, id, source, file, received, acknowledged, json_data_type, value, bytes FROM reports ";

Report ReadRow(SQLite::Statement& row) {
    Report report;
    report.cursor = Unsigned(row, 0);
    report.id = Text(row, 1);
    report.source = static_cast<ReportSource>(row.getColumn(2).getInt());
    report.file = Text(row, 3);
    report.received = Time(row, 4).value_or(WallTime());
    report.acknowledged = Time(row, 5);
    report.json_data_type = row.getColumn(6).getUInt();
    report.value = row.getColumn(7).getInt();
    report.bytes = Unsigned(row, 8);
    return report;
}

// By SQLite's reader of large values: a column of a statement would hold the text, over a hundred MiB, a second time.
std::string ReadText(SQLite::Database& database, uint64_t cursor) {
    sqlite3_blob* opened = nullptr;
    int code = sqlite3_blob_open(database.getHandle(), "main", "report_texts", "text", static_cast<int64_t>(cursor), 0,
                                 &opened);
    const std::unique_ptr<sqlite3_blob, decltype(&sqlite3_blob_close)> blob(opened, &sqlite3_blob_close);
    std::string text;
    if (code == SQLITE_OK) {
        text.resize(static_cast<size_t>(sqlite3_blob_bytes(blob.get())));
        code = sqlite3_blob_read(blob.get(), text.data(), static_cast<int>(text.size()), 0);
    }
    if (code != SQLITE_OK) {
        throw SQLite::Exception(database.getHandle(), code);
    }
    return text;
}

// Strikes one script off those that are to have a result. False when this run was counted before, as when a report
// comes as a message and again as a result file, or when no result of this script is missing.
bool CountRun(SQLite::Database& database, int64_t command, const RunResult& run) {
    const bool is_new = Execute(database, "INSERT OR IGNORE INTO runs VALUES(?, ?, ?, ?)", command, run.script_id,
                                run.start, run.file) == 1;
    return is_new && Execute(database,
                             "DELETE FROM expectations WHERE command = ?1 AND position = (SELECT min(position) FROM "
                             "expectations WHERE command = ?1 AND script = ?2)",
                             command, run.script_id) == 1;
}

void CountRuns(SQLite::Database& database, int64_t command, const std::vector<RunResult>& runs) {
    bool changed = false;
    for (const RunResult& run : runs) {
        changed = CountRun(database, command, run) || changed;
    }
    if (!changed) {
        return;
    }
    if (FindNumber(database, "SELECT count(*) FROM expectations WHERE command = ?", command) == 0) {
        FinishCommand(database, command, CommandState::kReported, "");
    } else {
        Execute(database, "UPDATE commands SET sequence = ? WHERE number = ?", NextSequence(database), command);
    }
}

// True when the command is now refused.
bool AdvanceCommand(SQLite::Database& database, const ReportContent& content) {
    SQLite::Statement row = Prepare(database, "SELECT number, refusal_reason FROM commands WHERE id = ? AND state = ?",
                                    content.id, CommandState::kDelivered);
    if (content.id.empty() || !row.executeStep()) {
        return false;
    }
    const int64_t command = row.getColumn(0).getInt64();
    const std::string refusal_reason = Text(row, 1);
    row.reset();
    if (content.refusal) {
        FinishCommand(database, command, CommandState::kRefused, refusal_reason);
    } else {
        CountRuns(database, command, content.runs);
    }
    return content.refusal;
}

bool NoteFile(SQLite::Database& database, const FileMark& mark) {
    return Execute(database, "INSERT OR IGNORE INTO files VALUES(?, ?, ?, ?, ?)", mark.name, mark.modified_ns,
                   mark.size, mark.sha256, std::chrono::system_clock::now()) == 1;
}

std::vector<Report> FindReports(SQLite::Database& database, const ReportQuery& query) {
    std::string conditions = "cursor > ?1";
    if (query.id.has_value()) {
        conditions += " AND id = ?2";
    }
    if (query.source.has_value()) {
        conditions += fmt::format(" AND source = {}", ToSql(*query.source));
    }
    if (query.acknowledged.has_value()) {
        conditions += *query.acknowledged ? " AND acknowledged IS NOT NULL" : " AND acknowledged IS NULL";
    }
    SQLite::Statement rows = Prepare(database,
                                     fmt::format("{}WHERE {} ORDER BY cursor LIMIT {}", kColumns, conditions,
                                                 std::min<size_t>(query.limit, INT_MAX)),
                                     std::min<uint64_t>(query.after, INT64_MAX));
    if (query.id.has_value()) {
        rows.bind(2, *query.id);
    }
    std::vector<Report> reports;
    uint64_t bytes = 0;
    while (rows.executeStep()) {
        Report report = ReadRow(rows);
        if (query.with_text) {
            bytes += report.bytes;
            if (bytes > Store::kMostBytes && !reports.empty()) {
                break;
            }
            report.text = ReadText(database, report.cursor);
        }
        reports.push_back(std::move(report));
    }
    return reports;
}

}  // namespace

uint64_t InsertReport(SQLite::Database& database, const Report& report, std::string_view text) {
    Execute(database,
            "INSERT INTO reports(id, source, file, received, json_data_type, value, bytes) VALUES(?, ?, ?, ?, ?, ?, ?)",
            report.id, report.source, report.file, report.received, report.json_data_type, report.value, text.size());
    const int64_t cursor = database.getLastInsertRowid();
    InsertText(database, "INSERT INTO report_texts VALUES(?, ?)", text, cursor);
    return static_cast<uint64_t>(cursor);
}

Appended Store::Append(const Report& report, std::string_view text, const ReportContent& content,
                       const std::optional<FileMark>& mark) {
    return Write([&](SQLite::Database& database) -> Appended {
        if (mark.has_value() && !NoteFile(database, *mark)) {
            return {};
        }
        const uint64_t cursor = InsertReport(database, report, text);
        return {cursor, AdvanceCommand(database, content)};
    });
}

std::vector<Report> Store::ListReports(const ReportQuery& query) {
    return WaitFor(query.wait,
                   [&] { return Read([&](SQLite::Database& database) { return FindReports(database, query); }); });
}

std::optional<Report> Store::FindReport(uint64_t cursor) {
    return Read([&](SQLite::Database& database) -> std::optional<Report> {
        SQLite::Statement row = Prepare(database, std::string(kColumns) + "WHERE cursor = ?", cursor);
        if (!row.executeStep()) {
            return std::nullopt;
        }
        Report report = ReadRow(row);
        report.text = ReadText(database, cursor);
        return report;
    });
}

uint64_t Store::Acknowledge(const std::vector<uint64_t>& cursors) {
    return Write([&](SQLite::Database& database) {
        uint64_t count = 0;
        for (const uint64_t cursor : cursors) {
            count += static_cast<uint64_t>(
                Execute(database, "UPDATE reports SET acknowledged = ? WHERE cursor = ? AND acknowledged IS NULL",
                        std::chrono::system_clock::now(), std::min<uint64_t>(cursor, INT64_MAX)));
        }
        return count;
    });
}

uint64_t Store::AcknowledgeUpTo(uint64_t cursor) {
    return Write([&](SQLite::Database& database) {
        return static_cast<uint64_t>(
            Execute(database, "UPDATE reports SET acknowledged = ? WHERE cursor <= ? AND acknowledged IS NULL",
                    std::chrono::system_clock::now(), std::min<uint64_t>(cursor, INT64_MAX)));
    });
}

bool Store::HasFile(const std::string& name, int64_t modified_ns, uint64_t size) {
    return Read([&](SQLite::Database& database) {
        return FindNumber(database, "SELECT 1 FROM files WHERE name = ? AND modified = ? AND size = ? LIMIT 1", name,
                          modified_ns, size)
            .has_value();
    });
}

void Store::ForgetFiles(WallTime before, const std::vector<std::string>& keep) {
    Write([&](SQLite::Database& database) {
        database.exec("CREATE TEMP TABLE IF NOT EXISTS kept(name TEXT PRIMARY KEY) WITHOUT ROWID");
        Execute(database, "DELETE FROM kept");
        for (const std::string& name : keep) {
            Execute(database, "INSERT OR IGNORE INTO kept VALUES(?)", name);
        }
        Execute(database, "DELETE FROM files WHERE stored < ? AND name NOT IN (SELECT name FROM kept)", before);
    });
}

}  // namespace qxpagent
