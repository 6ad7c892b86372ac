#pragma once

#include <sys/types.h>

#include <cstdio>
#include <string>
#include <vector>

#include "maint/proc_table.h"

/// The child process of one run, as popen started it. popen tells no pid, so the child is looked for right after.
/// Belongs to the launching thread until the run thread has taken over, then to that.
class CChildProcess {
public:
    /// The children that the calling thread had before the launch.
    static std::vector<pid_t> ChildrenBefore();

    CChildProcess() = default;
    ~CChildProcess();
    CChildProcess(const CChildProcess&) = delete;
    CChildProcess& operator=(const CChildProcess&) = delete;

    /// Finds the child behind a stream that the calling thread has just opened, and opens a pidfd for it. The stream
    /// stays the run's to close.
    void Identify(FILE* pStream, const std::vector<pid_t>& childrenBefore);

    /// The stream of the child, null when none was started.
    FILE* Stream() const { return m_pStream; }

    /// True once the child has ended (it may still be waited for), and when nothing is known of it.
    bool HasExited() const;
    /// Waits until the child has ended, iWakeDescriptor is readable or the time is over.
    void WaitExit(int iWakeDescriptor, int iMilliseconds) const;
    /// True when pclose would return at once: the child is known and has ended.
    bool CanBeClosedNow() const { return m_stIdentity.iPid > 0 && HasExited(); }

    const _ProcessIdentity& Identity() const { return m_stIdentity; }
    const std::string& PipeName() const { return m_strPipe; }

private:
    FILE* m_pStream = nullptr;
    _ProcessIdentity m_stIdentity;  // no pid: the child could not be found
    int m_iPidFd = -1;
    std::string m_strPipe;
};

/// Replaces the read end of a pipe by /dev/null under the same descriptor number: the writer sees a broken pipe at
/// once, and the stream still owns its number, which is closed once, by pclose.
void CloseReadEnd(FILE* pStream);
