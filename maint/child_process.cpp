#include "maint/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "maint/proc_table.h"

namespace {

/// How often a child without a pidfd is looked at.
constexpr int NO_PIDFD_TICK_MS = 50;

// The new child of this thread, checked against the pipe where that can be read; 0 when there is none.
pid_t FindNewChild(const std::vector<pid_t>& childrenBefore, const std::string& strPipe) {
    pid_t iOnly = 0;
    int iNew = 0;
    for (const pid_t iPid : ReadThreadChildren()) {
        if (std::find(childrenBefore.begin(), childrenBefore.end(), iPid) != childrenBefore.end())
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

std::vector<pid_t> CChildProcess::ChildrenBefore() {
    return ReadThreadChildren();
}

CChildProcess::~CChildProcess() {
    if (m_iPidFd >= 0)
        close(m_iPidFd);
}

void CChildProcess::Identify(FILE* pStream, const std::vector<pid_t>& childrenBefore) {
    m_pStream = pStream;
    m_strPipe = ReadPipeName(fileno(pStream));
    pid_t iPid = FindNewChild(childrenBefore, m_strPipe);
    if (iPid <= 0)
        iPid = FindChildByPipe(m_strPipe);
    const auto stat = ReadProcessStat(iPid);
    if (!stat || stat->iParent != getpid())
        return;
    // The child is ours and not waited for yet, so the pid is still its own. A pidfd is close-on-exec by itself.
    m_stIdentity = stat->stIdentity;
    m_iPidFd = static_cast<int>(syscall(SYS_pidfd_open, iPid, 0));
}

bool CChildProcess::HasExited() const {
    if (m_iPidFd >= 0) {
        pollfd stPidFd{m_iPidFd, POLLIN, 0};
        return poll(&stPidFd, 1, 0) == 1;
    }
    if (m_stIdentity.iPid <= 0)
        return true;
    siginfo_t stInfo{};
    const int iResult = waitid(P_PID, static_cast<id_t>(m_stIdentity.iPid), &stInfo, WEXITED | WNOHANG | WNOWAIT);
    return iResult != 0 ? errno == ECHILD : stInfo.si_pid == m_stIdentity.iPid;
}

void CChildProcess::WaitExit(int iWakeDescriptor, int iMilliseconds) const {
    // poll passes over a negative descriptor.
    pollfd arrWait[] = {{iWakeDescriptor, POLLIN, 0}, {m_iPidFd, POLLIN, 0}};
    poll(arrWait, 2, m_iPidFd >= 0 ? iMilliseconds : std::min(iMilliseconds, NO_PIDFD_TICK_MS));
}

void CloseReadEnd(FILE* pStream) {
    const int iNull = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (iNull < 0)
        return;
    dup3(iNull, fileno(pStream), O_CLOEXEC);
    close(iNull);
}
