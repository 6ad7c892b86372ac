#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/peer.h"
#include "base/time_text.h"
#include "policy/vocabulary.h"

namespace qxpagent {

using qxpbase::WallTime;

using qxppolicy::CommandState;

/// One command as the journal has it.
struct CommandRecord {
    std::string id;
    std::string command;    // "RunScriptNormal" and so on
    uint64_t sequence = 0;  // grows with every change of any command: what is newer than a sequence has changed since
    CommandState state = CommandState::kReceived;
    std::string reason;  // of refused and interrupted, in plain words
    uint32_t scripts = 0;
    uint32_t expected = 0;                // scripts that are to have a result
    std::vector<std::string> unreported;  // script ids of those that have none yet
    uint64_t bytes = 0;                   // of the document
    std::string sha256;                   // of the document, hexadecimal
    qxpbase::Peer submitter;
    WallTime received;
    std::optional<WallTime> delivered;
    std::optional<WallTime> finished;
};

struct CommandQuery {
    std::optional<CommandState> state;
    uint64_t after = 0;  // only commands with a greater sequence
    size_t limit = 100;
    std::chrono::milliseconds wait{0};  // for the first match
};

}  // namespace qxpagent
