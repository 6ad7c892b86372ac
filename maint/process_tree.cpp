#include "maint/process_tree.h"

#include <sys/syscall.h>
#include <unistd.h>
#include <csignal>
#include <ctime>

#include <algorithm>

#include "tool/main_t_tool.h"

namespace {

/// Rounds of killing: a process that forks while it is killed leaves children for the next round.
constexpr int KILL_ROUNDS = 20;
constexpr int KILL_ROUND_MS = 100;
constexpr int FIRST_LOOK_MS = 5;
constexpr int LAST_LOOK_MS = 100;

void Pause(int iMilliseconds) {
    const timespec stPause{iMilliseconds / 1000, iMilliseconds % 1000 * 1'000'000L};
    nanosleep(&stPause, nullptr);
}

bool IsAlive(const _ProcessIdentity& stIdentity) {
    const auto stat = ReadProcessStat(stIdentity.iPid);
    return stat && stat->stIdentity == stIdentity && !stat->HasEnded();
}

// A pidfd keeps naming the process it was opened for, so the check of the identity after the opening holds for the
// signal: it can never reach a process that has taken over the pid.
void SignalProcess(const _ProcessIdentity& stIdentity, int iSignal) {
    const auto iPidFd = static_cast<int>(syscall(SYS_pidfd_open, stIdentity.iPid, 0));
    if (iPidFd < 0)
        return;
    if (IsAlive(stIdentity))
        syscall(SYS_pidfd_send_signal, iPidFd, iSignal, nullptr, 0);
    close(iPidFd);
}

}  // namespace

CProcessTree::CProcessTree(const CChildProcess& child) : m_Child(child) {
    if (child.IsKnown())
        m_Alive.emplace(child.Identity().iPid, child.Identity());
}

bool CProcessTree::IsPartOfRun(const _ProcessStat& stat) const {
    const _ProcessIdentity& stIdentity = stat.stIdentity;
    if (stIdentity.iPid == getpid() || stIdentity.iPid == 1)
        return false;
    const auto known = m_Alive.find(stIdentity.iPid);
    if (known != m_Alive.end() && known->second == stIdentity)
        return true;
    // Nothing older than the child can be part of its run; this spares most processes the look at their descriptors.
    return stIdentity.u64StartTime >= m_Child.Identity().u64StartTime &&
           HoldsWriteEnd(stIdentity.iPid, m_Child.PipeName());
}

bool CProcessTree::CollectAlive() {
    const auto table = ReadProcessTable();
    if (!table.contains(getpid()))
        return !m_Child.HasExited();  // /proc cannot be read: what is known of the run stays as it is
    std::map<pid_t, _ProcessIdentity> found;
    for (const auto& [iPid, stat] : table) {
        if (IsPartOfRun(stat))
            found.emplace(iPid, stat.stIdentity);
    }
    // A child may have a lower pid than its parent, so one pass over the table is not enough.
    for (bool bGrown = true; bGrown;) {
        bGrown = false;
        for (const auto& [iPid, stat] : table) {
            if (!found.contains(iPid) && found.contains(stat.iParent) && iPid != getpid())
                bGrown = found.emplace(iPid, stat.stIdentity).second;
        }
    }
    m_Alive = std::move(found);
    std::erase_if(m_Alive, [&](const auto& entry) { return table.at(entry.first).HasEnded(); });
    return !m_Alive.empty() || !m_Child.HasExited();
}

void CProcessTree::Signal(int iSignal) const {
    m_Child.Signal(iSignal);
    for (const auto& [iPid, stIdentity] : m_Alive) {
        if (stIdentity != m_Child.Identity())
            SignalProcess(stIdentity, iSignal);
    }
}

void CProcessTree::WaitGone(int iMilliseconds) const {
    int iLook = FIRST_LOOK_MS;
    for (int iWaited = 0; iWaited < iMilliseconds; iWaited += iLook, iLook = std::min(2 * iLook, LAST_LOOK_MS)) {
        const bool bAnyAlive =
            std::any_of(m_Alive.begin(), m_Alive.end(), [](const auto& entry) { return IsAlive(entry.second); });
        if (!bAnyAlive && m_Child.HasExited())
            return;
        Pause(iLook);
    }
}

bool CProcessTree::End(int iGraceMilliseconds) {
    const unsigned long ulBegin = CMainTTool::MaintGetTickCount();
    for (int iLeft = iGraceMilliseconds; iLeft > 0;) {
        if (!CollectAlive())
            return true;
        Signal(SIGTERM);
        Signal(SIGCONT);
        WaitGone(iLeft);
        iLeft = iGraceMilliseconds - static_cast<int>(CMainTTool::MaintGetTickCount() - ulBegin);
    }
    for (int iRound = 0; iRound < KILL_ROUNDS; ++iRound) {
        if (!CollectAlive())
            return true;
        Signal(SIGKILL);
        WaitGone(KILL_ROUND_MS);
    }
    return !CollectAlive();
}
