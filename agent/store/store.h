#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "agent/config/options.h"
#include "agent/records/command_record.h"
#include "agent/records/report.h"
#include "agent/records/report_document.h"
#include "agent/records/store_figures.h"
#include "base/unique_fd.h"

namespace SQLite {
class Database;
class Exception;
}  // namespace SQLite

namespace qxpagent {

struct StoreOptions {
    std::filesystem::path path;                 // database file; its directory must exist
    uint64_t max_bytes = 0;                     // of the file; 0: as much as the disk holds
    std::chrono::milliseconds busy{5000};       // how long a lock of another process is waited for
    std::chrono::milliseconds check_for{2000};  // how long the check at the start may take
};

/// A command to be journalled.
struct NewCommand {
    std::string id;
    std::string command;
    std::string text;  // the document
    std::string sha256;
    std::string refusal_reason;  // what to say should the plugin refuse it
    uint32_t scripts = 0;
    std::vector<std::string> expected;  // script ids that are to have a result, with repetitions
    qxpbase::Peer submitter;
    WallTime received;
};

enum class Admission { kNew, kKnown, kConflict };

/// What tells one state of a result file from another.
struct FileMark {
    std::string name;
    int64_t modified_ns = 0;  // since the epoch
    uint64_t size = 0;
    std::string sha256;
};

/// What became of a report.
struct Appended {
    uint64_t cursor = 0;   // 0: this state of its file was stored before
    bool refused = false;  // with it the plugin refused its command
};

/// Scripts of commands that are in no final state yet.
struct OpenScripts {
    uint64_t queued = 0;      // of commands that are journalled and not yet handed to the plugin
    uint64_t unreported = 0;  // handed to the plugin, without a result
};

/// What retention took away.
struct Removed {
    uint64_t commands = 0;
    uint64_t reports = 0;
    uint64_t unacknowledged = 0;  // of these reports
};

/// The durable store: the journal of commands and the reports, in one SQLite database. What a function has returned is
/// on the disk. A change that cannot be made is not made at all, and removes nothing. docs/decisions/008-durability.md
/// says what survives which failure, and why.
///
/// Every function may be called from any thread, and throws StoreError when the database cannot be read or written,
/// StoreFullError when there is no room. A write waits for the disk.
class Store {
public:
    /// Opens the database, or makes one (mode 0600). A damaged one is renamed aside with its date, and that is logged
    /// as an error. Throws StartupError: another agent uses it, it is locked, of a newer version, of another program,
    /// or cannot be made.
    explicit Store(const StoreOptions& options);
    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    /// Journals a command as received, unless its ID is there already. `known` is the command as it is now.
    Admission Admit(const NewCommand& command, CommandRecord& known);
    /// received → delivered. False when it is in another state.
    bool MarkDelivered(const std::string& id);
    /// delivered → received, for a command that certainly did not reach the plugin.
    void MarkReceived(const std::string& id);
    /// Removes a command that is received or delivered from the journal, so that it can be sent again.
    void Withdraw(const std::string& id);
    /// delivered → refused, for a refusal that came without a report. False when it is in another state.
    bool Refuse(const std::string& id, const std::string& reason);
    /// delivered → reported when no result is missing: for a command that runs nothing, and so has no report.
    void FinishIfReported(const std::string& id);
    /// delivered → interrupted, and stores the agent's report of that. Returns how many results are missing for good;
    /// nothing when the command is in another state.
    std::optional<size_t> Interrupt(const std::string& id, const std::string& reason);
    /// The document of a command that is in no final state yet; empty when there is none.
    std::string CommandText(const std::string& id);
    /// The IDs of the commands in a state, oldest change first.
    std::vector<std::string> IdsIn(CommandState state);
    std::optional<CommandRecord> FindCommand(const std::string& id);
    /// By sequence. Waits for a first match as long as the query says, or until StopWaiting.
    std::vector<CommandRecord> ListCommands(const CommandQuery& query);

    /// Stores a report and advances its command, in one transaction. With a mark, only if that state of that file was
    /// never stored before. `report.cursor`, `report.text` and `report.bytes` are ignored: a text can be over a hundred
    /// MiB, and is not copied.
    Appended Append(const Report& report, std::string_view text, const ReportContent& content,
                    const std::optional<FileMark>& mark = {});
    /// By cursor, at most kMostBytes of text but at least one report. Waits as ListCommands does.
    std::vector<Report> ListReports(const ReportQuery& query);
    std::optional<Report> FindReport(uint64_t cursor);
    /// Both return how many reports were not acknowledged before; cursors that do not exist are passed over.
    uint64_t Acknowledge(const std::vector<uint64_t>& cursors);
    uint64_t AcknowledgeUpTo(uint64_t cursor);
    /// True when a file of this name, time and size has been stored.
    bool HasFile(const std::string& name, int64_t modified_ns, uint64_t size);
    static constexpr uint64_t kMostBytes = uint64_t{16} << 20;  // of text in one answer of ListReports

    /// All of one moment, but the fault.
    StoreFigures Figures();
    OpenScripts ScriptsWithoutResult();
    /// Of all texts in the store. Reads one row, so it can be asked often.
    uint64_t Bytes();
    /// Removes commands in a final state and acknowledged reports that are older than the age, then, while all texts
    /// are larger than the limit, reports: acknowledged ones first, oldest first. Returns the room to the file system.
    Removed Retain(const Retention& retention, WallTime now);
    /// Forgets marks of files that were stored before `before`, except those of the files named in `keep`.
    void ForgetFiles(WallTime before, const std::vector<std::string>& keep);
    /// While there is a fault, tries whether the store can be written again; Figures().fault tells.
    void Probe();
    /// Ends every wait, now and from now on.
    void StopWaiting();

private:
    template <typename Work>
    auto Write(const Work& work);
    template <typename Work>
    auto Read(const Work& work);
    template <typename Find>
    auto WaitFor(std::chrono::milliseconds wait, const Find& find);
    [[noreturn]] void Fail(const SQLite::Exception& error, const SQLite::Database& database, bool writing);
    void NoteChange();
    bool RemoveSome(const Retention& retention, WallTime now, Removed& removed);
    void GiveRoomBack();

    // Constant after construction.
    const StoreOptions options_;
    qxpbase::UniqueFd lock_;

    std::mutex write_mutex_;
    std::unique_ptr<SQLite::Database> writer_;  // guarded by write_mutex_

    std::mutex read_mutex_;
    // Guarded by read_mutex_. A connection of its own, so that no reader waits while a write waits for the disk.
    std::unique_ptr<SQLite::Database> reader_;

    std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_, which is locked after the others.
    uint64_t changes_ = 0;
    bool stopped_ = false;
    std::string fault_;
};

}  // namespace qxpagent
