#include "agent/store/store_access.h"
#include "base/startup_error.h"

namespace qxpagent {

namespace {

constexpr int64_t kApplicationId = 0x51585041;  // "QXPA", in the database's header
constexpr int64_t kVersion = 1;

// Times are milliseconds since the epoch; states and sources are the numbers of CommandState and ReportSource. Large
// texts have tables of their own, so that a change of a row does not write them again. A row of `expectations` is one
// script that is to have a result and has none; a row of `runs` is a result that was counted. The triggers keep the one
// row of `totals`, since counting takes longer the more there is.
constexpr char kVersion1[] = R"sql(
CREATE TABLE totals(
  one INTEGER PRIMARY KEY CHECK (one = 1),
  sequence INTEGER NOT NULL, reports INTEGER NOT NULL, pending INTEGER NOT NULL, bytes INTEGER NOT NULL);
INSERT INTO totals VALUES(1, 0, 0, 0, 0);

CREATE TABLE commands(
  number INTEGER PRIMARY KEY AUTOINCREMENT,
  id TEXT NOT NULL UNIQUE, command TEXT NOT NULL, sequence INTEGER NOT NULL UNIQUE, state INTEGER NOT NULL,
  reason TEXT NOT NULL, refusal_reason TEXT NOT NULL, scripts INTEGER NOT NULL, expected INTEGER NOT NULL,
  bytes INTEGER NOT NULL, sha256 TEXT NOT NULL,
  uid INTEGER NOT NULL, gid INTEGER NOT NULL, pid INTEGER NOT NULL, user TEXT NOT NULL,
  received INTEGER NOT NULL, delivered INTEGER, finished INTEGER);
CREATE INDEX commands_state ON commands(state, sequence);
CREATE INDEX commands_finished ON commands(finished) WHERE finished IS NOT NULL;
CREATE TABLE command_texts(command INTEGER PRIMARY KEY, bytes INTEGER NOT NULL, text BLOB NOT NULL);
CREATE TABLE expectations(
  command INTEGER NOT NULL, position INTEGER NOT NULL, script TEXT NOT NULL,
  PRIMARY KEY(command, position)) WITHOUT ROWID;
CREATE TABLE runs(
  command INTEGER NOT NULL, script TEXT NOT NULL, start TEXT NOT NULL, file TEXT NOT NULL,
  PRIMARY KEY(command, script, start, file)) WITHOUT ROWID;

CREATE TABLE reports(
  cursor INTEGER PRIMARY KEY AUTOINCREMENT,
  id TEXT NOT NULL, source INTEGER NOT NULL, file TEXT NOT NULL, received INTEGER NOT NULL, acknowledged INTEGER,
  json_data_type INTEGER NOT NULL, value INTEGER NOT NULL, bytes INTEGER NOT NULL);
CREATE INDEX reports_id ON reports(id);
CREATE INDEX reports_source ON reports(source);
CREATE INDEX reports_pending ON reports(cursor) WHERE acknowledged IS NULL;
CREATE INDEX reports_acknowledged ON reports(cursor) WHERE acknowledged IS NOT NULL;
CREATE TABLE report_texts(cursor INTEGER PRIMARY KEY, text BLOB NOT NULL);
CREATE TABLE files(
  name TEXT NOT NULL, modified INTEGER NOT NULL, size INTEGER NOT NULL, sha256 TEXT NOT NULL, stored INTEGER NOT NULL,
  PRIMARY KEY(name, modified, size, sha256)) WITHOUT ROWID;

CREATE TRIGGER command_text_added AFTER INSERT ON command_texts BEGIN
  UPDATE totals SET bytes = bytes + new.bytes;
END;
CREATE TRIGGER command_text_removed AFTER DELETE ON command_texts BEGIN
  UPDATE totals SET bytes = bytes - old.bytes;
END;
CREATE TRIGGER report_added AFTER INSERT ON reports BEGIN
  UPDATE totals SET reports = reports + 1, pending = pending + (new.acknowledged IS NULL), bytes = bytes + new.bytes;
END;
CREATE TRIGGER report_removed AFTER DELETE ON reports BEGIN
  DELETE FROM report_texts WHERE cursor = old.cursor;
  UPDATE totals SET reports = reports - 1, pending = pending - (old.acknowledged IS NULL), bytes = bytes - old.bytes;
END;
CREATE TRIGGER report_acknowledged AFTER UPDATE OF acknowledged ON reports
WHEN old.acknowledged IS NULL AND new.acknowledged IS NOT NULL BEGIN
  UPDATE totals SET pending = pending - 1;
END;
)sql";

}  // namespace

void RequireOwnDatabase(SQLite::Database& database, const std::string& name) {
    const bool has_tables = database.execAndGet("SELECT count(*) FROM sqlite_schema").getInt64() != 0;
    if (has_tables && database.execAndGet("PRAGMA application_id").getInt64() != kApplicationId) {
        throw qxpbase::StartupError(
            fmt::format("The store {} is another program's database: name another file with --store.", name));
    }
    const int64_t version = database.execAndGet("PRAGMA user_version").getInt64();
    if (version > kVersion) {
        throw qxpbase::StartupError(
            fmt::format("The store {} was made by a newer agent (version {} of the store, this agent knows {}): "
                        "install that agent again, or name another file with --store.",
                        name, version, kVersion));
    }
}

void PrepareSchema(SQLite::Database& database) {
    SQLite::Transaction transaction(database, SQLite::TransactionBehavior::IMMEDIATE);
    if (database.execAndGet("PRAGMA user_version").getInt64() < 1) {
        database.exec(kVersion1);
        database.exec(fmt::format("PRAGMA application_id={}; PRAGMA user_version={}", kApplicationId, kVersion));
    }
    // Later than version 1, which stays: an older agent does without the one and does not miss the other.
    database.exec(
        "CREATE INDEX IF NOT EXISTS reports_ageing ON reports(received) WHERE acknowledged IS NOT NULL;"
        "DROP INDEX IF EXISTS reports_received");
    transaction.commit();
}

}  // namespace qxpagent
