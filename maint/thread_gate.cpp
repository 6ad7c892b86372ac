#include "maint/thread_gate.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>

CThreadGate& CThreadGate::Instance() {
    static auto* const pGate = new CThreadGate;
    return *pGate;
}

void CThreadGate::Enter() {
    const std::lock_guard lock(m_Lock);
    // Room for every thread to leave: leaving must not fail.
    m_Ending.reserve(m_Ending.size() + m_uCount + 1);
    ++m_uCount;
}

void CThreadGate::Leave() {
    const std::lock_guard lock(m_Lock);
    if (--m_uCount == 0)
        m_Empty.notify_all();
}

void CThreadGate::LeaveByEnding() {
    {
        const std::lock_guard lock(m_Lock);
        ForgetEnded();
        m_Ending.push_back({static_cast<pid_t>(syscall(SYS_gettid)), std::chrono::steady_clock::now()});
    }
    Leave();
}

void CThreadGate::ForgetEnded() {
    // A thread needs no longer than this to end after it has left; what has its number then is another one.
    const auto longAgo = std::chrono::steady_clock::now() - std::chrono::seconds(5);
    std::erase_if(m_Ending, [&](const _EndingThread& thread) {
        return thread.left < longAgo || syscall(SYS_tgkill, getpid(), thread.iThread, 0) != 0;
    });
}

bool CThreadGate::WaitEmpty(int iMilliseconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(iMilliseconds);
    std::unique_lock lock(m_Lock);
    if (!m_Empty.wait_until(lock, deadline, [this] { return m_uCount == 0; }))
        return false;
    // A detached thread cannot be joined; what is left of one that has left is a few instructions.
    for (ForgetEnded(); !m_Ending.empty(); ForgetEnded()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        m_Empty.wait_for(lock, std::chrono::milliseconds(1));
    }
    m_Ending.shrink_to_fit();
    return true;
}

unsigned int CThreadGate::Count() {
    const std::lock_guard lock(m_Lock);
    return m_uCount;
}

void CThreadTicket::Take() {
    CThreadGate::Instance().Enter();
    m_eHeld = EHeld::ByCaller;
}

void CThreadTicket::Release() {
    if (m_eHeld == EHeld::ByCaller)
        CThreadGate::Instance().Leave();
    else if (m_eHeld == EHeld::ByNewThread)
        CThreadGate::Instance().LeaveByEnding();
    m_eHeld = EHeld::No;
}

void DisableCancellation() {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
}

void CancellationPoint() {
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    pthread_testcancel();
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
}
