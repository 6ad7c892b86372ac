#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace qxpagent {

using WallTime = std::chrono::system_clock::time_point;

/// Who sent a request, as the kernel says.
struct Peer {
    uid_t uid = 0;
    gid_t gid = 0;
    pid_t pid = 0;
    std::string user;  // the name of uid, or its number when it has none
};

/// The life of a command. It ends in one of the last three, its final word, and never leaves that.
///
///   received     journalled, not yet handed to the plugin
///   delivered    marked before it is handed to the plugin, so that a crash never delivers twice
///   refused      the plugin refused it, or could not take it
///   reported     every result that it was to have is in the store
///   interrupted  the agent ended before that
enum class CommandState { kReceived, kDelivered, kRefused, kReported, kInterrupted };

/// One command as the journal has it.
struct CommandRecord {
    std::string id;
    std::string command;    // "RunScriptNormal" and so on
    uint64_t sequence = 0;  // grows with every change of any command: what is newer than a sequence has changed since
    CommandState state = CommandState::kReceived;
    std::string reason;  // of refused and interrupted, in plain words
    uint32_t scripts = 0;
    uint32_t expected = 0;                // scripts that are to have a result
    std::vector<std::string> unreported;  // script ids of those that have none yet
    uint64_t bytes = 0;                   // of the document
    std::string sha256;                   // of the document, hexadecimal
    Peer submitter;
    WallTime received;
    std::optional<WallTime> delivered;
    std::optional<WallTime> finished;
};

enum class SubmitStatus {
    kTaken,           // journalled and handed to the plugin; its state tells what came of that
    kKnown,           // the same text was submitted before: nothing was done
    kConflict,        // another text was submitted under this ID before
    kUnacceptable,    // the door check refused it; detail names the member
    kNotRunning,      // the agent is stopping, or the plugin is not started
    kBusy,            // too much is waiting already
    kStorageFull,     // the journal has no room
    kStorageFailed,   // the journal cannot be written
    kNotAcknowledged  // handed to the plugin, which has not said so in time; it may still run it
};

struct SubmitOutcome {
    SubmitStatus status = SubmitStatus::kTaken;
    std::string detail;                    // one sentence, when it was not taken
    std::optional<CommandRecord> command;  // as it is now: of kTaken, kKnown, kNotAcknowledged
};

struct CommandQuery {
    std::optional<CommandState> state;
    uint64_t after = 0;  // only commands with a greater sequence
    size_t limit = 100;
    std::chrono::milliseconds wait{0};  // for the first match
};

/// Where a report came from: the plugin's message, a result file of the plugin, or the agent itself (the final word
/// of a command that was interrupted).
enum class ReportSource { kPlugin, kFile, kAgent };

/// One report. Cursors are 1, 2, 3, … in order of arrival, and are never used again.
struct Report {
    uint64_t cursor = 0;
    std::string id;  // the report's "ID", empty when it has none
    ReportSource source = ReportSource::kPlugin;
    std::string file;  // the result file's name; empty unless kFile
    WallTime received;
    std::optional<WallTime> acknowledged;
    uint32_t json_data_type = 0;
    int32_t value = 0;
    std::string text;    // left out where a query says so
    uint64_t bytes = 0;  // of the text
};

struct ReportQuery {
    std::optional<std::string> id;       // only reports with this ID
    std::optional<ReportSource> source;  // only reports from there
    std::optional<bool> acknowledged;    // only those that are, or are not
    uint64_t after = 0;                  // only reports with a greater cursor
    size_t limit = 1000;
    bool with_text = true;
    std::chrono::milliseconds wait{0};  // for the first match
};

struct StoreFigures {
    uint64_t reports = 0;
    uint64_t reports_pending = 0;  // not yet acknowledged
    uint64_t last_cursor = 0;      // of the newest report ever stored, 0 when there was none
    std::optional<WallTime> oldest_pending;
    uint64_t bytes = 0;                       // of all texts in the store
    uint64_t last_sequence = 0;               // of the newest change of a command
    std::map<CommandState, uint64_t> states;  // commands in the journal
    std::string fault;                        // why the store takes nothing at present; empty: it does
};

/// What has happened since the agent started.
struct AgentCounters {
    uint64_t commands_taken = 0;
    uint64_t commands_refused_at_door = 0;
    uint64_t commands_refused_by_plugin = 0;
    uint64_t runs_succeeded = 0;
    uint64_t runs_failed = 0;
    uint64_t runs_timed_out = 0;
    uint64_t runs_interrupted = 0;
    uint64_t output_bytes = 0;
    std::vector<std::pair<double, uint64_t>> run_seconds;  // upper bound, runs at most that long; the last is infinity
    double run_seconds_sum = 0;
    uint64_t removed_undelivered = 0;  // reports that retention removed before anybody acknowledged them
    uint64_t reports_lost = 0;         // that neither the store nor the memory had room for
};

struct AgentStatus {
    std::string version;
    unsigned int plugin_status = 0;
    std::string plugin_version;
    std::chrono::seconds uptime{0};
    std::filesystem::path data_directory;
    std::filesystem::path policy_directory;
    std::filesystem::path process_directory;
    std::filesystem::path result_directory;
    uint64_t scripts_queued = 0;   // scripts of commands that are not yet handed to the plugin
    uint64_t scripts_waiting = 0;  // scripts of delivered commands that have no result yet
    uint64_t reports_waiting = 0;  // in memory, for a store that takes nothing
    StoreFigures store;
    AgentCounters counters;
};

/// The store could not be read or written; the text says why.
class StoreError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// What the API asks of the agent. Called from several threads at once. All but Submit throw StoreError when the store
/// cannot be read.
class AgentControl {
public:
    virtual ~AgentControl() = default;

    /// Checks, journals and delivers a command document.
    virtual SubmitOutcome Submit(std::string document, const Peer& peer) = 0;
    virtual std::optional<CommandRecord> FindCommand(const std::string& id) = 0;
    /// By sequence, oldest change first.
    virtual std::vector<CommandRecord> ListCommands(const CommandQuery& query) = 0;

    /// By cursor, oldest first: at most `limit` reports and about 16 MiB of text, but at least one when any matches.
    virtual std::vector<Report> ListReports(const ReportQuery& query) = 0;
    virtual std::optional<Report> FindReport(uint64_t cursor) = 0;
    /// Marks reports as received for good; returns how many were not marked before.
    virtual uint64_t Acknowledge(const std::vector<uint64_t>& cursors) = 0;
    virtual uint64_t AcknowledgeUpTo(uint64_t cursor) = 0;

    /// Runs a policy file of the process directory and waits for its end: accepted or not; nothing when not running.
    virtual std::optional<bool> RunOnce(const std::string& name, const Peer& peer) = 0;
    virtual AgentStatus Status() = 0;
};

}  // namespace qxpagent
