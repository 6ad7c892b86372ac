#include "agent/service/maintenance.h"

#include <pthread.h>

#include <cinttypes>
#include <exception>
#include <utility>

#include "agent/log.h"

namespace qxpagent {

namespace {

constexpr std::chrono::seconds kRetryTime{5};    // what the store refused is tried again
constexpr std::chrono::seconds kWaitingTime{1};  // reports that wait in memory are
constexpr std::chrono::minutes kRoundTime{10};   // ages are looked at

}  // namespace

Maintenance::Maintenance(Store& store, CommandService& commands, ReportIntake& intake, RunCounters& counters,
                         const qxppolicy::TrustedKeys& keys, const Retention& retention)
    : store_(store), commands_(commands), intake_(intake), counters_(counters), keys_(keys), retention_(retention) {
}

void Maintenance::Start(const Places& places) {
    places_ = places;
    thread_ = std::jthread([this](const std::stop_token& stop) { Loop(stop); });
    pthread_setname_np(thread_.native_handle(), "qxpmaintain");
}

void Maintenance::StoreHasGrown() {
    const std::lock_guard lock(mutex_);
    grown_ = true;
    woken_.notify_all();
}

void Maintenance::SetRetention(const Retention& retention) {
    const std::lock_guard lock(mutex_);
    retention_ = retention;
    grown_ = true;
    woken_.notify_all();
}

void Maintenance::Loop(const std::stop_token& stop) {
    auto next_round = std::chrono::steady_clock::now();
    std::unique_lock lock(mutex_);
    while (!stop.stop_requested()) {
        grown_ = false;
        const Retention retention = retention_;
        lock.unlock();
        const auto now = std::chrono::steady_clock::now();
        const bool all = now >= next_round;
        next_round = all ? now + kRoundTime : next_round;
        Round(all, retention);
        lock.lock();
        woken_.wait_for(lock, stop, intake_.Waiting() != 0 ? kWaitingTime : kRetryTime, [this] { return grown_; });
    }
}

void Maintenance::Round(bool all, const Retention& retention) {
    try {
        MoveUnusablePolicies(places_, keys_);
        StoreWaiting();
        store_.Probe();
        commands_.RetryPending();
        if (all || store_.Bytes() > retention.bytes) {
            Retain(retention);
        }
        if (all) {
            RemoveLeftovers(store_, places_, std::chrono::system_clock::now() - retention.leftover_age);
        }
    } catch (const std::exception& error) {  // a store that fails, or no memory
        QXPAGENT_LOG(kLogError, "the maintenance of the store failed: %s", error.what());
    }
}

void Maintenance::StoreWaiting() {
    if (intake_.Waiting() != 0) {
        intake_.StoreWaiting();
    }
    for (const ReportContent& content : intake_.ExtractLost()) {
        commands_.ReportLost(content);
    }
}

void Maintenance::Retain(const Retention& retention) {
    const Removed removed = store_.Retain(retention, std::chrono::system_clock::now());
    counters_.removed_undelivered.Increment(static_cast<double>(removed.unacknowledged));
    if (removed.unacknowledged > 0) {
        QXPAGENT_LOG(
            kLogError,
            "%" PRIu64
            " reports were removed from the store before anybody acknowledged them: all texts together were too large",
            removed.unacknowledged);
    }
    if (removed.commands + removed.reports > removed.unacknowledged) {
        QXPAGENT_LOG(kLogInfo,
                     "%" PRIu64 " commands and %" PRIu64 " reports have had their time and were removed from the store",
                     removed.commands, removed.reports);
    }
}

}  // namespace qxpagent
