#pragma once

#include <optional>
#include <string>

#include "agent/records/command_record.h"

namespace qxpagent {

enum class SubmitStatus {
    kTaken,           // journalled and handed to the plugin; its state tells what came of that
    kKnown,           // the same text was submitted before: nothing was done
    kConflict,        // another text was submitted under this ID before
    kUnacceptable,    // the admission check refused it; detail names the member
    kNotRunning,      // the agent is stopping, or the plugin is not started
    kBusy,            // too much is waiting already
    kStorageFull,     // the journal has no room
    kStorageFailed,   // the journal cannot be written
    kNotAcknowledged  // handed to the plugin, which has not said so in time; it may still run it
};

struct SubmitOutcome {
    SubmitStatus status = SubmitStatus::kTaken;
    std::string detail;                    // one sentence, when it was not taken
    std::optional<CommandRecord> command;  // as it is now: of kTaken, kKnown, kNotAcknowledged
};

}  // namespace qxpagent
