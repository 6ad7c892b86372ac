#include "plugin/manager/thread_gate.h"

#include <execinfo.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>

using std::chrono::steady_clock;

void CThreadGate::Enter() {
    const std::lock_guard lock(m_Lock);
    ++m_uCount;
}

void CThreadGate::Leave() {
    const std::lock_guard lock(m_Lock);
    assert(m_uCount > 0);
    if (--m_uCount == 0) {
        m_Empty.notify_all();
    }
}

void CThreadGate::LeaveByEnding(std::list<EndingThread>& listRoom) {
    const std::lock_guard lock(m_Lock);
    assert(m_uCount > 0 && listRoom.size() == 1);
    ForgetEnded();
    listRoom.front() = {static_cast<pid_t>(syscall(SYS_gettid)), steady_clock::now()};
    m_Ending.splice(m_Ending.end(), listRoom);
    if (--m_uCount == 0) {
        m_Empty.notify_all();
    }
}

// The kernel says whether a thread is there. A thread's own last word would come too early: it runs this library's
// code, or that of a destructor in the C library, after having said it.
void CThreadGate::ForgetEnded() {
    // A thread ends well within this time after it has left: a thread that has its number later is another one.
    const auto longAgo = steady_clock::now() - std::chrono::seconds(5);
    std::erase_if(m_Ending, [&](const EndingThread& thread) {
        return thread.left < longAgo || syscall(SYS_tgkill, getpid(), thread.iThread, 0) != 0;
    });
}

bool CThreadGate::WaitEmpty(steady_clock::time_point deadline) {
    std::unique_lock lock(m_Lock);
    for (;;) {
        if (!m_Empty.wait_until(lock, deadline, [this] { return m_uCount == 0; })) {
            return false;
        }
        ForgetEnded();
        if (m_Ending.empty()) {
            return true;
        }
        if (steady_clock::now() > deadline) {
            return false;
        }
        // A detached thread cannot be joined; what is left of one that has left is a few instructions. The lock is
        // given up here, so another thread may have entered since.
        m_Empty.wait_for(lock, std::chrono::milliseconds(1));
    }
}

unsigned int CThreadGate::Count() {
    const std::lock_guard lock(m_Lock);
    return m_uCount;
}

CThreadTicket& CThreadTicket::operator=(CThreadTicket&& other) noexcept {
    if (this != &other) {
        Release();
        m_spGate = std::move(other.m_spGate);
        m_listRoom = std::move(other.m_listRoom);
        m_bAdopted = other.m_bAdopted;
    }
    return *this;
}

CThreadTicket CThreadTicket::ForCaller(std::shared_ptr<CThreadGate> spGate) {
    CThreadTicket ticket;
    spGate->Enter();
    ticket.m_spGate = std::move(spGate);
    return ticket;
}

CThreadTicket CThreadTicket::ForNewThread(std::shared_ptr<CThreadGate> spGate) {
    CThreadTicket ticket;
    ticket.m_listRoom.emplace_back();
    spGate->Enter();
    ticket.m_spGate = std::move(spGate);
    return ticket;
}

CThreadTicket CThreadTicket::Adopt(CThreadTicket& ofCreator) {
    assert(ofCreator.m_spGate != nullptr && !ofCreator.m_bAdopted);
    CThreadTicket ticket(std::move(ofCreator));
    ticket.m_bAdopted = true;
    return ticket;
}

void CThreadTicket::Release() {
    const std::shared_ptr<CThreadGate> spGate = std::move(m_spGate);
    if (!spGate) {
        return;
    }
    if (m_bAdopted) {
        spGate->LeaveByEnding(m_listRoom);
    } else {
        spGate->Leave();
    }
}

void DisableCancellation() {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
}

CCancellationOff::CCancellationOff() {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_iBefore);
}

CCancellationOff::~CCancellationOff() {
    pthread_setcancelstate(m_iBefore, nullptr);
}

bool CancelThread(pthread_t threadId) {
    // backtrace needs the same of the C library, and merely returns nothing when it cannot be loaded.
    void* pFrame = nullptr;
    if (backtrace(&pFrame, 1) == 0) {
        return false;
    }
    return pthread_cancel(threadId) == 0;
}

// Enabled for the test alone: nowhere else is a cancellation welcome, least of all in a destructor that it would meet.
void CancellationPoint() {
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    pthread_testcancel();
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
}
