#pragma once

#include <SQLiteCpp/SQLiteCpp.h>

#include <cstdint>
#include <string>

#include "agent/records/command_record.h"
#include "agent/records/report.h"

// Changes that several functions of the store make within their transactions.

namespace qxpagent {

/// The next sequence, which no command has had.
int64_t NextSequence(SQLite::Database& database);

/// Gives a command its final word. Its document is not kept longer than that.
void FinishCommand(SQLite::Database& database, int64_t number, CommandState state, const std::string& reason);

/// Removes a command with all that belongs to it, but its reports.
void RemoveCommand(SQLite::Database& database, int64_t number);

/// Adds a report and returns its cursor. `report.cursor` and `report.bytes` are ignored.
uint64_t InsertReport(SQLite::Database& database, const Report& report, std::string_view text);

}  // namespace qxpagent
