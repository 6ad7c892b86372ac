#include "agent/store/store_file.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <ctime>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "agent/log.h"
#include "agent/store/store_schema.h"
#include "agent/store/store_sql.h"
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

// Interrupts the use of a database after a time, unless it has ended before.
class TimeLimit {
public:
    TimeLimit(sqlite3* database, std::chrono::milliseconds limit)
        : thread_([this, database, limit] {
              std::unique_lock lock(mutex_);
              if (!ended_.wait_for(lock, limit, [this] { return end_; })) {
                  sqlite3_interrupt(database);
              }
          }) {}
    ~TimeLimit() {
        {
            const std::lock_guard lock(mutex_);
            end_ = true;
        }
        ended_.notify_all();
        thread_.join();
    }
    TimeLimit(const TimeLimit&) = delete;
    TimeLimit& operator=(const TimeLimit&) = delete;

private:
    std::mutex mutex_;
    std::condition_variable ended_;
    bool end_ = false;  // guarded by mutex_
    std::thread thread_;
};

// The check reads every page, so a large database is checked only as far as the time goes: what is damaged beyond that
// is noticed when it is read, and then the next start checks all.
void Check(SQLite::Database& database, const StoreOptions& options) {
    const bool suspect = access(SuspectPath(options.path).c_str(), F_OK) == 0;
    std::optional<TimeLimit> limit;
    if (!suspect) {
        limit.emplace(database.getHandle(), options.check_for);
    }
    try {
        SQLite::Statement check(database, "PRAGMA quick_check(1)");
        if (check.executeStep() && Text(check, 0) != "ok") {
            throw Damaged(Text(check, 0));
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
    // Pages that are given up are not overwritten where that means to read and write them only for it: with a document
    // of 100 MiB that is as much memory and as much log.
    database->exec(
        "PRAGMA synchronous=FULL; PRAGMA foreign_keys=OFF; PRAGMA temp_store=MEMORY; PRAGMA secure_delete=FAST");
    return database;
}

std::unique_ptr<SQLite::Database> OpenAndCheck(const StoreOptions& options) {
    std::unique_ptr<SQLite::Database> database = Connect(options);
    CheckOwner(*database, options.path.string());
    // Only of effect while there is no table yet.
    database->exec("PRAGMA auto_vacuum=INCREMENTAL");
    database->exec("PRAGMA journal_mode=WAL");
    database->exec("PRAGMA journal_size_limit=" + std::to_string(kWalBytes));
    Check(*database, options);
    PrepareSchema(*database);
    if (options.max_bytes != 0) {
        const int64_t page = Number(*database, "PRAGMA page_size").value_or(4096);
        database->exec("PRAGMA max_page_count=" +
                       std::to_string(std::max<int64_t>(1, static_cast<int64_t>(options.max_bytes) / page)));
    }
    return database;
}

// Made by us and not by the library, for its mode.
void MakeFile(const std::filesystem::path& path) {
    const qxpbase::UniqueFd file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0600));
    struct stat status {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0) {
        throw qxpbase::StartupError("The store " + path.string() + " cannot be opened: " + qxpbase::ErrnoText(errno) +
                                    ". Create its directory, or name another file with --store.");
    }
    if (!S_ISREG(status.st_mode)) {
        throw qxpbase::StartupError("The store " + path.string() + " is no regular file: name another with --store.");
    }
    if ((status.st_mode & 077) != 0) {
        fchmod(file.Get(), 0600);
    }
}

std::string DateText() {
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    char text[32] = {};
    strftime(text, sizeof text, "%Y%m%dT%H%M%S", &local);
    return text;
}

// The log of changes goes with its database: it is useless without, and would be applied to the next one.
void SetAside(const std::filesystem::path& path, const std::string& reason) {
    std::string aside = path.string() + ".corrupt-" + DateText();
    for (int number = 2; access(aside.c_str(), F_OK) == 0; ++number) {
        aside = path.string() + ".corrupt-" + DateText() + "-" + std::to_string(number);
    }
    for (const char* const part : {"-wal", "-shm", ""}) {
        if (rename((path.string() + part).c_str(), (aside + part).c_str()) != 0 && errno != ENOENT) {
            throw qxpbase::StartupError("The store " + path.string() + " is damaged (" + reason +
                                        ") and cannot be renamed: " + qxpbase::ErrnoText(errno) + ". Move it away.");
        }
    }
    unlink(SuspectPath(path).c_str());
    QXPAGENT_LOG(kLogError, "the store %s is damaged (%s): it was renamed to %s, and a new one is begun", path.c_str(),
                 reason.c_str(), aside.c_str());
}

[[noreturn]] void RefuseToStart(const std::filesystem::path& path, const SQLite::Exception& error) {
    const bool locked = error.getErrorCode() == SQLITE_BUSY || error.getErrorCode() == SQLITE_LOCKED;
    throw qxpbase::StartupError("The store " + path.string() +
                                (locked ? " is locked by another process: end that, or name another file with --store."
                                        : " cannot be opened: " + std::string(error.what()) + "."));
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
        throw qxpbase::StartupError("The lock file " + name +
                                    " cannot be opened: " + qxpbase::ErrnoText(error.code().value()) +
                                    ". Create its directory, or name another file with --store.");
    }
    throw qxpbase::StartupError("Another agent uses the store " + path.string() +
                                ": stop it, or name another file with --store.");
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
            throw qxpbase::StartupError("The store " + options.path.string() + " cannot be made: " + damage + ".");
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
