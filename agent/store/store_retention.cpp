#include <utility>

#include "agent/store/store_access.h"
#include "agent/store/store_sql.h"
#include "agent/store/store_tables.h"

// What is kept, and for how long.

namespace qxpagent {

namespace {

constexpr int kStep = 500;        // rows a transaction, so that others get their turn
constexpr int kStepPages = 2000;  // pages given back a transaction

struct Row {
    int64_t cursor;
    uint64_t bytes;
    bool pending;
};

std::vector<Row> Rows(SQLite::Statement statement) {
    std::vector<Row> rows;
    while (statement.executeStep()) {
        rows.push_back({statement.getColumn(0).getInt64(), Unsigned(statement, 1), statement.getColumn(2).isNull()});
    }
    return rows;
}

void RemoveReport(SQLite::Database& database, const Row& row, Removed& removed) {
    Execute(database, "DELETE FROM reports WHERE cursor = ?", row.cursor);
    ++removed.reports;
    removed.unacknowledged += row.pending ? 1 : 0;
}

// Those that nobody has acknowledged make room, but do not age: the clock may have jumped.
bool RemoveOldReports(SQLite::Database& database, WallTime limit, Removed& removed) {
    const std::vector<Row> rows =
        Rows(Prepare(database,
                     "SELECT cursor, bytes, acknowledged FROM reports WHERE acknowledged IS NOT NULL AND received < ? "
                     "ORDER BY received LIMIT ?",
                     limit, kStep));
    for (const Row& row : rows) {
        RemoveReport(database, row, removed);
    }
    return rows.size() == kStep;
}

bool RemoveOldCommands(SQLite::Database& database, WallTime limit, Removed& removed) {
    std::vector<int64_t> numbers;
    SQLite::Statement rows =
        Prepare(database, "SELECT number FROM commands WHERE finished < ? ORDER BY finished LIMIT ?", limit, kStep);
    while (rows.executeStep()) {
        numbers.push_back(rows.getColumn(0).getInt64());
    }
    for (const int64_t number : numbers) {
        RemoveCommand(database, number);
        ++removed.commands;
    }
    return numbers.size() == kStep;
}

// Removes from the oldest until `excess` bytes are gone. False when there is nothing more to remove, or no need.
bool RemoveExcess(SQLite::Database& database, uint64_t excess, const char* condition, Removed& removed) {
    const std::vector<Row> rows =
        Rows(Prepare(database,
                     std::string("SELECT cursor, bytes, acknowledged FROM reports WHERE acknowledged ") + condition +
                         " ORDER BY cursor LIMIT ?",
                     kStep));
    uint64_t gone = 0;
    for (const Row& row : rows) {
        if (gone >= excess) {
            break;
        }
        RemoveReport(database, row, removed);
        gone += row.bytes;
    }
    return gone > 0 || !rows.empty();
}

}  // namespace

bool Store::RemoveSome(const Retention& retention, WallTime now, Removed& removed) {
    Removed step;
    const bool more = Write([&](SQLite::Database& database) {
        step = {};
        const WallTime limit = now - retention.age;
        const bool more_commands = RemoveOldCommands(database, limit, step);
        if (RemoveOldReports(database, limit, step) || more_commands) {
            return true;
        }
        const auto bytes = static_cast<uint64_t>(Number(database, "SELECT bytes FROM totals").value_or(0));
        if (bytes <= retention.bytes) {
            return false;
        }
        const uint64_t excess = bytes - retention.bytes;
        return RemoveExcess(database, excess, "IS NOT NULL", step) || RemoveExcess(database, excess, "IS NULL", step);
    });
    removed.commands += step.commands;
    removed.reports += step.reports;
    removed.unacknowledged += step.unacknowledged;
    return more;
}

Removed Store::Retain(const Retention& retention, WallTime now) {
    Removed removed;
    while (RemoveSome(retention, now, removed)) {
    }
    if (removed.commands + removed.reports > 0) {
        GiveRoomBack();
    }
    return removed;
}

// Pages that are free would be used again, but the file would never become smaller.
void Store::GiveRoomBack() {
    for (;;) {
        const std::lock_guard lock(write_mutex_);
        try {
            if (Number(*writer_, "PRAGMA freelist_count").value_or(0) == 0) {
                writer_->exec("PRAGMA wal_checkpoint(TRUNCATE)");
                return;
            }
            SQLite::Statement vacuum(*writer_, "PRAGMA incremental_vacuum(" + std::to_string(kStepPages) + ")");
            while (vacuum.executeStep()) {
            }
        } catch (const SQLite::Exception& error) {
            Fail(error, *writer_, true);
        }
    }
}

}  // namespace qxpagent
