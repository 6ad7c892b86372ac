#pragma once

#include <condition_variable>
#include <mutex>

/// Counts the threads that run the plugin's code, so that closing can wait until none is left. A thread is counted from
/// before its creation until its last use of the plugin's state.
class CThreadGate {
public:
    /// Lives until the process ends: a thread may leave while static objects are being destroyed.
    static CThreadGate& Instance();

    void Enter();
    void Leave();
    /// False when a thread is still counted after iMilliseconds.
    bool WaitEmpty(int iMilliseconds);
    unsigned int Count();

private:
    std::mutex m_Lock;
    std::condition_variable m_Empty;
    unsigned int m_uCount = 0;  // guarded by m_Lock
};

/// One thread's place in the gate; moves from the creator to the thread.
class CThreadTicket {
public:
    CThreadTicket() = default;
    ~CThreadTicket() { Release(); }
    CThreadTicket(const CThreadTicket&) = delete;
    CThreadTicket& operator=(const CThreadTicket&) = delete;

    void Take();
    /// For a thread whose creator entered the gate on its behalf.
    void Adopt() { m_bHeld = true; }
    /// The new thread adopts it.
    void HandOver() { m_bHeld = false; }
    void Release();

private:
    bool m_bHeld = false;
};

/// Switches the calling thread's cancellation off. Every thread of the plugin begins with it: from then on the thread
/// ends early only at its own CancellationPoint, where it holds no lock.
void DisableCancellation();

/// Ends the calling thread if it has been cancelled. To be called from a thread's body function and nowhere deeper, so
/// that no frame but the body's own is unwound. The body catches the unwinding to put its affairs in order and must
/// re-throw it.
void CancellationPoint();
