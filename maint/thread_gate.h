#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

/// Counts the threads that run the plugin's code, so that closing can wait until none is left. A thread is counted from
/// before its creation until it is gone; a host's thread from its call into the plugin to its return.
class CThreadGate {
public:
    /// Lives until the process ends: a thread may leave while static objects are being destroyed.
    static CThreadGate& Instance();

    void Enter();
    void Leave();
    /// For a thread of the plugin, as the last thing it does: it counts as left once the kernel knows it no more.
    void LeaveByEnding();
    /// False when a thread is still counted after iMilliseconds.
    bool WaitEmpty(int iMilliseconds);
    unsigned int Count();

private:
    void ForgetEnded();

    std::mutex m_Lock;
    std::condition_variable m_Empty;
    unsigned int m_uCount = 0;  // guarded by m_Lock
    struct _EndingThread {
        pid_t iThread;
        std::chrono::steady_clock::time_point left;
    };
    std::vector<_EndingThread> m_Ending;  // guarded by m_Lock: threads that have left and may not be gone yet
};

/// One thread's place in the gate; moves from the creator to the thread.
class CThreadTicket {
public:
    CThreadTicket() = default;
    ~CThreadTicket() { Release(); }
    CThreadTicket(const CThreadTicket&) = delete;
    CThreadTicket& operator=(const CThreadTicket&) = delete;

    void Take();
    /// For a new thread whose creator entered the gate on its behalf. To stand first in the thread's body, so that it
    /// is given back last.
    void Adopt() { m_eHeld = EHeld::ByNewThread; }
    /// The new thread adopts it.
    void HandOver() { m_eHeld = EHeld::No; }
    void Release();

private:
    enum class EHeld { No, ByCaller, ByNewThread };
    EHeld m_eHeld = EHeld::No;
};

/// Switches the calling thread's cancellation off. Every thread of the plugin begins with it: from then on the thread
/// ends early only at its own CancellationPoint, where it holds no lock.
void DisableCancellation();

/// Ends the calling thread if it has been cancelled. To be called from a thread's body function and nowhere deeper, so
/// that no frame but the body's own is unwound. The body catches the unwinding to put its affairs in order and must
/// re-throw it.
void CancellationPoint();
