#pragma once

#include <memory>

#include "agent/store/store.h"

// The database as a file: making, checking and setting it aside.

namespace qxpagent {

/// Takes the lock beside the database (PATH.lock, which stays in place). Throws StartupError when another agent has it.
qxpbase::UniqueFd LockStore(const std::filesystem::path& path);

/// Opens the database for writing, with the schema in place; see Store. The lock must be held. Throws StartupError.
std::unique_ptr<SQLite::Database> OpenStore(const StoreOptions& options);

/// A second connection, for reading. Throws StartupError.
std::unique_ptr<SQLite::Database> OpenReader(const StoreOptions& options);

/// Leaves a mark beside the database, so that the next start checks all of it.
void MarkSuspect(const std::filesystem::path& path);

}  // namespace qxpagent
