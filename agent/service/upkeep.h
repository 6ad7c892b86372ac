#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "agent/commands/command_desk.h"
#include "agent/config/options.h"
#include "agent/reports/report_intake.h"
#include "agent/reports/run_counters.h"
#include "agent/service/housekeeping.h"
#include "agent/store/store.h"
#include "policy/trusted_keys.h"

namespace qxpagent {

/// A thread that keeps the store within its limits and the plugin's directories tidy, and tries again what the store
/// did not take.
class Upkeep {
public:
    /// All must outlive it.
    Upkeep(Store& store, CommandDesk& desk, ReportIntake& intake, RunCounters& counters,
           const qxppolicy::TrustedKeys& keys, const Retention& retention);
    ~Upkeep();
    Upkeep(const Upkeep&) = delete;
    Upkeep& operator=(const Upkeep&) = delete;

    /// Begins; the first round comes at once.
    void Start(const Places& places);
    /// The store has grown. Any thread, also before Start.
    void StoreHasGrown();
    /// How long things are kept from now on; the next round goes by it. Any thread.
    void SetRetention(const Retention& retention);
    /// Ends the thread. A second call does nothing.
    void Stop();

private:
    void Loop();
    void Round(bool all, const Retention& retention);
    void StoreWaiting();
    void Retain(const Retention& retention);

    // Constant after Start.
    Store& store_;
    CommandDesk& desk_;
    ReportIntake& intake_;
    RunCounters& counters_;
    const qxppolicy::TrustedKeys& keys_;
    Places places_;

    std::mutex mutex_;
    std::condition_variable woken_;
    // Guarded by mutex_.
    Retention retention_;
    bool grown_ = false;
    bool stopping_ = false;

    std::thread thread_;
};

}  // namespace qxpagent
