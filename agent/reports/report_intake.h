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

/// What may wait in memory for a store that takes nothing.
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

    /// Stores a message of the plugin, which has no other copy of it: what the store does not take, and all that comes
    /// behind it, waits in memory for StoreWaiting. False when there is no room for that either; the report is then
    /// among the lost. What is malformed is refused, which is no loss. Both are logged.
    bool AcceptMessage(std::string_view envelope);
    /// Stores a result file, unless this state of it was stored before. Throws StoreError.
    void AcceptFile(const FileMark& mark, std::string_view text, const ReportContent& content);

    /// True when a file of this name, time and size was stored. Throws StoreError.
    bool HasFile(const std::string& name, int64_t modified_ns, uint64_t size) {
        return store_.HasFile(name, modified_ns, size);
    }

    /// Stores what waits, oldest first, as far as the store takes it. Returns how many are left.
    size_t StoreWaiting();
    size_t Waiting() const;
    /// What the reports said that were lost since the last call: nobody else will tell their commands.
    std::vector<ReportContent> ExtractLost();

private:
    struct Message {
        Report report;
        std::string text;
        ReportContent content;
    };

    void Take(const Report& report, std::string_view text, const ReportContent& content,
              const std::optional<FileMark>& mark);
    bool Keep(const Report& report, std::string_view text, const ReportContent& content, const std::string& reason);

    Store& store_;
    RunCounters& counters_;
    const MayBeRefused may_be_refused_;
    const std::function<void()> stored_;
    const WaitingLimits limits_;

    std::mutex turn_;  // of storing a message, and of taking the front away; taken before mutex_

    mutable std::mutex mutex_;
    // Guarded by mutex_.
    std::deque<Message> waiting_;
    size_t waiting_bytes_ = 0;
    std::vector<ReportContent> lost_;
};

}  // namespace qxpagent
