#pragma once

#include <sys/types.h>

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "plugin/platform/unique_descriptor.h"

/// Names one process for good: a pid together with its start time is never used twice.
struct ProcessIdentity {
    pid_t iPid = 0;
    unsigned long long u64StartTime = 0;                       ///< Clock ticks since boot, field 22 of /proc/PID/stat.
    auto operator<=>(const ProcessIdentity&) const = default;  // NOLINT(modernize-use-nullptr): a fault of the check
};

struct ProcessStat {
    ProcessIdentity stIdentity;
    pid_t iParent = 0;
    char cState = 0;
    long lThreads = 0;

    /// True for a process that has ended and waits for its parent. One whose first thread alone has ended shows the
    /// same state, but has other threads.
    bool HasEnded() const { return cState == 'X' || (cState == 'Z' && lThreads <= 1); }
    bool IsStopped() const { return cState == 'T' || cState == 't'; }
    /// In the kernel, where a signal reaches it only later.
    bool IsUninterruptible() const { return cState == 'D'; }
};

/// What /proc tells about processes. Nothing here blocks. "Could not look" (no descriptor, no /proc) is told from "not
/// there": what could not be looked at may be alive.
///
/// Opens one file at a time and holds one descriptor in reserve, which it gives up for that file when the process has
/// no other left. Any thread.
class CProcReader {
public:
    enum class ERead { DONE, GONE, FAILED };

    CProcReader();

    /// A process that this one may not look at (hidepid) counts as gone: it could not be signalled either.
    ERead ReadStat(pid_t iPid, ProcessStat& stat);

    /// Appends every process of the machine. False when /proc could not be read.
    bool ListProcesses(std::vector<pid_t>& pids);

    /// The children that the calling thread has started, oldest first. None when the kernel does not list them.
    std::optional<std::vector<pid_t>> ThreadChildren();

    /// Which of the pipes (sorted names as of PipeName) the process can write to. A pipe of which it holds the read end
    /// too is left out: such a process is a copy of this one, forked at the moment of a launch, and no part of a run.
    ERead FindWrittenPipes(pid_t iPid, const std::vector<std::string>& sortedPipes, std::vector<std::string>& found);

    // Without a descriptor.

    /// The pipe behind a descriptor of this process as "pipe:[inode]"; empty when it is none or could not be read.
    static std::string PipeName(int iDescriptor);
    /// True when that descriptor of the process is that pipe.
    static bool HasPipeAt(pid_t iPid, int iDescriptor, const std::string& strPipe);

    /// Takes the reserve again if it could not be had before. To be called where a descriptor may be spent.
    void Replenish();

private:
    class COpened;

    COpened Open(const char* pszPath, int iFlags);
    ERead IsOpenForWriting(pid_t iPid, int iDescriptor, bool& bWriting);

    std::mutex m_ReserveLock;
    CUniqueDescriptor m_Reserve;  // guarded by m_ReserveLock
};
