#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "agent/commands/submit_outcome.h"
#include "agent/reports/run_counters.h"
#include "agent/store/store.h"
#include "policy/document.h"
#include "policy/trusted_keys.h"

namespace qxpagent {

/// Accepts commands, journals them, hands them to the plugin, and sees that each reaches its final state; see
/// docs/decisions/008-durability.md. Any thread.
class CommandService {
public:
    /// Hands a document of so many scripts to the plugin and waits until it has acknowledged it. Returns a BusStatus;
    /// see ServerData. kBusQueueFull: later.
    using HandOver = std::function<int(std::string document, uint32_t scripts)>;

    /// All must outlive it.
    CommandService(Store& store, RunCounters& counters, const qxppolicy::TrustedKeys& keys,
                   qxppolicy::PolicyDocument::DirectoryRule directory_rule, HandOver hand_over)
        : store_(store),
          counters_(counters),
          keys_(keys),
          directory_rule_(std::move(directory_rule)),
          hand_over_(std::move(hand_over)) {}

    /// As AgentControl::Submit. Calls with one ID follow each other.
    SubmitOutcome Submit(std::string document, const qxpbase::Peer& peer);

    /// True while a refusal that names this ID can be the plugin's answer: the command is being delivered, or was and
    /// the plugin has not acknowledged it. Any other refusal is not about a command of ours.
    bool MayBeRefused(const std::string& id);

    /// Before the plugin starts: notes the commands that an earlier agent delivered and that have no final state. The
    /// first RetryPending interrupts them. Throws StoreError.
    void LoadOrphans();
    /// Notes what a report said that is lost. RetryPending ends its command when nothing else of it is to come.
    void ReportLost(const ReportContent& content);
    /// Ends those commands, and delivers what was journalled and not delivered. What the store or the plugin does not
    /// take now is left for the next call.
    void RetryPending();
    /// After the plugin has ended: interrupts what is still delivered. Throws StoreError.
    void InterruptAll(const std::string& reason);

private:
    // A command, and what the plugin will make of it.
    struct Candidate {
        NewCommand command;
        bool refused = false;
    };
    struct LostReports {
        bool refused = false;
        std::vector<std::string> scripts;  // that had results in them, with repetitions
    };
    class BytesGate;
    class Turn;
    static constexpr size_t kBytesAtOnce = size_t{100} << 20;

    SubmitOutcome Accept(Candidate& candidate);
    qxppolicy::Fault Examine(Candidate& candidate) const;
    SubmitOutcome Journal(Candidate& candidate);
    SubmitOutcome Deliver(Candidate& candidate);
    int HandOverOne(const std::string& id, std::string text, uint32_t scripts);
    SubmitOutcome Withdraw(const std::string& id, SubmitStatus status, const char* detail);
    void FinishWithdrawal(const std::string& id);
    void ApplyAcknowledgement(const Candidate& candidate, int status);
    void Refuse(const std::string& id, const std::string& reason);
    void InterruptOrphans();
    void CloseLost();
    void DeliverAgain(const std::string& id);
    void InterruptOne(const std::string& id, const std::string& reason);

    Store& store_;
    RunCounters& counters_;
    const qxppolicy::TrustedKeys& keys_;
    const qxppolicy::PolicyDocument::DirectoryRule directory_rule_;
    const HandOver hand_over_;

    std::mutex mutex_;
    std::condition_variable left_;  // a BytesGate or a Turn has ended
    // Guarded by mutex_.
    size_t bytes_in_ = 0;                      // of documents that are examined, journalled and handed over
    std::set<std::string> busy_;               // IDs that are being submitted or delivered
    std::set<std::string> unanswered_;         // IDs that were handed over and not acknowledged
    std::vector<std::string> orphans_;         // IDs that are to be interrupted
    std::set<std::string> withdrawn_;          // IDs to withdraw, which the store has refused so far
    std::map<std::string, LostReports> lost_;  // by the ID of the command
};

}  // namespace qxpagent
