#pragma once

#include <string>

namespace SQLite {
class Database;
}

namespace qxpagent {

/// Throws StartupError when the database is another program's or of a newer version. Changes nothing.
void CheckOwner(SQLite::Database& database, const std::string& name);

/// Brings the tables of a database to the present version. Throws SQLite::Exception.
void PrepareSchema(SQLite::Database& database);

}  // namespace qxpagent
