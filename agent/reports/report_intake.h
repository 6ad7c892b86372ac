#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "agent/reports/run_counters.h"
#include "agent/store/store.h"

namespace qxpagent {

/// How much may wait in memory while the store refuses everything.
struct WaitingLimits {
    size_t reports = 10000;
    size_t bytes = size_t{256} << 20;  // of texts
};

/// Where every report comes in, from the plugin's messages and from its result files: stores it and counts its runs.
/// Any thread.
class ReportIntake {
public:
    using MayBeRefused = std::function<bool(const std::string& id)>;

    /// `may_be_refused`: see CommandService. `stored` is called after each report that was stored. All must outlive it.
    ReportIntake(Store& store, RunCounters& counters, MayBeRefused may_be_refused, std::function<void()> stored,
                 const WaitingLimits& limits = {})
        : store_(store),
          counters_(counters),
          may_be_refused_(std::move(may_be_refused)),
          stored_(std::move(stored)),
          limits_(limits) {}

    /// Decodes and stores a message of the plugin, which has no other copy of it and does not send it again. So what
    /// the store refuses is held in memory, in order, until StoreWaiting: docs/decisions/008-durability.md. False when
    /// the limits are reached; the report is then among the lost. False also for a malformed one, which is no loss.
    /// Both are logged.
    bool AcceptMessage(std::string_view envelope);
    /// Stores a result file, unless this state of it was stored before. Throws StoreError.
    void AcceptFile(const FileMark& mark, std::string_view text, const ReportContent& content);

    /// True when a file of this name, time and size was stored. Throws StoreError.
    bool HasFile(const std::string& name, int64_t modified_ns, uint64_t size) {
        return store_.HasFile(name, modified_ns, size);
    }

    /// Stores what waits, oldest first, until the store refuses one. Returns how many are left.
    size_t StoreWaiting();
    size_t Waiting() const;
    /// The contents of the reports that were lost since the last call, so that their commands reach a final state.
    std::vector<ReportContent> ExtractLost();

private:
    struct Message {
        Report report;
        std::string text;
        ReportContent content;
    };

    void StoreNow(const Report& report, std::string_view text, const ReportContent& content,
                  const std::optional<FileMark>& mark);
    bool Keep(const Report& report, std::string_view text, const ReportContent& content, const std::string& reason);

    Store& store_;
    RunCounters& counters_;
    const MayBeRefused may_be_refused_;
    const std::function<void()> stored_;
    const WaitingLimits limits_;

    std::mutex turn_;  // held while a message is stored and while the front is removed; locked before mutex_

    mutable std::mutex mutex_;
    // Guarded by mutex_.
    std::deque<Message> waiting_;
    size_t waiting_bytes_ = 0;
    std::vector<ReportContent> lost_;
};

}  // namespace qxpagent
