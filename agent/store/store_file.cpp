#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <stop_token>
#include <system_error>
#include <thread>
#include <utility>

#include <fmt/chrono.h>

#include "agent/log.h"
#include "agent/store/store_access.h"
#include "base/errno_text.h"
#include "base/lock_file.h"
#include "base/startup_error.h"

namespace qxpagent {

namespace {

constexpr int64_t kWalBytes = int64_t{64} << 20;  // what is left of a write-ahead log that has grown

// The database is damaged, as far as its first use tells.
class Damaged : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

std::string SuspectPath(const std::filesystem::path& path) {
    return path.string() + ".suspect";
}

// Interrupts the use of a database after a time, unless the thread that is returned is destroyed before. A thread,
// since SQLite 3.40 calls a progress handler not once while the check walks over the pages, which takes most of its
// time.
std::jthread InterruptAfter(std::chrono::milliseconds limit, sqlite3* database) {
    return std::jthread([database, limit](const std::stop_token& end) {
        std::mutex mutex;
        std::unique_lock lock(mutex);
        std::condition_variable_any ended;
        ended.wait_for(lock, end, limit, [] { return false; });
        if (!end.stop_requested()) {
            sqlite3_interrupt(database);
        }
    });
}

// The check reads every page, so a large database is checked only as far as the time goes: what is damaged beyond that
// is noticed when it is read, and then the next start checks all.
void Check(SQLite::Database& database, const StoreOptions& options) {
    const bool suspect = access(SuspectPath(options.path).c_str(), F_OK) == 0;
    std::jthread limit;
    if (!suspect) {
        limit = InterruptAfter(options.check_for, database.getHandle());
    }
    try {
        const std::string found = database.execAndGet("PRAGMA quick_check(1)").getString();
        if (found != "ok") {
            throw Damaged(found);
        }
    } catch (const SQLite::Exception& error) {
        if (error.getErrorCode() != SQLITE_INTERRUPT) {
            throw;
        }
        QXPAGENT_LOG(kLogInfo, "the store %s is large: a part of it was checked", options.path.c_str());
    }
    if (suspect) {
        unlink(SuspectPath(options.path).c_str());
    }
}

std::unique_ptr<SQLite::Database> Connect(const StoreOptions& options) {
    auto database = std::make_unique<SQLite::Database>(options.path.string(), SQLite::OPEN_READWRITE,
                                                       static_cast<int>(options.busy.count()));
    // FULL, since with a write-ahead log NORMAL would lose commits that have returned when the power fails. Temporary
    // tables stay in memory: the agent writes nowhere but into its own directories. secure_delete=FAST does not
    // overwrite pages where that means to read and write them only for it: with a document of 100 MiB that is as much
    // memory and as much log.
    database->exec(
        "PRAGMA synchronous=FULL; PRAGMA foreign_keys=OFF; PRAGMA temp_store=MEMORY; PRAGMA secure_delete=FAST");
    return database;
}

std::unique_ptr<SQLite::Database> OpenAndCheck(const StoreOptions& options) {
    std::unique_ptr<SQLite::Database> database = Connect(options);
    RequireOwnDatabase(*database, options.path.string());
    // auto_vacuum has an effect only while there is no table, so it stands before the schema. Incremental, so that room
    // is given back where Retain says, and not with each commit.
    database->exec("PRAGMA auto_vacuum=INCREMENTAL");
    database->exec(fmt::format("PRAGMA journal_mode=WAL; PRAGMA journal_size_limit={}", kWalBytes));
    Check(*database, options);
    PrepareSchema(*database);
    if (options.max_bytes != 0) {
        const int64_t page = database->execAndGet("PRAGMA page_size").getInt64();
        const int64_t pages = std::max<int64_t>(1, static_cast<int64_t>(options.max_bytes) / page);
        database->exec(fmt::format("PRAGMA max_page_count={}", pages));
    }
    return database;
}

// Made here and not by SQLite, for its mode: SQLite gives the log of changes the same.
void MakeFile(const std::filesystem::path& path) {
    const qxpbase::UniqueFd file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0600));
    struct stat status {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0) {
        throw qxpbase::StartupError(
            fmt::format("The store {} cannot be opened: {}. Create its directory, or name another file with --store.",
                        path.string(), qxpbase::ErrnoText(errno)));
    }
    if (!S_ISREG(status.st_mode)) {
        throw qxpbase::StartupError(
            fmt::format("The store {} is no regular file: name another with --store.", path.string()));
    }
    if ((status.st_mode & 077) != 0) {
        fchmod(file.Get(), 0600);
    }
}

// The log of changes goes with its database: it is useless without, and would be applied to the next one.
void SetAside(const std::filesystem::path& path, const std::string& reason) {
    const std::string dated =
        fmt::format("{}.corrupt-{:%Y%m%dT%H%M%S}", path.string(), fmt::localtime(std::chrono::system_clock::now()));
    std::string aside = dated;
    for (int number = 2; access(aside.c_str(), F_OK) == 0; ++number) {
        aside = fmt::format("{}-{}", dated, number);
    }
    for (const char* const part : {"-wal", "-shm", ""}) {
        if (rename((path.string() + part).c_str(), (aside + part).c_str()) != 0 && errno != ENOENT) {
            throw qxpbase::StartupError(
                fmt::format("The store {} is damaged ({}) and cannot be renamed: {}. Move it away.", path.string(),
                            reason, qxpbase::ErrnoText(errno)));
        }
    }
    unlink(SuspectPath(path).c_str());
    QXPAGENT_LOG(kLogError, "the store %s is damaged (%s): it was renamed to %s, and a new one is begun", path.c_str(),
                 reason.c_str(), aside.c_str());
}

[[noreturn]] void RefuseToStart(const std::filesystem::path& path, const SQLite::Exception& error) {
    const bool locked = error.getErrorCode() == SQLITE_BUSY || error.getErrorCode() == SQLITE_LOCKED;
    throw qxpbase::StartupError(
        locked ? fmt::format("The store {} is locked by another process: end that, or name another file with --store.",
                             path.string())
               : fmt::format("The store {} cannot be opened: {}.", path.string(), error.what()));
}

}  // namespace

qxpbase::UniqueFd LockStore(const std::filesystem::path& path) {
    const std::string name = path.string() + ".lock";
    try {
        std::optional<qxpbase::UniqueFd> lock = qxpbase::AcquireLockFile(name);
        if (lock.has_value()) {
            return std::move(*lock);
        }
    } catch (const std::system_error& error) {
        throw qxpbase::StartupError(fmt::format(
            "The lock file {} cannot be opened: {}. Create its directory, or name another file with --store.", name,
            qxpbase::ErrnoText(error.code().value())));
    }
    throw qxpbase::StartupError(
        fmt::format("Another agent uses the store {}: stop it, or name another file with --store.", path.string()));
}

std::unique_ptr<SQLite::Database> OpenStore(const StoreOptions& options) {
    for (bool again = false;; again = true) {
        std::string damage;
        MakeFile(options.path);
        try {
            return OpenAndCheck(options);
        } catch (const Damaged& error) {
            damage = error.what();
        } catch (const SQLite::Exception& error) {
            if (error.getErrorCode() != SQLITE_CORRUPT && error.getErrorCode() != SQLITE_NOTADB) {
                RefuseToStart(options.path, error);
            }
            damage = error.what();
        }
        if (again) {
            throw qxpbase::StartupError(fmt::format("The store {} cannot be made: {}.", options.path.string(), damage));
        }
        SetAside(options.path, damage);
    }
}

std::unique_ptr<SQLite::Database> OpenReader(const StoreOptions& options) {
    try {
        std::unique_ptr<SQLite::Database> database = Connect(options);
        database->exec("PRAGMA query_only=1");
        return database;
    } catch (const SQLite::Exception& error) {
        RefuseToStart(options.path, error);
    }
}

void MarkSuspect(const std::filesystem::path& path) {
    const qxpbase::UniqueFd mark(
        open(SuspectPath(path).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY, 0600));
}

}  // namespace qxpagent
