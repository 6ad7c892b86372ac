#pragma once

#include <SQLiteCpp/SQLiteCpp.h>
#include <SQLiteCpp/VariadicBind.h>

#include <climits>
#include <concepts>
#include <string>
#include <string_view>
#include <type_traits>

#include <fmt/core.h>

#include "agent/store/store.h"

// What the source files of the store share: its file and tables, transactions, statements with their values, and
// changes that several functions make within their transactions.

namespace qxpagent {

/// Takes the lock beside the database (PATH.lock, which stays in place). Throws StartupError when another agent has it.
qxpbase::UniqueFd LockStore(const std::filesystem::path& path);

/// Opens the database for writing, with the schema in place; see Store. The lock must be held. Throws StartupError.
std::unique_ptr<SQLite::Database> OpenStore(const StoreOptions& options);

/// A second connection, for reading. Throws StartupError.
std::unique_ptr<SQLite::Database> OpenReader(const StoreOptions& options);

/// Leaves a mark beside the database, so that the next start checks all of it.
void MarkSuspect(const std::filesystem::path& path);

/// Throws StartupError when the database is another program's or of a newer version. Changes nothing.
void RequireOwnDatabase(SQLite::Database& database, const std::string& name);

/// Brings the tables of a database to the present version, in one transaction. Throws SQLite::Exception.
void PrepareSchema(SQLite::Database& database);

/// Runs `work` in one transaction, which is on the disk when this returns.
template <typename Work>
auto Store::Write(const Work& work) {
    const std::lock_guard lock(write_mutex_);
    try {
        SQLite::Transaction transaction(*writer_, SQLite::TransactionBehavior::IMMEDIATE);
        if constexpr (std::is_void_v<decltype(work(*writer_))>) {
            work(*writer_);
            transaction.commit();
            NoteChange();
        } else {
            auto result = work(*writer_);
            transaction.commit();
            NoteChange();
            return result;
        }
    } catch (const SQLite::Exception& error) {
        Fail(error, *writer_, true);
    }
}

/// Runs `work` on one state of the database.
template <typename Work>
auto Store::Read(const Work& work) {
    const std::lock_guard lock(read_mutex_);
    try {
        const SQLite::Transaction snapshot(*reader_);
        return work(*reader_);
    } catch (const SQLite::Exception& error) {
        Fail(error, *reader_, false);
    }
}

/// Asks `find` until it finds something, the time is over, or waiting has been ended. The number of changes is read
/// before `find` looks, so that a change beside it is not missed.
template <typename Find>
auto Store::WaitFor(std::chrono::milliseconds wait, const Find& find) {
    const auto deadline = std::chrono::steady_clock::now() + wait;
    std::unique_lock lock(mutex_);
    for (;;) {
        const uint64_t known = changes_;
        lock.unlock();
        auto found = find();
        lock.lock();
        const bool changed =
            found.empty() && changed_.wait_until(lock, deadline, [&] { return stopped_ || changes_ != known; });
        if (!changed || stopped_) {
            return found;
        }
    }
}

/// Values as SQLite keeps them: times as milliseconds since the epoch, states and sources as their numbers.
inline int64_t ToSql(WallTime time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}
inline const std::string& ToSql(const std::string& text) {
    return text;
}
template <typename Number>
requires std::integral<Number> || std::is_enum_v<Number> int64_t ToSql(Number number) {
    return static_cast<int64_t>(number);
}

/// A statement with its values bound in order, to be stepped.
template <typename... Values>
SQLite::Statement Prepare(const SQLite::Database& database, const std::string& sql, const Values&... values) {
    SQLite::Statement statement(database, sql);
    SQLite::bind(statement, ToSql(values)...);
    return statement;
}

/// Runs a statement that gives no row. Returns how many rows it changed.
template <typename... Values>
int Execute(const SQLite::Database& database, const std::string& sql, const Values&... values) {
    return Prepare(database, sql, values...).exec();
}

/// Inserts a row whose last value is a text that is not copied: it can be over a hundred MiB.
template <typename... Values>
void InsertText(const SQLite::Database& database, const std::string& sql, std::string_view text,
                const Values&... values) {
    if (text.size() > INT_MAX) {
        throw StoreError(fmt::format("A text of {} bytes is too large for the store.", text.size()));
    }
    SQLite::Statement statement = Prepare(database, sql, values...);
    statement.bindNoCopy(sizeof...(values) + 1, text.data(), static_cast<int>(text.size()));
    statement.exec();
}

/// The one number that a statement gives; nothing when it gives no row.
template <typename... Values>
std::optional<int64_t> FindNumber(const SQLite::Database& database, const std::string& sql, const Values&... values) {
    SQLite::Statement statement = Prepare(database, sql, values...);
    return statement.executeStep() ? std::optional(statement.getColumn(0).getInt64()) : std::nullopt;
}

/// What `read` makes of each row.
template <typename ReadRow>
auto Rows(SQLite::Statement statement, const ReadRow& read) {
    std::vector<decltype(read(statement))> rows;
    while (statement.executeStep()) {
        rows.push_back(read(statement));
    }
    return rows;
}

inline std::string Text(SQLite::Statement& statement, int column) {
    return statement.getColumn(column).getString();
}

inline uint64_t Unsigned(SQLite::Statement& statement, int column) {
    return static_cast<uint64_t>(statement.getColumn(column).getInt64());
}

inline std::optional<WallTime> Time(SQLite::Statement& statement, int column) {
    const SQLite::Column value = statement.getColumn(column);
    return value.isNull() ? std::nullopt : std::optional(WallTime(std::chrono::milliseconds(value.getInt64())));
}

/// Of all texts in the store.
inline uint64_t TextBytes(SQLite::Database& database) {
    return static_cast<uint64_t>(database.execAndGet("SELECT bytes FROM totals").getInt64());
}

/// The next sequence, which no command has had.
int64_t NextSequence(SQLite::Database& database);

/// Puts a command into a final state. Its document is not kept longer than that.
void FinishCommand(SQLite::Database& database, int64_t number, CommandState state, const std::string& reason);

/// Removes a command with all that belongs to it, but its reports.
void RemoveCommand(SQLite::Database& database, int64_t number);

/// Adds a report and returns its cursor. `report.cursor`, `report.text` and `report.bytes` are ignored.
uint64_t InsertReport(SQLite::Database& database, const Report& report, std::string_view text);

}  // namespace qxpagent
