#pragma once

#include <chrono>
#include <map>
#include <set>

#include "plugin/platform/child_process.h"
#include "plugin/platform/process_scan.h"

/// The processes of one run: its child, the child's descendants, and every process that holds the write end of the
/// run's output pipe. A process that has left both tree and pipe before it is looked for is not found. See
/// docs/decisions/004-ending-a-run.md.
class CProcessTree {
public:
    /// What is known of the processes of a run after they were ended.
    enum class EEnd {
        GONE,
        LEFT,     ///< Some could not be ended.
        UNKNOWN,  ///< They could not be looked for: some may be left.
    };

    /// The child must outlive this. Of one that is not known, holders of the pipe alone are ended.
    CProcessTree(const CChildProcess& child, CProcReader& reader, CProcessScan& scan);

    /// Stops every process so that none can start another while they are looked for, asks all to end (SIGTERM, and
    /// SIGCONT), and forces those that are left after the grace. Blocks for the grace and two seconds more at most, and
    /// for the looks; the caller holds no lock. The child itself must not have been waited for yet. Never throws.
    EEnd End(std::chrono::milliseconds grace);

private:
    enum class EStop {
        ALL_STOPPED,  ///< before this
        NOT_YET,
        FAILED,  ///< Some could not be signalled, because they could not be looked at.
    };

    EEnd Look();
    bool Collect();
    EEnd Freeze();
    EStop StopAll();
    bool IsPartOfRun(const ProcessStat& stat, const ProcessSnapshot& snapshot) const;
    bool IsAlive(const ProcessIdentity& stIdentity);
    void Signal(int iSignal);
    bool SignalProcess(const ProcessIdentity& stIdentity, int iSignal);
    void WaitGone(std::chrono::milliseconds time);

    const CChildProcess& m_Child;
    CProcReader& m_Reader;
    CProcessScan& m_Scan;
    std::map<pid_t, ProcessStat> m_Alive;  // as of the last look that succeeded
    std::set<ProcessIdentity> m_Frozen;    // those that were sent SIGSTOP
    int m_iLooksLeft;                      // looks at processes in an uninterruptible wait that are left
};
