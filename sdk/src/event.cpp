#include "qxhost/event.h"

#include <pthread.h>

#include <cerrno>
#include <ctime>
#include <new>

namespace {

constexpr unsigned int kWaitSignalled = 0;
constexpr unsigned int kWaitTimedOut = 258;
constexpr unsigned int kWaitFailed = 0xFFFFFFFF;

/// POSIX primitives rather than the C++ ones: a wait in std::condition_variable is noexcept, so a thread that is
/// cancelled in it would end the process.
struct SEvent {
    pthread_mutex_t stMutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t stChanged;  // on CLOCK_MONOTONIC
    const bool bManualReset;   // constant after construction
    bool bSignalled;           // guarded by stMutex

    SEvent(bool bManual, bool bSet) : stChanged(), bManualReset(bManual), bSignalled(bSet) {}
};

bool InitializeMonotonic(pthread_cond_t* pCondition) {
    pthread_condattr_t stAttributes;
    if (pthread_condattr_init(&stAttributes) != 0) {
        return false;
    }
    const bool bDone = pthread_condattr_setclock(&stAttributes, CLOCK_MONOTONIC) == 0 &&
                       pthread_cond_init(pCondition, &stAttributes) == 0;
    pthread_condattr_destroy(&stAttributes);
    return bDone;
}

timespec DeadlineAfter(long iMilliseconds) {
    timespec stDeadline = {};
    clock_gettime(CLOCK_MONOTONIC, &stDeadline);
    // The longest time-out is 2^63 ms, about 2^53 s: the sum cannot overflow.
    stDeadline.tv_sec += iMilliseconds / 1000;
    stDeadline.tv_nsec += iMilliseconds % 1000 * 1'000'000;
    if (stDeadline.tv_nsec >= 1'000'000'000) {
        stDeadline.tv_nsec -= 1'000'000'000;
        ++stDeadline.tv_sec;
    }
    return stDeadline;
}

/// Called and returns with the mutex held, also when the thread is cancelled. A null deadline waits for ever.
unsigned int WaitLocked(SEvent* pEvent, const timespec* pDeadline) {
    int iError = 0;
    while (!pEvent->bSignalled && iError == 0) {
        iError = pDeadline == nullptr ? pthread_cond_wait(&pEvent->stChanged, &pEvent->stMutex)
                                      : pthread_cond_timedwait(&pEvent->stChanged, &pEvent->stMutex, pDeadline);
    }
    if (pEvent->bSignalled) {
        pEvent->bSignalled = pEvent->bManualReset;
        return kWaitSignalled;
    }
    return iError == ETIMEDOUT ? kWaitTimedOut : kWaitFailed;
}

void UnlockMutex(void* pMutex) {
    pthread_mutex_unlock(static_cast<pthread_mutex_t*>(pMutex));
}

}  // namespace

void* QxCreateEvent(void* /*pAttributes*/, bool bManualReset, bool bInitiallySet, const char* /*pszName*/) {
    auto* pEvent = new (std::nothrow) SEvent(bManualReset, bInitiallySet);
    if (pEvent != nullptr && !InitializeMonotonic(&pEvent->stChanged)) {
        delete pEvent;
        return nullptr;
    }
    return pEvent;
}

bool QxSetEvent(void* hEvent) {
    auto* pEvent = static_cast<SEvent*>(hEvent);
    if (pEvent == nullptr) {
        return false;
    }
    pthread_mutex_lock(&pEvent->stMutex);
    pEvent->bSignalled = true;
    // Everyone is woken, also for an auto-reset signal that only the first takes: pthread_cond_signal of the glibc
    // versions in use can lose a wake-up (glibc bug 25847). Under the lock, so that whom it wakes may destroy the
    // event.
    pthread_cond_broadcast(&pEvent->stChanged);
    pthread_mutex_unlock(&pEvent->stMutex);
    return true;
}

void QxDestroyEvent(void* hEvent) {
    auto* pEvent = static_cast<SEvent*>(hEvent);
    if (pEvent == nullptr) {
        return;
    }
    pthread_cond_destroy(&pEvent->stChanged);
    pthread_mutex_destroy(&pEvent->stMutex);
    delete pEvent;
}

unsigned int QxWaitEventTimeout(void* hEvent, long iMilliseconds) {
    auto* pEvent = static_cast<SEvent*>(hEvent);
    if (pEvent == nullptr) {
        return kWaitFailed;
    }
    const bool bForEver = iMilliseconds < 0;
    const timespec stDeadline = bForEver ? timespec{} : DeadlineAfter(iMilliseconds);
    unsigned int uResult = kWaitFailed;
    pthread_mutex_lock(&pEvent->stMutex);
    pthread_cleanup_push(UnlockMutex, &pEvent->stMutex);
    uResult = WaitLocked(pEvent, bForEver ? nullptr : &stDeadline);
    pthread_cleanup_pop(1);
    return uResult;
}
