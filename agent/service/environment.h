#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "agent/config/options.h"

namespace qxpagent {

/// Tells the host SDK where and from which level on to log, through its environment variables, which it reads here and
/// never again. Before the first thread and the first record. Where nothing is said about it, the journal is chosen
/// when $JOURNAL_STREAM names the standard error, as the service manager has it: device and inode.
void SetUpLog(const Options& options);

/// Takes from this process's environment, which every script inherits, all variables but these: PATH, HOME, USER,
/// LOGNAME, SHELL, TERM, TMPDIR, TZ, LANG, LANGUAGE, LC_*, and those that are named. What the service manager, a shell
/// or whoever starts the agent says there is not meant for scripts: some of it opens sockets (NOTIFY_SOCKET), some of
/// it makes a shell or the linker run what it names (BASH_ENV, LD_PRELOAD). Before the first thread; returns the names
/// of those that are gone.
std::vector<std::string> ReduceEnvironment(const std::vector<std::string>& more);

/// Raises this process's soft limit of open descriptors to kWantedDescriptors, as far as its hard limit goes: a run for
/// which none is left fails without having started. Scripts inherit the limit, so it goes no further. Says what is
/// missing, empty when nothing is.
std::string RaiseDescriptorLimit();
inline constexpr unsigned long kWantedDescriptors = 4096;
/// How many descriptors this process can open now.
size_t DescriptorsLeft();

}  // namespace qxpagent
