#include "maint/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <ctime>

#include <algorithm>
#include <cerrno>
#include <exception>

#include "maint/proc_table.h"

namespace {

/// How often a child without a pidfd is looked at.
constexpr int NO_PIDFD_TICK_MS = 50;
/// The kernel rounds start times down to a tick.
constexpr unsigned long long START_TIME_SLACK = 1;

unsigned long long TicksSinceBoot() {
    timespec stNow{};
    clock_gettime(CLOCK_BOOTTIME, &stNow);
    const auto u64TicksPerSecond = static_cast<unsigned long long>(sysconf(_SC_CLK_TCK));
    return static_cast<unsigned long long>(stNow.tv_sec) * u64TicksPerSecond +
           static_cast<unsigned long long>(stNow.tv_nsec) * u64TicksPerSecond / 1'000'000'000;
}

// The new child of this thread, checked against the pipe where that can be read; 0 when there is none.
pid_t FindNewChild(const _LaunchMark& stMark, const std::string& strPipe) {
    pid_t iOnly = 0;
    int iNew = 0;
    for (const pid_t iPid : ReadThreadChildren()) {
        if (std::find(stMark.children.begin(), stMark.children.end(), iPid) != stMark.children.end())
            continue;
        if (HasPipeAt(iPid, STDOUT_FILENO, strPipe))
            return iPid;
        iOnly = iPid;
        ++iNew;
    }
    // A child that has ended already, or has moved its output elsewhere, shows no pipe any more.
    return iNew == 1 ? iOnly : 0;
}

// The slow way, for a kernel that does not list a thread's children.
pid_t FindChildByPipe(const std::string& strPipe) {
    for (const auto& [iPid, stat] : ReadProcessTable()) {
        if (stat.iParent == getpid() && HasPipeAt(iPid, STDOUT_FILENO, strPipe))
            return iPid;
    }
    return 0;
}

}  // namespace

_LaunchMark CChildProcess::MarkLaunch() {
    return {ReadThreadChildren(), TicksSinceBoot() - START_TIME_SLACK};
}

CChildProcess::~CChildProcess() {
    if (m_iPidFd >= 0)
        close(m_iPidFd);
}

void CChildProcess::Identify(FILE* pStream, const _LaunchMark& stMark) {
    m_pStream = pStream;
    m_u64LaunchTime = stMark.u64StartTime;
    try {
        m_strPipe = ReadPipeName(fileno(pStream));
        if (!Take(FindNewChild(stMark, m_strPipe)))
            Take(FindChildByPipe(m_strPipe));
    } catch (const std::exception&) {
        return;  // out of memory: the run thread looks again
    }
}

void CChildProcess::FindAgain() {
    if (!IsKnown() && m_pStream)
        Take(FindChildByPipe(m_strPipe));
}

// The pidfd first: what it names is then checked, and cannot become another process between. It is close-on-exec by
// itself. The child is ours and waited for by nobody else, so it also does without a pidfd.
bool CChildProcess::Take(pid_t iPid) {
    if (iPid <= 0)
        return false;
    const auto iPidFd = static_cast<int>(syscall(SYS_pidfd_open, iPid, 0));
    const auto stat = ReadProcessStat(iPid);
    if (!stat || stat->iParent != getpid() || stat->stIdentity.u64StartTime < m_u64LaunchTime) {
        if (iPidFd >= 0)
            close(iPidFd);
        return false;
    }
    m_stIdentity = stat->stIdentity;
    m_iPidFd = iPidFd;
    return true;
}

// True when the child has ended. bOurs: it is there for pclose to wait for.
bool CChildProcess::IsWaitable(bool& bOurs) const {
    siginfo_t stInfo{};
    const int iResult = waitid(P_PID, static_cast<id_t>(m_stIdentity.iPid), &stInfo, WEXITED | WNOHANG | WNOWAIT);
    bOurs = iResult == 0 && stInfo.si_pid == m_stIdentity.iPid;
    return bOurs || (iResult != 0 && errno == ECHILD);
}

bool CChildProcess::HasExited() const {
    bool bOurs = false;
    if (m_iPidFd >= 0) {
        pollfd stPidFd{m_iPidFd, POLLIN, 0};
        return poll(&stPidFd, 1, 0) == 1;
    }
    return !IsKnown() || IsWaitable(bOurs);
}

bool CChildProcess::CanBeClosedNow() const {
    bool bOurs = false;
    return IsKnown() && HasExited() && IsWaitable(bOurs) && bOurs;
}

void CChildProcess::WaitExit(int iWakeDescriptor, int iMilliseconds) const {
    // poll passes over a negative descriptor.
    pollfd arrWait[] = {{iWakeDescriptor, POLLIN, 0}, {m_iPidFd, POLLIN, 0}};
    poll(arrWait, 2, m_iPidFd >= 0 ? iMilliseconds : std::min(iMilliseconds, NO_PIDFD_TICK_MS));
}

void CChildProcess::Signal(int iSignal) const {
    bool bOurs = false;
    if (m_iPidFd >= 0)
        syscall(SYS_pidfd_send_signal, m_iPidFd, iSignal, nullptr, 0);
    else if (IsKnown() && !IsWaitable(bOurs))
        kill(m_stIdentity.iPid, iSignal);  // not waited for yet, so the number is still its own
}

void CloseReadEnd(FILE* pStream, int iReplacement) {
    const int iNull = iReplacement < 0 ? open("/dev/null", O_RDONLY | O_CLOEXEC) : -1;
    const int iSource = iReplacement < 0 ? iNull : iReplacement;
    if (iSource >= 0)
        dup3(iSource, fileno(pStream), O_CLOEXEC);
    if (iNull >= 0)
        close(iNull);
}
