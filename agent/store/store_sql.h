#pragma once

#include <SQLiteCpp/SQLiteCpp.h>

#include <chrono>
#include <climits>
#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "agent/store/store_figures.h"

// Statements with their values, for the source files of the store.

namespace qxpagent {

/// Bytes that are bound without a copy: they must outlive the statement.
struct Blob {
    std::string_view bytes;
};

inline int64_t ToMilliseconds(WallTime time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

inline WallTime FromMilliseconds(int64_t milliseconds) {
    return WallTime(std::chrono::milliseconds(milliseconds));
}

inline void BindValue(SQLite::Statement& statement, int index, const std::string& text) {
    statement.bind(index, text);
}

inline void BindValue(SQLite::Statement& statement, int index, const Blob& blob) {
    if (blob.bytes.size() > INT_MAX) {
        throw StoreError("A text of " + std::to_string(blob.bytes.size()) + " bytes is too large for the store.");
    }
    statement.bindNoCopy(index, blob.bytes.data(), static_cast<int>(blob.bytes.size()));
}

inline void BindValue(SQLite::Statement& statement, int index, WallTime time) {
    statement.bind(index, ToMilliseconds(time));
}

template <std::integral Number>
void BindValue(SQLite::Statement& statement, int index, Number number) {
    statement.bind(index, static_cast<int64_t>(number));
}

/// A statement with its values bound in order, to be stepped.
template <typename... Values>
SQLite::Statement Prepare(const SQLite::Database& database, const std::string& sql, const Values&... values) {
    SQLite::Statement statement(database, sql);
    int index = 0;
    (BindValue(statement, ++index, values), ...);
    return statement;
}

/// Runs a statement that gives no row. Returns how many rows it changed.
template <typename... Values>
int Execute(const SQLite::Database& database, const std::string& sql, const Values&... values) {
    return Prepare(database, sql, values...).exec();
}

/// The one number that a statement gives; nothing when it gives no row or NULL.
template <typename... Values>
std::optional<int64_t> Number(const SQLite::Database& database, const std::string& sql, const Values&... values) {
    SQLite::Statement statement = Prepare(database, sql, values...);
    if (!statement.executeStep() || statement.getColumn(0).isNull()) {
        return std::nullopt;
    }
    return statement.getColumn(0).getInt64();
}

inline std::string Text(SQLite::Statement& statement, int column) {
    return statement.getColumn(column).getString();
}

inline uint64_t Unsigned(SQLite::Statement& statement, int column) {
    return static_cast<uint64_t>(statement.getColumn(column).getInt64());
}

inline std::optional<WallTime> Time(SQLite::Statement& statement, int column) {
    const SQLite::Column value = statement.getColumn(column);
    return value.isNull() ? std::nullopt : std::optional(FromMilliseconds(value.getInt64()));
}

}  // namespace qxpagent
