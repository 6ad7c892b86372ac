#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>

#include "agent/records/command_record.h"

namespace qxpagent {

/// What is in the store.
struct StoreFigures {
    uint64_t reports = 0;
    uint64_t reports_pending = 0;  // not yet acknowledged
    uint64_t last_cursor = 0;      // of the newest report ever stored, 0 when there was none
    std::optional<WallTime> oldest_pending;
    uint64_t bytes = 0;                       // of all texts in the store
    uint64_t last_sequence = 0;               // of the newest change of a command
    std::map<CommandState, uint64_t> states;  // commands in the journal
    std::string fault;                        // why the store cannot be written at present; empty: it can
};

/// The store could not be read or written; the text says why.
class StoreError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The store has no room, or the disk has none. What is in it is safe and can be read.
class StoreFullError : public StoreError {
public:
    using StoreError::StoreError;
};

}  // namespace qxpagent
