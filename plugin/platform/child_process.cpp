#include "plugin/platform/child_process.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <ctime>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <exception>

#include "plugin/platform/main_t_tool.h"

namespace {

/// How often something is looked at that cannot be waited for.
constexpr int LOOK_TICK_MS = 50;
/// The kernel rounds start times down to a tick.
constexpr unsigned long long START_TIME_SLACK = 1;

unsigned long long TicksSinceBoot() {
    timespec stNow{};
    clock_gettime(CLOCK_BOOTTIME, &stNow);
    const auto u64TicksPerSecond = static_cast<unsigned long long>(sysconf(_SC_CLK_TCK));
    return static_cast<unsigned long long>(stNow.tv_sec) * u64TicksPerSecond +
           static_cast<unsigned long long>(stNow.tv_nsec) * u64TicksPerSecond / 1'000'000'000;
}

}  // namespace

CUniqueDescriptor OpenPidFd(pid_t iPid) {
    return CUniqueDescriptor(static_cast<int>(syscall(SYS_pidfd_open, iPid, 0)));
}

bool SignalPidFd(const CUniqueDescriptor& pidFd, int iSignal) {
    return syscall(SYS_pidfd_send_signal, pidFd.Get(), iSignal, nullptr, 0) == 0 || errno == ESRCH;
}

LaunchMark CChildProcess::MarkLaunch(CProcReader& reader) {
    LaunchMark stMark;
    stMark.u64StartTime = TicksSinceBoot() - START_TIME_SLACK;
    try {
        stMark.children = reader.ThreadChildren();
    } catch (const std::exception&) {
        stMark.children.reset();  // out of memory: the pipe and the start time tell the new child
    }
    return stMark;
}

void CChildProcess::Identify(FILE* pStream, const LaunchMark& stMark) {
    assert(pStream != nullptr && !WasStarted());
    m_pStream = pStream;
    m_u64LaunchTime = stMark.u64StartTime;
    try {
        m_strPipe = CProcReader::PipeName(fileno(pStream));
        if (!Accept(FindNewChild(stMark))) {
            Accept(FindByPipe());
        }
    } catch (const std::exception&) {
        return;  // out of memory: the run thread looks again
    }
}

void CChildProcess::FindAgain() {
    if (IsKnown() || !WasStarted()) {
        return;
    }
    try {
        if (m_strPipe.empty() && m_pStream) {
            m_strPipe = CProcReader::PipeName(fileno(m_pStream));
        }
        Accept(FindByPipe());
    } catch (const std::exception&) {
        return;  // and again
    }
}

// Why through /proc: popen does not tell the pid, and waiting for any child would take the host's children away.
// The new child of this thread, checked against the pipe where that can be read; 0 when there is none.
pid_t CChildProcess::FindNewChild(const LaunchMark& stMark) {
    const auto children = m_Reader.ThreadChildren();
    if (!children) {
        return 0;
    }
    pid_t iOnly = 0;
    int iNew = 0;
    for (const pid_t iPid : *children) {
        if (stMark.children &&
            std::find(stMark.children->begin(), stMark.children->end(), iPid) != stMark.children->end()) {
            continue;
        }
        if (CProcReader::HasPipeAt(iPid, STDOUT_FILENO, m_strPipe)) {
            return iPid;
        }
        iOnly = iPid;
        ++iNew;
    }
    // A child that has ended already, or has moved its output elsewhere, shows no pipe any more.
    return iNew == 1 ? iOnly : 0;
}

// The slow way, for a kernel that does not list a thread's children.
pid_t CChildProcess::FindByPipe() {
    if (m_strPipe.empty()) {
        return 0;
    }
    std::vector<pid_t> pids;
    m_Reader.ListProcesses(pids);
    for (const pid_t iPid : pids) {
        ProcessStat stat;
        if (CProcReader::HasPipeAt(iPid, STDOUT_FILENO, m_strPipe) &&
            m_Reader.ReadStat(iPid, stat) == CProcReader::ERead::DONE && stat.iParent == getpid()) {
            return iPid;
        }
    }
    return 0;
}

// The identity first: with a single descriptor left, it is worth more than a pidfd. The child is ours and waited for by
// nobody else, so its number stays its own in between, and it also does without a pidfd.
bool CChildProcess::Accept(pid_t iPid) {
    ProcessStat stat;
    if (iPid <= 0 || m_Reader.ReadStat(iPid, stat) != CProcReader::ERead::DONE || stat.iParent != getpid() ||
        stat.stIdentity.u64StartTime < m_u64LaunchTime) {
        return false;
    }
    m_stIdentity = stat.stIdentity;
    m_PidFd = OpenPidFd(iPid);
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
    pollfd stPidFd{m_PidFd.Get(), POLLIN, 0};
    if (m_PidFd) {
        if (const int iReady = poll(&stPidFd, 1, 0); iReady >= 0) {
            return iReady == 1;
        }
    }
    return IsKnown() && IsWaitable(bOurs);
}

bool CChildProcess::CanBeClosedNow() const {
    bool bOurs = false;
    return IsKnown() && HasExited() && IsWaitable(bOurs) && bOurs;
}

void CChildProcess::WaitExit(int iWakeDescriptor, int iMilliseconds) const {
    // poll passes over a negative descriptor.
    pollfd arrWait[] = {{iWakeDescriptor, POLLIN, 0}, {m_PidFd.Get(), POLLIN, 0}};
    PollOrPause(arrWait, m_PidFd || !IsKnown() ? iMilliseconds : std::min(iMilliseconds, LOOK_TICK_MS));
}

void CChildProcess::Signal(int iSignal) const {
    bool bOurs = false;
    if (m_PidFd && SignalPidFd(m_PidFd, iSignal)) {
        return;
    }
    if (IsKnown() && !IsWaitable(bOurs)) {
        kill(m_stIdentity.iPid, iSignal);  // not waited for yet, so the number is still its own
    }
}

int PollOrPause(std::span<pollfd> waits, int iMilliseconds) {
    const int iReady = poll(waits.data(), waits.size(), iMilliseconds);
    if (iReady < 0 && errno != EINTR) {
        MaintPause(std::chrono::milliseconds(LOOK_TICK_MS));
    }
    return iReady;
}

void CloseReadEnd(FILE* pStream, int iReplacement) {
    CUniqueDescriptor null;
    if (iReplacement < 0) {
        null = CUniqueDescriptor(open("/dev/null", O_RDONLY | O_CLOEXEC));
    }
    const int iSource = iReplacement < 0 ? null.Get() : iReplacement;
    // Put over the number in one step: after a close, another thread could get the number, and pclose would close that.
    if (iSource >= 0) {
        dup3(iSource, fileno(pStream), O_CLOEXEC);
    }
}
