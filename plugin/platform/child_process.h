#pragma once

#include <poll.h>
#include <sys/types.h>

#include <cstdio>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "plugin/platform/proc_reader.h"

/// What is noted before a launch, to find the child after it.
struct LaunchMark {
    std::optional<std::vector<pid_t>> children;  ///< that the calling thread had already; none: not known
    unsigned long long u64StartTime = 0;         ///< clock ticks since boot: no child of the launch is older
};

/// The child process of one run, as popen started it. popen tells no pid, so the child is looked for right after. See
/// docs/decisions/003-launching-a-child.md.
/// Belongs to the launching thread until the run thread has taken over, then to that.
class CChildProcess {
public:
    explicit CChildProcess(CProcReader& reader) : m_Reader(reader) {}
    CChildProcess(const CChildProcess&) = delete;
    CChildProcess& operator=(const CChildProcess&) = delete;

    /// Never throws.
    static LaunchMark MarkLaunch(CProcReader& reader);

    /// Finds the child behind a stream that the calling thread has just opened, and opens a pidfd for it. The stream
    /// stays the run's to close. A child that cannot be found (memory, descriptors, /proc) is looked for again by
    /// FindAgain. Never throws.
    void Identify(FILE* pStream, const LaunchMark& stMark);
    void FindAgain();

    /// The stream of the child; null when none was started, and once it was taken.
    FILE* Stream() const { return m_pStream; }
    /// The stream, for whoever closes it.
    FILE* ReleaseStream() { return std::exchange(m_pStream, nullptr); }
    bool WasStarted() const { return m_u64LaunchTime != 0; }
    bool IsKnown() const { return m_stIdentity.iPid > 0; }

    /// True once the child has ended. Of one that is not known, false.
    bool HasExited() const;
    /// True when pclose would return at once: the child is known, has ended and has not been waited for by others.
    bool CanBeClosedNow() const;
    /// Waits until the child has ended, iWakeDescriptor is readable or the time is over.
    void WaitExit(int iWakeDescriptor, int iMilliseconds) const;
    /// Sends a signal to the child alone, without needing memory or a descriptor. Nothing happens when it is not known.
    void Signal(int iSignal) const;

    const ProcessIdentity& Identity() const { return m_stIdentity; }
    const std::string& PipeName() const { return m_strPipe; }

private:
    pid_t FindNewChild(const LaunchMark& stMark);
    pid_t FindByPipe();
    bool Accept(pid_t iPid);
    bool IsWaitable(bool& bOurs) const;

    CProcReader& m_Reader;
    FILE* m_pStream = nullptr;
    ProcessIdentity m_stIdentity;  // no pid: the child could not be found
    CUniqueDescriptor m_PidFd;     // none where the kernel has no pidfds, or no descriptor was left
    unsigned long long m_u64LaunchTime = 0;
    std::string m_strPipe;
};

/// A pidfd, close-on-exec; none when the kernel has none (before Linux 5.3), refuses it, or no descriptor is left.
CUniqueDescriptor OpenPidFd(pid_t iPid);
/// False when the kernel cannot signal through a pidfd.
bool SignalPidFd(const CUniqueDescriptor& pidFd, int iSignal);

/// Polls, and pauses briefly when that fails at once (no memory, or a limit on descriptors below their number), so that
/// a loop around it does not spin. Returns what poll returns.
int PollOrPause(std::span<pollfd> waits, int iMilliseconds);

/// Replaces the read end of a pipe by another descriptor of this process under the same number: the writer sees a
/// broken pipe at once, and the stream still owns its number, which is closed once, by pclose. iReplacement is any open
/// descriptor, so that none is needed; if it is negative, /dev/null is opened.
void CloseReadEnd(FILE* pStream, int iReplacement);
