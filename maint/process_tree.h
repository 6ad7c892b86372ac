#pragma once

#include <map>
#include <string>

#include "maint/proc_table.h"

/// The processes of one run: its child, the child's descendants, and every process that holds the write end of the
/// run's output pipe. A process that has left both tree and pipe is not found.
class CProcessTree {
public:
    /// A root without a pid stands for a child that could not be found: only holders of the pipe are ended then.
    CProcessTree(const _ProcessIdentity& stRoot, std::string strPipe);

    /// Asks every process to end (SIGTERM, and SIGCONT for those that are stopped), and forces those that are left
    /// after the grace. Blocks for the grace and a little more at most; the caller holds no lock. The child itself
    /// must not have been waited for yet. False when processes are left that could not be ended.
    bool End(int iGraceMilliseconds);

private:
    bool CollectAlive();
    void Signal(int iSignal) const;
    void WaitGone(int iMilliseconds);

    const std::string m_strPipe;
    std::map<pid_t, _ProcessIdentity> m_Alive;  // as of the last look
};
