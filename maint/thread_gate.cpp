#include "maint/thread_gate.h"

#include <pthread.h>

#include <chrono>

CThreadGate& CThreadGate::Instance() {
    static auto* const pGate = new CThreadGate;
    return *pGate;
}

void CThreadGate::Enter() {
    const std::lock_guard lock(m_Lock);
    ++m_uCount;
}

void CThreadGate::Leave() {
    const std::lock_guard lock(m_Lock);
    if (--m_uCount == 0)
        m_Empty.notify_all();
}

bool CThreadGate::WaitEmpty(int iMilliseconds) {
    std::unique_lock lock(m_Lock);
    return m_Empty.wait_for(lock, std::chrono::milliseconds(iMilliseconds), [this] { return m_uCount == 0; });
}

unsigned int CThreadGate::Count() {
    const std::lock_guard lock(m_Lock);
    return m_uCount;
}

void CThreadTicket::Take() {
    CThreadGate::Instance().Enter();
    m_bHeld = true;
}

void CThreadTicket::Release() {
    if (m_bHeld)
        CThreadGate::Instance().Leave();
    m_bHeld = false;
}

void DisableCancellation() {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
}

void CancellationPoint() {
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    pthread_testcancel();
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
}
