#include "plugin/platform/process_tree.h"

#include <unistd.h>
#include <csignal>

#include <algorithm>
#include <exception>

#include "plugin/platform/main_t_tool.h"

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

/// Rounds of killing: a process that could not be stopped in time may have left children for the next round.
constexpr int KILL_ROUNDS = 20;
constexpr milliseconds KILL_ROUND{100};
/// How often processes that are being stopped are looked at. Each look finds what was started since the one before by
/// a process that the stop had not reached; few programs take three.
constexpr int FREEZE_LOOKS = 50;
constexpr milliseconds FREEZE_PAUSE{1};
/// Looks of one ending that wait for a process in an uninterruptible wait: it may hang there for good.
constexpr int UNINTERRUPTIBLE_LOOKS = 20;
/// Looks that may fail in one freezing, or the signals after them; the rounds around it try again, with longer pauses.
constexpr int FREEZE_FAILURES = 3;
constexpr milliseconds FIRST_PAUSE{5};
constexpr milliseconds LAST_PAUSE{100};

}  // namespace

CProcessTree::CProcessTree(const CChildProcess& child, CProcReader& reader, CProcessScan& scan)
    : m_Child(child), m_Reader(reader), m_Scan(scan), m_iLooksLeft(UNINTERRUPTIBLE_LOOKS) {
}

bool CProcessTree::IsPartOfRun(const ProcessStat& stat, const ProcessSnapshot& snapshot) const {
    const ProcessIdentity& stIdentity = stat.stIdentity;
    if (stIdentity.iPid == getpid() || stIdentity.iPid == 1) {
        return false;
    }
    if (stIdentity == m_Child.Identity()) {
        return true;
    }
    const auto known = m_Alive.find(stIdentity.iPid);
    if (known != m_Alive.end() && known->second.stIdentity == stIdentity) {
        return true;
    }
    return stIdentity.u64StartTime >= m_Child.Identity().u64StartTime &&
           snapshot.CanWrite(stIdentity.iPid, m_Child.PipeName());
}

// False when not everything could be looked at; what is known of the run is kept then.
bool CProcessTree::Collect() try {
    const auto spSnapshot = m_Scan.Look(m_Child.PipeName(), m_Child.Identity().u64StartTime);
    if (!spSnapshot) {
        return false;
    }
    std::map<pid_t, ProcessStat> found;
    for (const ProcessStat& stat : spSnapshot->processes) {
        if (IsPartOfRun(stat, *spSnapshot)) {
            found.emplace(stat.stIdentity.iPid, stat);
        }
    }
    // A child may have a lower pid than its parent, so one pass over the table is not enough.
    for (bool bGrown = !found.empty(); bGrown;) {
        bGrown = false;
        for (const ProcessStat& stat : spSnapshot->processes) {
            const pid_t iPid = stat.stIdentity.iPid;
            if (found.contains(stat.iParent) && iPid != getpid()) {
                bGrown = found.emplace(iPid, stat).second || bGrown;
            }
        }
    }
    std::erase_if(found, [](const auto& entry) { return entry.second.HasEnded(); });
    // One that was there and could not be looked at this time may be alive still.
    if (!spSnapshot->bComplete) {
        for (const auto& [iPid, stat] : m_Alive) {
            if (!spSnapshot->Find(iPid)) {
                found.emplace(iPid, stat);
            }
        }
    }
    m_Alive = std::move(found);
    return spSnapshot->bComplete;
} catch (const std::exception&) {
    return false;  // out of memory
}

// Left: some are alive.
CProcessTree::EEnd CProcessTree::Look() {
    const bool bComplete = Collect();
    if (!m_Alive.empty() || (m_Child.IsKnown() && !m_Child.HasExited())) {
        return EEnd::LEFT;
    }
    return bComplete && m_Child.IsKnown() && !m_Child.PipeName().empty() ? EEnd::GONE : EEnd::UNKNOWN;
}

bool CProcessTree::IsAlive(const ProcessIdentity& stIdentity) {
    ProcessStat stat;
    switch (m_Reader.ReadStat(stIdentity.iPid, stat)) {
        case CProcReader::ERead::DONE:
            return stat.stIdentity == stIdentity && !stat.HasEnded();
        case CProcReader::ERead::GONE:
            return false;
        case CProcReader::ERead::FAILED:
            break;
    }
    return true;  // for all that is known
}

// A pidfd keeps naming the process it was opened for, so the check of the identity after the opening holds for the
// signal: it cannot reach a process that has taken over the pid. Without a pidfd the check comes right before the
// signal.
bool CProcessTree::SignalProcess(const ProcessIdentity& stIdentity, int iSignal) {
    const CUniqueDescriptor pidFd = OpenPidFd(stIdentity.iPid);
    ProcessStat stat;
    const CProcReader::ERead eRead = m_Reader.ReadStat(stIdentity.iPid, stat);
    if (eRead == CProcReader::ERead::DONE && stat.stIdentity == stIdentity &&
        (!pidFd || !SignalPidFd(pidFd, iSignal))) {
        kill(stIdentity.iPid, iSignal);
    }
    return eRead != CProcReader::ERead::FAILED;
}

void CProcessTree::Signal(int iSignal) {
    m_Child.Signal(iSignal);
    for (const auto& [iPid, stat] : m_Alive) {
        if (stat.stIdentity != m_Child.Identity()) {
            SignalProcess(stat.stIdentity, iSignal);
        }
    }
}

void CProcessTree::WaitGone(milliseconds time) {
    const auto deadline = steady_clock::now() + time;
    for (milliseconds pause = FIRST_PAUSE;; pause = std::min(2 * pause, LAST_PAUSE)) {
        const bool bAnyAlive = std::any_of(m_Alive.begin(), m_Alive.end(),
                                           [this](const auto& entry) { return IsAlive(entry.second.stIdentity); });
        const auto left = std::chrono::duration_cast<milliseconds>(deadline - steady_clock::now());
        if ((!bAnyAlive && (!m_Child.IsKnown() || m_Child.HasExited())) || left.count() <= 0) {
            return;
        }
        MaintPause(std::min(pause, left));
    }
}

// A process that ends on a signal while it starts another leaves that one to init, where nothing shows that it belongs
// to the run. So all are stopped first: a stopped process starts no other, and its children stay its own. One that had
// begun to fork when the signal came stops after that, and its child may have missed the list of the look that finds it
// stopped; so a look more must find all as they were. The kernel may take its time over a process in an uninterruptible
// wait, or need another one to be continued for it (vfork): it is waited for within limits.
CProcessTree::EEnd CProcessTree::Freeze() {
    EEnd eEnd = EEnd::UNKNOWN;
    int iFailures = 0;
    int iQuietLooks = 0;      // in a row, at which all were stopped already
    m_Child.Signal(SIGSTOP);  // at once: it is the one that is known without a look
    for (int iLook = 0; iLook < FREEZE_LOOKS && iFailures < FREEZE_FAILURES && iQuietLooks < 2; ++iLook) {
        if (iLook > 0 && iQuietLooks == 0) {
            MaintPause(FREEZE_PAUSE);
        }
        eEnd = Look();
        const EStop eStop = StopAll();
        iFailures += eEnd == EEnd::UNKNOWN || eStop == EStop::FAILED ? 1 : 0;
        iQuietLooks = eEnd != EEnd::UNKNOWN && eStop == EStop::ALL_STOPPED ? iQuietLooks + 1 : 0;
    }
    return eEnd;
}

CProcessTree::EStop CProcessTree::StopAll() {
    bool bAllStopped = true;
    bool bFailed = false;
    bool bUninterruptible = false;
    for (const auto& [iPid, stat] : m_Alive) {
        const bool bGivenUp = stat.IsUninterruptible() && m_iLooksLeft <= 0;
        if (m_Frozen.contains(stat.stIdentity) && (stat.IsStopped() || bGivenUp)) {
            continue;
        }
        bAllStopped = false;
        bUninterruptible = bUninterruptible || stat.IsUninterruptible();
        bFailed = !SignalProcess(stat.stIdentity, SIGSTOP) || bFailed;
        try {
            m_Frozen.insert(stat.stIdentity);
        } catch (const std::exception&) {
            continue;  // out of memory: it is stopped once more at the next look
        }
    }
    m_iLooksLeft -= bUninterruptible ? 1 : 0;
    if (bFailed) {
        return EStop::FAILED;
    }
    return bAllStopped ? EStop::ALL_STOPPED : EStop::NOT_YET;
}

CProcessTree::EEnd CProcessTree::End(milliseconds grace) {
    const auto deadline = steady_clock::now() + grace;
    EEnd eEnd = EEnd::UNKNOWN;
    if (grace.count() > 0) {
        eEnd = Freeze();
        while (eEnd != EEnd::GONE) {
            // A stopped process acts on SIGTERM only once it goes on.
            Signal(SIGTERM);
            Signal(SIGCONT);
            const auto left = std::chrono::duration_cast<milliseconds>(deadline - steady_clock::now());
            if (left.count() <= 0) {
                break;
            }
            WaitGone(m_Alive.empty() ? std::min(left, LAST_PAUSE) : left);
            eEnd = Look();
        }
        m_Frozen.clear();
    }
    // In rounds, and frozen again in each: SIGKILL meets one process after the other, and those not yet met can fork.
    for (int iRound = 0; iRound < KILL_ROUNDS && eEnd != EEnd::GONE; ++iRound) {
        Freeze();
        Signal(SIGKILL);
        WaitGone(KILL_ROUND);
        eEnd = Look();
    }
    return eEnd;
}
