#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "agent/commands/command_service.h"
#include "agent/config/options.h"
#include "agent/reports/report_intake.h"
#include "agent/reports/run_counters.h"
#include "agent/service/leftovers.h"
#include "agent/store/store.h"
#include "policy/trusted_keys.h"

namespace qxpagent {

/// A thread that keeps the store within its limits and the plugin's directories tidy, and tries again what the store
/// did not take.
class Maintenance {
public:
    /// All must outlive it.
    Maintenance(Store& store, CommandService& commands, ReportIntake& intake, RunCounters& counters,
                const qxppolicy::TrustedKeys& keys, const Retention& retention);

    /// Begins; the first round comes at once.
    void Start(const Places& places);
    /// The store has grown. Any thread, also before Start.
    void StoreHasGrown();
    /// How long things are kept from now on; the next round goes by it. Any thread.
    void SetRetention(const Retention& retention);
    /// Ends the thread, as the destructor does. A second call does nothing.
    void Stop() { thread_ = {}; }

private:
    void Loop(const std::stop_token& stop);
    void Round(bool all, const Retention& retention);
    void StoreWaiting();
    void Retain(const Retention& retention);

    // Constant after Start.
    Store& store_;
    CommandService& commands_;
    ReportIntake& intake_;
    RunCounters& counters_;
    const qxppolicy::TrustedKeys& keys_;
    Places places_;

    std::mutex mutex_;
    std::condition_variable_any woken_;
    // Guarded by mutex_.
    Retention retention_;
    bool grown_ = false;

    std::jthread thread_;  // ends before what it uses
};

}  // namespace qxpagent
