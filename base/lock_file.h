#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "base/unique_fd.h"

namespace qxpbase {

/// Acquires the lock of a lock file, which is made if need be (mode 0600) and stays in place; the descriptor that is
/// returned holds it. Waits a moment for it: a killed process keeps its lock until the children it had forked have
/// executed their program. Nothing when another process keeps it. Throws std::system_error when the file cannot be
/// opened.
std::optional<UniqueFd> AcquireLockFile(const std::string& path,
                                        std::chrono::milliseconds wait = std::chrono::seconds(3));

}  // namespace qxpbase
