#include "agent/store/store_access.h"

// What is kept, and for how long.

namespace qxpagent {

namespace {

constexpr int kStep = 500;        // rows a transaction, so that others get their turn
constexpr int kStepPages = 2000;  // pages given back a transaction

// Removes the reports whose cursors the statement `which` selects, and counts them.
template <typename... Values>
uint64_t RemoveReports(SQLite::Database& database, Removed& removed, const std::string& which,
                       const Values&... values) {
    SQLite::Statement gone = Prepare(
        database, fmt::format("DELETE FROM reports WHERE cursor IN ({}) RETURNING acknowledged", which), values...);
    uint64_t count = 0;
    for (; gone.executeStep(); ++count) {
        removed.unacknowledged += gone.getColumn(0).isNull() ? 1 : 0;
    }
    removed.reports += count;
    return count;
}

// Those that nobody has acknowledged make room, but do not age: the clock may have jumped.
bool RemoveOldReports(SQLite::Database& database, WallTime limit, Removed& removed) {
    return RemoveReports(database, removed,
                         "SELECT cursor FROM reports WHERE acknowledged IS NOT NULL AND received < ? "
                         "ORDER BY received LIMIT ?",
                         limit, kStep) == kStep;
}

bool RemoveOldCommands(SQLite::Database& database, WallTime limit, Removed& removed) {
    const std::vector<int64_t> numbers = Rows(
        Prepare(database, "SELECT number FROM commands WHERE finished < ? ORDER BY finished LIMIT ?", limit, kStep),
        [](SQLite::Statement& row) { return row.getColumn(0).getInt64(); });
    for (const int64_t number : numbers) {
        RemoveCommand(database, number);
    }
    removed.commands += numbers.size();
    return numbers.size() == kStep;
}

// Removes from the oldest until `excess` bytes are gone. False when there is nothing to remove.
bool RemoveExcess(SQLite::Database& database, uint64_t excess, const char* condition, Removed& removed) {
    const std::string which = fmt::format(
        "SELECT cursor FROM (SELECT cursor, sum(bytes) OVER (ORDER BY cursor) - bytes AS gone_before FROM "
        "(SELECT cursor, bytes FROM reports WHERE acknowledged {} ORDER BY cursor LIMIT ?)) WHERE gone_before < ?",
        condition);
    return RemoveReports(database, removed, which, kStep, excess) > 0;
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
        const uint64_t bytes = TextBytes(database);
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
            if (writer_->execAndGet("PRAGMA freelist_count").getInt64() == 0) {
                writer_->exec("PRAGMA wal_checkpoint(TRUNCATE)");
                return;
            }
            SQLite::Statement vacuum(*writer_, fmt::format("PRAGMA incremental_vacuum({})", kStepPages));
            while (vacuum.executeStep()) {
            }
        } catch (const SQLite::Exception& error) {
            Fail(error, *writer_, true);
        }
    }
}

}  // namespace qxpagent
