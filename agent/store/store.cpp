#include "agent/store/store.h"

#include <sqlite3.h>

#include <cerrno>
#include <utility>

#include "agent/store/store_access.h"
#include "agent/store/store_file.h"
#include "agent/store/store_sql.h"

namespace qxpagent {

namespace {

bool HasNoRoom(int code, int system_error) {
    return code == SQLITE_FULL || (code == SQLITE_IOERR && (system_error == ENOSPC || system_error == EDQUOT));
}

std::string Explain(const std::string& path, int code, const char* text) {
    switch (code) {
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            return "The store " + path + " is locked by another process.";
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
            return "The store " + path + " is damaged (" + text + "): the next start of the agent checks it.";
        default:
            return "The store " + path + " cannot be read or written: " + text + ".";
    }
}

}  // namespace

Store::Store(const StoreOptions& options)
    : options_(options), lock_(LockStore(options.path)), writer_(OpenStore(options)), reader_(OpenReader(options)) {
}

Store::~Store() {
    StopWaiting();
}

void Store::Fail(const SQLite::Exception& error, const SQLite::Database& database, bool writing) {
    const int code = error.getErrorCode() & 0xFF;
    const bool full = HasNoRoom(code, sqlite3_system_errno(database.getHandle()));
    const bool damaged = code == SQLITE_CORRUPT || code == SQLITE_NOTADB;
    const std::string text = full ? "The store " + options_.path.string() + " has no room: " + error.what() + "."
                                  : Explain(options_.path.string(), code, error.what());
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

uint64_t Store::Changes() {
    const std::lock_guard lock(mutex_);
    return changes_;
}

bool Store::AwaitChange(uint64_t known, std::chrono::steady_clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    const bool woken = changed_.wait_until(lock, deadline, [&] { return stopped_ || changes_ != known; });
    return woken && !stopped_;
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
        found.last_cursor =
            static_cast<uint64_t>(Number(database, "SELECT seq FROM sqlite_sequence WHERE name='reports'").value_or(0));
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
            return static_cast<uint64_t>(
                Number(database,
                       "SELECT count(*) FROM commands JOIN expectations ON expectations.command = number "
                       "WHERE state = ?",
                       static_cast<int>(state))
                    .value_or(0));
        };
        return OpenScripts{in_state(CommandState::kReceived), in_state(CommandState::kDelivered)};
    });
}

uint64_t Store::Bytes() {
    return Read([](SQLite::Database& database) {
        return static_cast<uint64_t>(Number(database, "SELECT bytes FROM totals").value_or(0));
    });
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
