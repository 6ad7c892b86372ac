#pragma once

#include <sys/types.h>

#include <cstdio>
#include <string>
#include <vector>

#include "maint/proc_table.h"

/// What is noted before a launch, to find the child after it.
struct _LaunchMark {
    std::vector<pid_t> children;          ///< that the calling thread had already
    unsigned long long u64StartTime = 0;  ///< clock ticks since boot: no child of the launch is older
};

/// The child process of one run, as popen started it. popen tells no pid, so the child is looked for right after.
/// Belongs to the launching thread until the run thread has taken over, then to that.
class CChildProcess {
public:
    static _LaunchMark MarkLaunch();

    CChildProcess() = default;
    ~CChildProcess();
    CChildProcess(const CChildProcess&) = delete;
    CChildProcess& operator=(const CChildProcess&) = delete;

    /// Finds the child behind a stream that the calling thread has just opened, and opens a pidfd for it. The stream
    /// stays the run's to close. A child that cannot be found (memory, descriptors, /proc) is looked for again by
    /// FindAgain.
    void Identify(FILE* pStream, const _LaunchMark& stMark);
    void FindAgain();

    /// The stream of the child, null when none was started.
    FILE* Stream() const { return m_pStream; }
    bool IsKnown() const { return m_stIdentity.iPid > 0; }

    /// True once the child has ended, and when it is not known.
    bool HasExited() const;
    /// True when pclose would return at once: the child is known, has ended and has not been waited for by others.
    bool CanBeClosedNow() const;
    /// Waits until the child has ended, iWakeDescriptor is readable or the time is over.
    void WaitExit(int iWakeDescriptor, int iMilliseconds) const;
    /// Sends a signal to the child alone, without needing memory or a descriptor. Nothing happens when it is not known.
    void Signal(int iSignal) const;

    const _ProcessIdentity& Identity() const { return m_stIdentity; }
    const std::string& PipeName() const { return m_strPipe; }

private:
    bool Take(pid_t iPid);
    bool IsWaitable(bool& bOurs) const;

    FILE* m_pStream = nullptr;
    _ProcessIdentity m_stIdentity;  // no pid: the child could not be found
    int m_iPidFd = -1;
    unsigned long long m_u64LaunchTime = 0;
    std::string m_strPipe;
};

/// Replaces the read end of a pipe by another descriptor of this process under the same number: the writer sees a
/// broken pipe at once, and the stream still owns its number, which is closed once, by pclose. iReplacement is any open
/// descriptor, so that none is needed; if it is negative, /dev/null is opened.
void CloseReadEnd(FILE* pStream, int iReplacement);
