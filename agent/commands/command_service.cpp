#include "agent/commands/command_service.h"

#include <algorithm>
#include <utility>

#include "agent/bus/message_bus.h"
#include "agent/log.h"
#include "base/sha256.h"
#include "policy/forecast.h"

namespace qxpagent {

namespace {

constexpr char kAgentEnded[] = "The agent ended before every result was there; what was running may have been cut off.";
constexpr char kReportLost[] = "The store took nothing for too long, and a report was lost: the scripts may have run.";

const char* StateName(CommandState state) {
    constexpr const char* kNames[] = {"received", "delivered", "refused", "reported", "interrupted"};
    return kNames[static_cast<size_t>(state)];
}

const char* OutcomeName(const SubmitOutcome& outcome) {
    constexpr const char* kNames[] = {
        "",        "known already",  "conflict",        "refused by the admission check", "not running", "busy",
        "no room", "storage failed", "not acknowledged"};
    if (outcome.status == SubmitStatus::kTaken) {
        return outcome.command.has_value() ? StateName(outcome.command->state) : "delivered";
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

// Why the first script that is dropped is, as the end of a sentence. Named by its place: its ID is anybody's text.
std::string FirstDropped(const qxppolicy::PolicyVerdict& verdict) {
    const auto dropped = std::find_if(
        verdict.scripts.begin(), verdict.scripts.end(),
        [](const qxppolicy::ScriptVerdict& script) { return script.verdict == qxppolicy::Verdict::kDropped; });
    return dropped == verdict.scripts.end()
               ? ""
               : "; script " + std::to_string(dropped - verdict.scripts.begin() + 1) + ": " + dropped->reason;
}

}  // namespace

// While it lives, no other thread submits or delivers a command of this ID.
class CommandService::Turn {
public:
    Turn(CommandService& commands, const std::string& id) : commands_(commands), id_(id) {
        std::unique_lock lock(commands_.mutex_);
        commands_.turn_ended_.wait(lock, [this] { return !commands_.busy_.contains(id_); });
        commands_.busy_.insert(id_);
    }
    ~Turn() {
        const std::lock_guard lock(commands_.mutex_);
        commands_.busy_.erase(id_);
        commands_.turn_ended_.notify_all();
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

private:
    CommandService& commands_;
    const std::string id_;
};

SubmitOutcome CommandService::Submit(std::string document, const qxpbase::Peer& peer) {
    const size_t bytes = document.size();
    NewCommand command;
    SubmitOutcome outcome;
    try {
        outcome = Take(std::move(document), peer, command);
    } catch (const StoreError& error) {
        outcome = StorageOutcome(error);
    }
    if (outcome.status == SubmitStatus::kTaken || outcome.status == SubmitStatus::kNotAcknowledged) {
        counters_.CommandTaken();
    } else if (outcome.status == SubmitStatus::kUnacceptable) {
        counters_.RefusedAtAdmission();
    }
    Audit(peer, command, bytes, outcome);
    return outcome;
}

SubmitOutcome CommandService::Take(std::string document, const qxpbase::Peer& peer, NewCommand& command) {
    const ByteGate::Pass pass(gate_, document.size());
    command.submitter = peer;
    command.received = std::chrono::system_clock::now();
    command.text = std::move(document);
    command.sha256 = qxpbase::Sha256Hex(command.text);
    Forecast forecast;
    {
        qxtools::CPJsonParse json;
        std::string reason = qxppolicy::ValidateForAdmission(command.text, json, directory_rule_);
        command.id = json.GetValue(json.GetNode(nullptr, "ID")).c_str();  // up to a NUL, as the plugin reads it
        if (!reason.empty()) {
            return {SubmitStatus::kUnacceptable, std::move(reason), std::nullopt};
        }
        forecast = MakeForecast(json);
    }
    command.command = forecast.command;
    command.scripts = forecast.scripts;
    command.expected = forecast.expected;
    command.refusal_reason = forecast.reason;
    const Turn turn(*this, command.id);
    return Journal(command, forecast);
}

CommandService::Forecast CommandService::MakeForecast(const qxtools::CPJsonParse& document) const {
    const qxppolicy::PolicyVerdict verdict = qxppolicy::CheckPolicy(document, keys_);
    Forecast forecast;
    forecast.refused = !verdict.faults.empty();
    forecast.command = verdict.command;
    forecast.scripts = static_cast<uint32_t>(verdict.scripts.size());
    forecast.reason = forecast.refused
                          ? "The plugin refused it: " + verdict.faults.front() + FirstDropped(verdict) + "."
                          : "The plugin refused it: with the scripts that are running, its scripts are too many.";
    for (const qxppolicy::ScriptVerdict& script : verdict.scripts) {
        if (script.reported && !forecast.refused) {
            forecast.expected.push_back(script.id);
        }
    }
    return forecast;
}

SubmitOutcome CommandService::Journal(NewCommand& command, const Forecast& forecast) {
    FinishWithdrawal(command.id);
    CommandRecord known;
    switch (store_.Admit(command, known)) {
        case Admission::kKnown:
            return {SubmitStatus::kKnown, "", std::move(known)};
        case Admission::kConflict:
            return {SubmitStatus::kConflict, "Another document was submitted under the ID \"" + command.id + "\".",
                    std::nullopt};
        case Admission::kNew:
            break;
    }
    try {
        store_.MarkDelivered(command.id);
    } catch (const StoreError& error) {
        const SubmitOutcome outcome = StorageOutcome(error);
        return Withdraw(command.id, outcome.status, outcome.detail.c_str());
    }
    return Deliver(command, forecast);
}

// Gives the document away: it can be large, and the journal has it.
SubmitOutcome CommandService::Deliver(NewCommand& command, const Forecast& forecast) {
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
        ApplyAcknowledgement(command.id, status, forecast);
        outcome.command = store_.FindCommand(command.id);
    } catch (const StoreError& error) {
        // The plugin has it, and that is what counts; its final word comes with its results, or when the agent ends.
        QXPAGENT_LOG(kLogError, "command [%s] was delivered, but: %s", command.id.c_str(), error.what());
    }
    if (status != kBusOk && status != kBusReceiverFailed) {
        outcome.status = SubmitStatus::kNotAcknowledged;
        outcome.detail = "The plugin has not acknowledged the command in time; it may still run it.";
    }
    return outcome;
}

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

// A command that never reached the plugin is as if it had not been sent.
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
void CommandService::ApplyAcknowledgement(const std::string& id, int status, const Forecast& forecast) {
    if (status == kBusReceiverFailed) {
        Refuse(id, "The plugin failed over the command; the log says more.");
    } else if (status == kBusOk && forecast.refused) {
        Refuse(id, forecast.reason);  // its own refusal, if it could be read and stored, was here before
    } else if (status == kBusOk && forecast.expected.empty()) {
        store_.FinishIfReported(id);
    }
}

void CommandService::Refuse(const std::string& id, const std::string& reason) {
    if (store_.Refuse(id, reason)) {
        counters_.RefusedByPlugin();
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
        QXPAGENT_LOG(kLogError, "commands without a final word are left for later: %s", error.what());
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
    NewCommand command;
    command.id = id;
    command.text = store_.CommandText(id);
    if (command.text.empty() || !store_.MarkDelivered(id)) {
        return;  // another thread has dealt with it
    }
    Forecast forecast;
    {
        qxtools::CPJsonParse json;
        // What was good when it came may not be any more, and others may have written to the store.
        if (const std::string reason = qxppolicy::ValidateForAdmission(command.text, json, directory_rule_);
            !reason.empty()) {
            QXPAGENT_LOG(kLogError, "command [%s] was journalled and is not delivered: %s", id.c_str(), reason.c_str());
            Refuse(id, reason);
            return;
        }
        forecast = MakeForecast(json);
    }
    const int status = HandOverOne(id, std::move(command.text), forecast.scripts);
    if (status == kBusUndelivered || status == kBusNotAttached || status == kBusQueueFull) {
        store_.MarkReceived(id);
        QXPAGENT_LOG(kLogWarn, "command [%s] is journalled and could not be delivered (%d)", id.c_str(), status);
        return;
    }
    QXPAGENT_LOG(kLogInfo, "command [%s] delivered from the journal (%d)", id.c_str(), status);
    ApplyAcknowledgement(id, status, forecast);
}

void CommandService::InterruptOne(const std::string& id, const std::string& reason) {
    const std::optional<size_t> missing = store_.Interrupt(id, reason);
    if (missing.has_value()) {
        counters_.Interrupted(*missing);
        QXPAGENT_LOG(kLogWarn, "command [%s] was interrupted: %zu results are missing", id.c_str(), *missing);
    }
}

void CommandService::InterruptAll(const std::string& reason) {
    for (const std::string& id : store_.IdsIn(CommandState::kDelivered)) {
        InterruptOne(id, reason);
    }
}

}  // namespace qxpagent
