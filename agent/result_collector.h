#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "agent/report_intake.h"
#include "agent/unique_fd.h"

namespace qxpagent {

/// A result file as it was read; see ReadResultFile.
struct ResultFile {
    FileMark mark;
    std::string text;
};

/// Reads a file of a directory and notes what state of it that was. Nothing when it is gone, no regular file (a link is
/// not followed), over 256 MiB, cannot be read, or changes meanwhile.
std::optional<ResultFile> ReadResultFile(int directory, const std::string& name);

/// Copies the plugin's result files into the store, each state of each file once: those that are there at the start,
/// and each that is written or moved there afterwards. A file that is no complete JSON document is left alone, with a
/// warning. The files stay where they are. What the store does not take is tried again until it does.
class ResultCollector {
public:
    /// Makes the directory if need be, watches it, and takes what is there. Throws StartupError when the directory
    /// cannot be watched. `intake` must outlive it.
    ResultCollector(const std::filesystem::path& directory, ReportIntake& intake,
                    std::chrono::milliseconds retry = std::chrono::seconds(1));
    ~ResultCollector();
    ResultCollector(const ResultCollector&) = delete;
    ResultCollector& operator=(const ResultCollector&) = delete;

    /// Ends the watch and takes, for the last time, what is there. A second call does nothing.
    void Stop();

private:
    void Watch();
    void Scan();
    void Loop();
    bool TakeEvents();
    void TakePending();
    bool TakeOne(int directory, const std::string& name);

    // Constant after construction.
    const std::filesystem::path directory_;
    ReportIntake& intake_;
    const std::chrono::milliseconds retry_;
    UniqueFd stop_event_;

    // Used by the thread, and by the constructor and Stop while there is none.
    UniqueFd watch_;
    std::set<std::string> pending_;  // names that the store has not taken yet
    bool watching_ = false;

    std::thread thread_;
};

}  // namespace qxpagent
