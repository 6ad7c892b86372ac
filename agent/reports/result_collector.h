#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "agent/reports/report_intake.h"
#include "base/unique_fd.h"

namespace qxpagent {

/// A result file as it was read; see ReadResultFile.
struct ResultFile {
    FileMark mark;
    std::string text;
};

/// Reads a file of a directory and notes what state of it that was. Nothing when it is gone, no regular file (a link is
/// not followed), over 256 MiB, cannot be read, or changes meanwhile.
std::optional<ResultFile> ReadResultFile(int directory, const std::string& name);

struct CollectorTimes {
    std::chrono::milliseconds retry{1000};  // between two tries of what the store refused
    std::chrono::milliseconds start{3000};  // how long the constructor may store what is there
};

/// Copies the plugin's result files into the store, each state of each file once: those that are there at the start,
/// newest first, and each that is written or moved there afterwards. A file that is no complete JSON document is left
/// alone, with a warning. The files stay where they are. What the store refuses is tried again until it is stored. Why
/// they are copied at once: docs/decisions/008-durability.md.
class ResultCollector {
public:
    /// Makes the directory if need be, watches it, and stores what is there for at most `times.start`; the thread
    /// stores the rest, after the files that are written meanwhile. Throws StartupError when the directory cannot be
    /// watched, StoreError when the store cannot be read. `intake` must outlive it.
    ResultCollector(const std::filesystem::path& directory, ReportIntake& intake, const CollectorTimes& times = {});
    ~ResultCollector();
    ResultCollector(const ResultCollector&) = delete;
    ResultCollector& operator=(const ResultCollector&) = delete;

    /// Ends the watch and stores, for the last time, what has been written. A second call does nothing. One thread.
    void Stop();

private:
    void Watch();
    void Scan();
    void Loop();
    bool Round();
    bool ReadEvents();
    bool StorePending();
    bool StoreBacklog(std::chrono::milliseconds time);
    bool StoreOne(int directory, const std::string& name);
    bool IsStored(const std::string& name, const struct stat& status);
    void LeaveAlone(const std::string& name, const char* reason);

    // Constant after construction.
    const std::filesystem::path directory_;
    ReportIntake& intake_;
    const CollectorTimes times_;
    qxpbase::UniqueFd stop_event_;

    // Used by the thread, and by the constructor and Stop while there is none.
    qxpbase::UniqueFd watch_;
    std::set<std::string> pending_;     // names of files that have come
    std::vector<std::string> backlog_;  // names of files that a scan has found, newest last
    uint64_t left_alone_ = 0;           // since the last scan
    bool watching_ = false;

    std::thread thread_;
};

}  // namespace qxpagent
