#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/peer.h"
#include "base/time_text.h"

namespace qxpagent {

using qxpbase::WallTime;

/// The life of a command. It ends in one of the last three, its final word, and never leaves that.
///
///   received     journalled, not yet handed to the plugin
///   delivered    marked before it is handed to the plugin, so that a crash never delivers twice
///   refused      the plugin refused it, or could not take it
///   reported     every result that it was to have is in the store
///   interrupted  the agent ended before that
enum class CommandState { kReceived, kDelivered, kRefused, kReported, kInterrupted };

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
