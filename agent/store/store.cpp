#include "agent/store/store.h"

#include <sqlite3.h>

#include <cerrno>

#include "agent/store/store_access.h"

namespace qxpagent {

Store::Store(const StoreOptions& options)
    : options_(options), lock_(LockStore(options.path)), writer_(OpenStore(options)), reader_(OpenReader(options)) {
}

Store::~Store() {
    StopWaiting();
}

// A fault is cleared by the next write that succeeds, so a failed read alone is no fault of the store, but damage is.
void Store::Fail(const SQLite::Exception& error, const SQLite::Database& database, bool writing) {
    const int code = error.getErrorCode() & 0xFF;  // without the extension, which tells which read or write it was
    const int system_error = sqlite3_system_errno(database.getHandle());
    const bool full =
        code == SQLITE_FULL || (code == SQLITE_IOERR && (system_error == ENOSPC || system_error == EDQUOT));
    const bool damaged = code == SQLITE_CORRUPT || code == SQLITE_NOTADB;
    const bool locked = code == SQLITE_BUSY || code == SQLITE_LOCKED;
    const char* const message = full      ? "The store {} has no room: {}."
                                : locked  ? "The store {} is locked by another process."
                                : damaged ? "The store {} is damaged ({}): the next start of the agent checks it."
                                          : "The store {} cannot be read or written: {}.";
    const std::string text = fmt::format(fmt::runtime(message), options_.path.string(), error.what());
    if (damaged) {
        MarkSuspect(options_.path);
    }
    if (writing || damaged) {
        const std::lock_guard lock(mutex_);
        fault_ = text;
    }
    if (full) {
        throw StoreFullError(text);
    }
    throw StoreError(text);
}

void Store::NoteChange() {
    const std::lock_guard lock(mutex_);
    ++changes_;
    fault_.clear();
    changed_.notify_all();
}

void Store::StopWaiting() {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
    changed_.notify_all();
}

StoreFigures Store::Figures() {
    StoreFigures figures = Read([](SQLite::Database& database) {
        StoreFigures found;
        SQLite::Statement totals = Prepare(database, "SELECT sequence, reports, pending, bytes FROM totals");
        if (totals.executeStep()) {
            found.last_sequence = Unsigned(totals, 0);
            found.reports = Unsigned(totals, 1);
            found.reports_pending = Unsigned(totals, 2);
            found.bytes = Unsigned(totals, 3);
        }
        // No row before the first report.
        found.last_cursor = static_cast<uint64_t>(
            database.execAndGet("SELECT coalesce(max(seq), 0) FROM sqlite_sequence WHERE name='reports'").getInt64());
        SQLite::Statement oldest =
            Prepare(database, "SELECT received FROM reports WHERE acknowledged IS NULL ORDER BY cursor LIMIT 1");
        if (oldest.executeStep()) {
            found.oldest_pending = Time(oldest, 0);
        }
        SQLite::Statement states = Prepare(database, "SELECT state, count(*) FROM commands GROUP BY state");
        while (states.executeStep()) {
            found.states[static_cast<CommandState>(states.getColumn(0).getInt())] = Unsigned(states, 1);
        }
        return found;
    });
    const std::lock_guard lock(mutex_);
    figures.fault = fault_;
    return figures;
}

OpenScripts Store::ScriptsWithoutResult() {
    return Read([](SQLite::Database& database) {
        const auto in_state = [&](CommandState state) {
            SQLite::Statement count = Prepare(
                database,
                "SELECT count(*) FROM commands JOIN expectations ON expectations.command = number WHERE state = ?",
                state);
            count.executeStep();
            return Unsigned(count, 0);
        };
        return OpenScripts{in_state(CommandState::kReceived), in_state(CommandState::kDelivered)};
    });
}

uint64_t Store::Bytes() {
    return Read(&TextBytes);
}

void Store::Probe() {
    {
        const std::lock_guard lock(mutex_);
        if (fault_.empty()) {
            return;
        }
    }
    try {
        Write([](SQLite::Database& database) { Execute(database, "UPDATE totals SET reports = reports"); });
    } catch (const StoreError&) {  // NOLINT(bugprone-empty-catch): the fault is noted
    }
}

}  // namespace qxpagent
