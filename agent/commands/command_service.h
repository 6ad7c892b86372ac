#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "agent/commands/byte_gate.h"
#include "agent/commands/submit_outcome.h"
#include "agent/reports/run_counters.h"
#include "agent/store/store.h"
#include "policy/document.h"
#include "policy/trusted_keys.h"
#include "qxhost/json.h"

namespace qxpagent {

/// Takes commands in, journals them, hands them to the plugin, and sees that each gets its final word. Any thread.
class CommandService {
public:
    /// Hands a document of so many scripts to the plugin and waits until it has acknowledged it. Returns a BusStatus;
    /// see ServerData. kBusQueueFull: later.
    using HandOver = std::function<int(std::string document, uint32_t scripts)>;

    /// All must outlive it.
    CommandService(Store& store, RunCounters& counters, const qxppolicy::TrustedKeys& keys,
                   qxppolicy::DirectoryRule directory_rule, HandOver hand_over)
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

    /// Before the plugin starts: the commands that an earlier agent delivered and never heard of are to be interrupted.
    /// Throws StoreError.
    void LoadOrphans();
    /// A report is lost that said this. RetryPending gives its command the final word, when nothing else of it is to
    /// come.
    void ReportLost(const ReportContent& content);
    /// Gives those their final word, and delivers what was journalled and not delivered. What the store or the plugin
    /// does not take now is left for the next call.
    void RetryPending();
    /// After the plugin has ended: interrupts what is still delivered. Throws StoreError.
    void InterruptAll(const std::string& reason);

private:
    // What the plugin will make of a command.
    struct Forecast {
        bool refused = false;
        std::string reason;  // should it refuse it
        std::string command;
        uint32_t scripts = 0;
        std::vector<std::string> expected;
    };
    struct LostReports {
        bool refused = false;
        std::vector<std::string> scripts;  // that had results in them, with repetitions
    };
    class Turn;
    static constexpr size_t kBytesAtOnce = size_t{100} << 20;

    SubmitOutcome Take(std::string document, const qxpbase::Peer& peer, NewCommand& command);
    SubmitOutcome Journal(NewCommand& command, const Forecast& forecast);
    Forecast MakeForecast(const qxtools::CPJsonParse& document) const;
    SubmitOutcome Deliver(NewCommand& command, const Forecast& forecast);
    int HandOverOne(const std::string& id, std::string text, uint32_t scripts);
    SubmitOutcome Withdraw(const std::string& id, SubmitStatus status, const char* detail);
    void FinishWithdrawal(const std::string& id);
    void ApplyAcknowledgement(const std::string& id, int status, const Forecast& forecast);
    void Refuse(const std::string& id, const std::string& reason);
    void InterruptOrphans();
    void CloseLost();
    void DeliverAgain(const std::string& id);
    void InterruptOne(const std::string& id, const std::string& reason);

    Store& store_;
    RunCounters& counters_;
    const qxppolicy::TrustedKeys& keys_;
    const qxppolicy::DirectoryRule directory_rule_;
    const HandOver hand_over_;

    ByteGate gate_{kBytesAtOnce};  // of documents that are checked, journalled and handed over
    std::mutex mutex_;
    std::condition_variable turn_ended_;
    // Guarded by mutex_.
    std::set<std::string> busy_;               // IDs that are being submitted or delivered
    std::set<std::string> unanswered_;         // IDs that were handed over and not acknowledged
    std::vector<std::string> orphans_;         // IDs that are to be interrupted
    std::set<std::string> withdrawn_;          // IDs that are to be taken back, which the store refused
    std::map<std::string, LostReports> lost_;  // by the ID of the command
};

}  // namespace qxpagent
