#include "agent/commands/command_service.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "agent/bus/message_bus.h"
#include "agent/log.h"
#include "base/sha256.h"
#include "policy/forecast.h"
#include "policy/vocabulary.h"

namespace qxpagent {

namespace {

constexpr char kAgentEnded[] = "The agent ended before every result was there; what was running may have been cut off.";
constexpr char kReportLost[] = "The store took nothing for too long, and a report was lost: the scripts may have run.";

const char* OutcomeName(const SubmitOutcome& outcome) {
    constexpr const char* kNames[] = {
        "",        "known already",  "conflict",        "refused by the admission check", "not running", "busy",
        "no room", "storage failed", "not acknowledged"};
    if (outcome.status == SubmitStatus::kTaken) {
        return outcome.command.has_value() ? qxppolicy::StateName(outcome.command->state) : "delivered";
    }
    return kNames[static_cast<size_t>(outcome.status)];
}

SubmitOutcome StorageOutcome(const StoreError& error) {
    const bool full = dynamic_cast<const StoreFullError*>(&error) != nullptr;
    return {full ? SubmitStatus::kStorageFull : SubmitStatus::kStorageFailed, error.what(), std::nullopt};
}

// The record of what was done for whom.
void Audit(const qxpbase::Peer& peer, const NewCommand& command, size_t bytes, const SubmitOutcome& outcome) {
    const bool taken = outcome.status == SubmitStatus::kTaken || outcome.status == SubmitStatus::kKnown;
    QXPAGENT_LOG(taken ? kLogInfo : kLogWarn,
                 "command [%s] [%s] sha256 %s, %zu bytes, from user [%s] uid %u pid %d: %s%s%s", command.id.c_str(),
                 command.command.c_str(), command.sha256.c_str(), bytes, peer.user.c_str(), peer.uid, peer.pid,
                 OutcomeName(outcome), outcome.detail.empty() ? "" : ": ", outcome.detail.c_str());
}

// True when `all` has an element more often than `some`. Sorts both.
bool HasMoreThan(std::vector<std::string> all, std::vector<std::string>& some) {
    std::sort(all.begin(), all.end());
    std::sort(some.begin(), some.end());
    return !std::includes(some.begin(), some.end(), all.begin(), all.end());
}

// Reason why the first dropped script was rejected, as a clause. Named by its index: the ID is untrusted.
std::string FirstDropped(const qxppolicy::PolicyForecast& forecast) {
    const auto dropped = std::find_if(
        forecast.scripts.begin(), forecast.scripts.end(),
        [](const qxppolicy::ScriptForecast& script) { return script.verdict == qxppolicy::Verdict::kDropped; });
    return dropped == forecast.scripts.end()
               ? ""
               : fmt::format("; script {}: {}", dropped - forecast.scripts.begin() + 1, dropped->reason);
}

}  // namespace

// Lets documents in as long as all that are in together stay within kBytesAtOnce; the rest waits, so that many large
// submissions at once cannot use up the memory. What alone is larger is let in alone.
class CommandService::BytesGate {
public:
    BytesGate(CommandService& commands, size_t bytes) : commands_(commands), bytes_(bytes) {
        std::unique_lock lock(commands_.mutex_);
        commands_.left_.wait(
            lock, [this] { return commands_.bytes_in_ == 0 || commands_.bytes_in_ + bytes_ <= kBytesAtOnce; });
        commands_.bytes_in_ += bytes_;
    }
    ~BytesGate() {
        const std::lock_guard lock(commands_.mutex_);
        commands_.bytes_in_ -= bytes_;
        commands_.left_.notify_all();
    }
    BytesGate(const BytesGate&) = delete;
    BytesGate& operator=(const BytesGate&) = delete;

private:
    CommandService& commands_;
    const size_t bytes_;
};

// While it lives, no other thread submits or delivers a command of this ID.
class CommandService::Turn {
public:
    Turn(CommandService& commands, const std::string& id) : commands_(commands), id_(id) {
        std::unique_lock lock(commands_.mutex_);
        commands_.left_.wait(lock, [this] { return !commands_.busy_.contains(id_); });
        commands_.busy_.insert(id_);
    }
    ~Turn() {
        const std::lock_guard lock(commands_.mutex_);
        commands_.busy_.erase(id_);
        commands_.left_.notify_all();
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

private:
    CommandService& commands_;
    const std::string id_;
};

SubmitOutcome CommandService::Submit(std::string document, const qxpbase::Peer& peer) {
    const size_t bytes = document.size();
    Candidate candidate;
    candidate.command.submitter = peer;
    candidate.command.received = std::chrono::system_clock::now();
    candidate.command.text = std::move(document);
    SubmitOutcome outcome;
    try {
        outcome = Accept(candidate);
    } catch (const StoreError& error) {
        outcome = StorageOutcome(error);
    }
    if (outcome.status == SubmitStatus::kTaken || outcome.status == SubmitStatus::kNotAcknowledged) {
        counters_.commands_taken.Increment();
    } else if (outcome.status == SubmitStatus::kUnacceptable) {
        counters_.refused_at_admission.Increment();
    }
    Audit(peer, candidate.command, bytes, outcome);
    return outcome;
}

SubmitOutcome CommandService::Accept(Candidate& candidate) {
    NewCommand& command = candidate.command;
    const BytesGate gate(*this, command.text.size());
    command.sha256 = qxpbase::Sha256Hex(command.text);
    if (qxppolicy::Fault fault = Examine(candidate)) {
        return {SubmitStatus::kUnacceptable, std::move(*fault), std::nullopt};
    }
    const Turn turn(*this, command.id);
    return Journal(candidate);
}

// Reads the document once, and checks each signature once, for both the admission check and the forecast. What was read
// is freed again before anything waits for the store or the plugin: it is larger than the document.
qxppolicy::Fault CommandService::Examine(Candidate& candidate) const {
    NewCommand& command = candidate.command;
    const qxppolicy::PolicyDocument document(command.text);
    command.id = document.Member("ID").value_or("");
    if (qxppolicy::Fault fault = document.ValidateForAdmission(directory_rule_)) {
        return fault;
    }
    const qxppolicy::PolicyForecast forecast = qxppolicy::Forecast(document, keys_);
    candidate.refused = !forecast.faults.empty();
    command.command = forecast.command;
    command.scripts = static_cast<uint32_t>(forecast.scripts.size());
    command.refusal_reason =
        candidate.refused ? fmt::format("The plugin refused it: {}{}.", forecast.faults.front(), FirstDropped(forecast))
                          : "The plugin refused it: with the scripts that are running, its scripts are too many.";
    for (const qxppolicy::ScriptForecast& script : forecast.scripts) {
        if (script.reported && !candidate.refused) {
            command.expected.push_back(script.id);
        }
    }
    return std::nullopt;
}

SubmitOutcome CommandService::Journal(Candidate& candidate) {
    const NewCommand& command = candidate.command;
    FinishWithdrawal(command.id);
    CommandRecord known;
    switch (store_.Admit(command, known)) {
        case Admission::kKnown:
            return {SubmitStatus::kKnown, "", std::move(known)};
        case Admission::kConflict:
            return {SubmitStatus::kConflict,
                    fmt::format("Another document was submitted under the ID \"{}\".", command.id), std::nullopt};
        case Admission::kNew:
            break;
    }
    // Marked before it is handed over: an agent that dies in between reports a command that never ran as interrupted,
    // where the other order would run it twice.
    try {
        store_.MarkDelivered(command.id);
    } catch (const StoreError& error) {
        const SubmitOutcome outcome = StorageOutcome(error);
        return Withdraw(command.id, outcome.status, outcome.detail.c_str());
    }
    return Deliver(candidate);
}

// Gives the document away: it can be large, and the journal has it.
SubmitOutcome CommandService::Deliver(Candidate& candidate) {
    NewCommand& command = candidate.command;
    const int status = HandOverOne(command.id, std::move(command.text), command.scripts);
    switch (status) {
        case kBusUndelivered:
        case kBusNotAttached:
            return Withdraw(command.id, SubmitStatus::kNotRunning,
                            "The agent is stopping, or its plugin is not started.");
        case kBusQueueFull:
            return Withdraw(command.id, SubmitStatus::kBusy,
                            "Too much is waiting or running: send this one again later.");
        default:
            break;
    }
    SubmitOutcome outcome;
    try {
        ApplyAcknowledgement(candidate, status);
        outcome.command = store_.FindCommand(command.id);
    } catch (const StoreError& error) {
        // The plugin has it, and that is what counts: its final state comes with its results, or when the agent ends.
        QXPAGENT_LOG(kLogError, "command [%s] was delivered, but: %s", command.id.c_str(), error.what());
    }
    if (status != kBusOk && status != kBusReceiverFailed) {
        outcome.status = SubmitStatus::kNotAcknowledged;
        outcome.detail = "The plugin has not acknowledged the command in time; it may still run it.";
    }
    return outcome;
}

// The plugin refuses before it acknowledges. The ID is awaited until then, and for good when no acknowledgement came: a
// refusal of any other ID was written by somebody else's document, and must not end a command.
int CommandService::HandOverOne(const std::string& id, std::string text, uint32_t scripts) {
    {
        const std::lock_guard lock(mutex_);
        unanswered_.insert(id);
    }
    const int status = hand_over_(std::move(text), scripts);
    if (status != kBusTimedOut) {
        const std::lock_guard lock(mutex_);
        unanswered_.erase(id);
    }
    return status;
}

bool CommandService::MayBeRefused(const std::string& id) {
    const std::lock_guard lock(mutex_);
    return unanswered_.contains(id);
}

// A command that never reached the plugin is as if it had not been sent. What the store will not take back now is known
// no more all the same: FinishWithdrawal makes up for it before the ID is used again.
SubmitOutcome CommandService::Withdraw(const std::string& id, SubmitStatus status, const char* detail) {
    try {
        store_.Withdraw(id);
        return {status, detail, std::nullopt};
    } catch (const StoreError& error) {
        const std::lock_guard lock(mutex_);
        withdrawn_.insert(id);
        return StorageOutcome(error);
    }
}

void CommandService::FinishWithdrawal(const std::string& id) {
    {
        const std::lock_guard lock(mutex_);
        if (!withdrawn_.contains(id)) {
            return;
        }
    }
    store_.Withdraw(id);
    const std::lock_guard lock(mutex_);
    withdrawn_.erase(id);
}

// What is known at once, when the plugin has acknowledged the command.
void CommandService::ApplyAcknowledgement(const Candidate& candidate, int status) {
    const NewCommand& command = candidate.command;
    if (status == kBusReceiverFailed) {
        Refuse(command.id, "The plugin failed over the command; the log says more.");
    } else if (status == kBusOk && candidate.refused) {
        Refuse(command.id, command.refusal_reason);  // the plugin's own report, if there was one, was here before
    } else if (status == kBusOk && command.expected.empty()) {
        store_.FinishIfReported(command.id);
    }
}

void CommandService::Refuse(const std::string& id, const std::string& reason) {
    if (store_.Refuse(id, reason)) {
        counters_.refused_by_plugin.Increment();
    }
}

void CommandService::LoadOrphans() {
    std::vector<std::string> delivered = store_.IdsIn(CommandState::kDelivered);
    const std::lock_guard lock(mutex_);
    orphans_ = std::move(delivered);
}

void CommandService::ReportLost(const ReportContent& content) {
    const std::lock_guard lock(mutex_);
    LostReports& lost = lost_[content.id];
    lost.refused = lost.refused || content.refusal;
    for (const RunResult& run : content.runs) {
        lost.scripts.push_back(run.script_id);
    }
}

void CommandService::RetryPending() {
    try {
        InterruptOrphans();
        CloseLost();
        for (const std::string& id : store_.IdsIn(CommandState::kReceived)) {
            DeliverAgain(id);
        }
    } catch (const StoreError& error) {
        QXPAGENT_LOG(kLogError, "commands without a final state are left for later: %s", error.what());
    }
}

void CommandService::InterruptOrphans() {
    for (;;) {
        std::string id;
        {
            const std::lock_guard lock(mutex_);
            if (orphans_.empty()) {
                return;
            }
            id = orphans_.back();
        }
        InterruptOne(id, kAgentEnded);
        const std::lock_guard lock(mutex_);
        orphans_.pop_back();
    }
}

void CommandService::CloseLost() {
    std::map<std::string, LostReports> all;
    {
        const std::lock_guard lock(mutex_);
        all = lost_;
    }
    for (auto& [id, lost] : all) {
        const std::optional<CommandRecord> command = store_.FindCommand(id);
        const bool is_open = command.has_value() && command->state == CommandState::kDelivered;
        if (is_open && lost.refused) {
            Refuse(id, "The plugin refused it; its report was lost, since the store took nothing for too long.");
        } else if (is_open && HasMoreThan(command->unreported, lost.scripts)) {
            continue;  // the others are to come, or will be lost too
        } else if (is_open) {
            InterruptOne(id, kReportLost);
        }
        const std::lock_guard lock(mutex_);
        lost_.erase(id);
    }
}

void CommandService::DeliverAgain(const std::string& id) {
    const Turn turn(*this, id);
    FinishWithdrawal(id);
    Candidate candidate;
    candidate.command.text = store_.CommandText(id);
    if (candidate.command.text.empty() || !store_.MarkDelivered(id)) {
        return;  // another thread has dealt with it
    }
    // What was good when it came may not be any more, and others may have written to the store.
    if (const qxppolicy::Fault fault = Examine(candidate)) {
        QXPAGENT_LOG(kLogError, "command [%s] was journalled and is not delivered: %s", id.c_str(), fault->c_str());
        Refuse(id, *fault);
        return;
    }
    candidate.command.id = id;
    const int status = HandOverOne(id, std::move(candidate.command.text), candidate.command.scripts);
    if (status == kBusUndelivered || status == kBusNotAttached || status == kBusQueueFull) {
        store_.MarkReceived(id);
        QXPAGENT_LOG(kLogWarn, "command [%s] is journalled and could not be delivered (%d)", id.c_str(), status);
        return;
    }
    QXPAGENT_LOG(kLogInfo, "command [%s] delivered from the journal (%d)", id.c_str(), status);
    ApplyAcknowledgement(candidate, status);
}

// An interrupted command keeps the list of the results that it was to have: the operator has to learn which scripts may
// have run, and a result file that turns up later still belongs to it.
void CommandService::InterruptOne(const std::string& id, const std::string& reason) {
    const std::optional<size_t> missing = store_.Interrupt(id, reason);
    if (missing.has_value()) {
        counters_.runs_interrupted.Increment(static_cast<double>(*missing));
        QXPAGENT_LOG(kLogWarn, "command [%s] was interrupted: %zu results are missing", id.c_str(), *missing);
    }
}

void CommandService::InterruptAll(const std::string& reason) {
    for (const std::string& id : store_.IdsIn(CommandState::kDelivered)) {
        InterruptOne(id, reason);
    }
}

}  // namespace qxpagent
