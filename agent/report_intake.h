#pragma once

#include <functional>
#include <optional>
#include <string>

#include "agent/run_counters.h"
#include "agent/store.h"

namespace qxpagent {

/// Where every report comes in, from the plugin's messages and from its result files: stores it and counts its runs.
/// Any thread.
class ReportIntake {
public:
    using MayBeRefused = std::function<bool(const std::string& id)>;

    /// `may_be_refused`: see CommandDesk. `stored` is called after each report that was stored. All must outlive it.
    ReportIntake(Store& store, RunCounters& counters, MayBeRefused may_be_refused, std::function<void()> stored)
        : store_(store), counters_(counters), may_be_refused_(std::move(may_be_refused)), stored_(std::move(stored)) {}

    /// Stores a message of the plugin. False when it could not be stored, which has then been logged.
    bool TakeMessage(std::string_view envelope);
    /// Stores a result file, unless this state of it was stored before. Throws StoreError.
    void TakeFile(const FileMark& mark, std::string_view text, const ReportContent& content);

private:
    void Take(Report report, std::string_view text, const ReportContent& content, const std::optional<FileMark>& mark);

    Store& store_;
    RunCounters& counters_;
    const MayBeRefused may_be_refused_;
    const std::function<void()> stored_;
};

}  // namespace qxpagent
