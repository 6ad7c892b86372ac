#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>

/// Counts the threads that run one manager's code, so that closing can wait until none is left. A thread is counted
/// from before its creation until it is gone; a host's thread from its call into the plugin to its return.
///
/// Each manager has one: a thread that the host never lets go keeps the manager that it uses, and no later one. See
/// docs/decisions/005-closing.md.
class CThreadGate {
public:
    /// False when a thread is still counted at the deadline.
    bool WaitEmpty(std::chrono::steady_clock::time_point deadline);
    unsigned int Count();

private:
    friend class CThreadTicket;

    struct EndingThread {
        pid_t iThread = 0;
        std::chrono::steady_clock::time_point left;
    };

    void Enter();
    void Leave();
    void LeaveByEnding(std::list<EndingThread>& listRoom);
    void ForgetEnded();

    std::mutex m_Lock;
    std::condition_variable m_Empty;
    unsigned int m_uCount = 0;         // guarded by m_Lock
    std::list<EndingThread> m_Ending;  // guarded by m_Lock: threads that have left and may not be gone yet
};

/// One thread's place in a gate, given back with it. Giving back needs no memory.
class CThreadTicket {
public:
    CThreadTicket() = default;
    ~CThreadTicket() { Release(); }
    CThreadTicket(CThreadTicket&& other) = default;
    CThreadTicket& operator=(CThreadTicket&& other) noexcept;

    /// A place for the calling thread.
    static CThreadTicket ForCaller(std::shared_ptr<CThreadGate> spGate);
    /// A place for a thread that the calling thread is about to create. Throws std::bad_alloc.
    static CThreadTicket ForNewThread(std::shared_ptr<CThreadGate> spGate);
    /// The new thread takes its place over from its creator. The result is to stand first in the thread's body, so that
    /// it is given back last: the thread counts as left once the kernel knows it no more.
    static CThreadTicket Adopt(CThreadTicket& ofCreator);

    void Release();

private:
    std::shared_ptr<CThreadGate> m_spGate;            // null: no place is held
    std::list<CThreadGate::EndingThread> m_listRoom;  // of a new thread: its entry among the ending ones
    bool m_bAdopted = false;
};

/// Switches the calling thread's cancellation off. Every thread of the plugin begins with it: from then on the thread
/// ends early only at its own CancellationPoint, where it holds no lock. See docs/decisions/002-cancellation.md.
void DisableCancellation();

/// The same for a scope, on a host's thread: a cancellation in the middle of the plugin's code would leave locks held.
class CCancellationOff {
public:
    CCancellationOff();
    ~CCancellationOff();
    CCancellationOff(const CCancellationOff&) = delete;
    CCancellationOff& operator=(const CCancellationOff&) = delete;

private:
    int m_iBefore = 0;
};

/// Cancels a thread. The C library loads a part of itself for the first cancellation, and ends the process if there is
/// no memory for that: false then, and nothing is done. What is cancelled here ends by itself too, only later.
bool CancelThread(pthread_t threadId);

/// Ends the calling thread if it has been cancelled. To be called from a thread's body function and nowhere deeper, so
/// that no frame but the body's own is unwound. The body catches the unwinding to put its affairs in order and must
/// re-throw it.
void CancellationPoint();
