#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

// What /proc tells about processes. Nothing here blocks; what cannot be read counts as absent.

/// Names one process for good: a pid together with its start time is never used twice.
struct _ProcessIdentity {
    pid_t iPid = 0;
    unsigned long long u64StartTime = 0;  ///< Clock ticks since boot, field 22 of /proc/PID/stat.
    auto operator<=>(const _ProcessIdentity&) const = default;
};

struct _ProcessStat {
    _ProcessIdentity stIdentity;
    pid_t iParent = 0;
    char cState = 0;
    long lThreads = 0;

    /// True for a process that has ended and waits for its parent. One whose first thread alone has ended shows the
    /// same state, but has other threads.
    bool HasEnded() const { return cState == 'X' || (cState == 'Z' && lThreads <= 1); }
};

std::optional<_ProcessStat> ReadProcessStat(pid_t iPid);

/// Every process of the machine, by pid. Without this process in it, /proc could not be read.
std::map<pid_t, _ProcessStat> ReadProcessTable();

/// The children that the calling thread has started, oldest first.
std::vector<pid_t> ReadThreadChildren();

/// The pipe behind a descriptor of this process as "pipe:[inode]"; empty when it is no pipe.
std::string ReadPipeName(int iDescriptor);

/// True when a descriptor of the process is the write end of that pipe, and none is its read end: a process that holds
/// both is a copy of this one, forked at the moment of the launch, and no part of the run.
bool HoldsWriteEnd(pid_t iPid, const std::string& strPipe);

/// True when that descriptor of the process is that pipe.
bool HasPipeAt(pid_t iPid, int iDescriptor, const std::string& strPipe);
