#pragma once

#include <string>

#include "agent/config/options.h"

namespace qxpagent {

/// Tells the host SDK where and from which level on to log, through its environment variables, which it reads here and
/// never again. Before the first thread and the first record. Where nothing is said about it, the journal is chosen
/// when the standard error is connected to it.
void SetUpLog(const Options& options);

/// True when $JOURNAL_STREAM names the standard error, as the service manager has it: device and inode.
bool StandardErrorIsJournal();

}  // namespace qxpagent
