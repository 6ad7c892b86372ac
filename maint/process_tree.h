#pragma once

#include <map>

#include "maint/child_process.h"
#include "maint/proc_table.h"

/// The processes of one run: its child, the child's descendants, and every process that holds the write end of the
/// run's output pipe. A process that has left both tree and pipe is not found.
class CProcessTree {
public:
    /// The child must outlive this. One that is not known is left out: only holders of the pipe are ended then.
    explicit CProcessTree(const CChildProcess& child);

    /// Asks every process to end (SIGTERM, and SIGCONT for those that are stopped), and forces those that are left
    /// after the grace. Blocks for the grace and a little more at most; the caller holds no lock. The child itself
    /// must not have been waited for yet. False when processes are left that could not be ended, or could not be
    /// looked for.
    bool End(int iGraceMilliseconds);

private:
    bool CollectAlive();
    bool IsPartOfRun(const _ProcessStat& stat) const;
    void Signal(int iSignal) const;
    void WaitGone(int iMilliseconds) const;

    const CChildProcess& m_Child;
    std::map<pid_t, _ProcessIdentity> m_Alive;  // as of the last look
};
