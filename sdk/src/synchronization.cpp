#include <pthread.h>

#include <cerrno>
#include <ctime>
#include <new>

#include "qxhost/critical_section.h"
#include "qxhost/event.h"
#include "qxhost/tick.h"

namespace {

constexpr unsigned int kWaitSignalled = 0;
constexpr unsigned int kWaitTimedOut = 258;
constexpr unsigned int kWaitFailed = 0xFFFFFFFF;

/// POSIX primitives rather than the C++ ones: a wait in std::condition_variable is noexcept, so a thread that is
/// cancelled in it would end the process.
struct Event {
    const bool manual_reset;  // constant after construction
    bool signalled;           // guarded by mutex
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t changed = {};  // on CLOCK_MONOTONIC
};

bool InitializeMonotonic(pthread_cond_t* condition) {
    pthread_condattr_t attributes;
    if (pthread_condattr_init(&attributes) != 0) {
        return false;
    }
    const bool done =
        pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC) == 0 && pthread_cond_init(condition, &attributes) == 0;
    pthread_condattr_destroy(&attributes);
    return done;
}

timespec MonotonicNow() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

timespec DeadlineAfter(long milliseconds) {
    timespec deadline = MonotonicNow();
    // The longest time-out is 2^63 ms, about 2^53 s: the sum cannot overflow.
    deadline.tv_sec += milliseconds / 1000;
    deadline.tv_nsec += milliseconds % 1000 * 1'000'000;
    if (deadline.tv_nsec >= 1'000'000'000) {
        deadline.tv_nsec -= 1'000'000'000;
        ++deadline.tv_sec;
    }
    return deadline;
}

/// Called and returns with the mutex held, also when the thread is cancelled. A null deadline waits for ever.
unsigned int WaitLocked(Event* event, const timespec* deadline) {
    int error = 0;
    while (!event->signalled && error == 0) {
        error = deadline == nullptr ? pthread_cond_wait(&event->changed, &event->mutex)
                                    : pthread_cond_timedwait(&event->changed, &event->mutex, deadline);
    }
    if (event->signalled) {
        event->signalled = event->manual_reset;
        return kWaitSignalled;
    }
    return error == ETIMEDOUT ? kWaitTimedOut : kWaitFailed;
}

void UnlockMutex(void* mutex) {
    pthread_mutex_unlock(static_cast<pthread_mutex_t*>(mutex));
}

}  // namespace

unsigned long QxGetTickCount() {
    const timespec now = MonotonicNow();
    return static_cast<unsigned long>(now.tv_sec) * 1000 + static_cast<unsigned long>(now.tv_nsec) / 1'000'000;
}

void QxInitializeCriticalSection(pthread_mutex_t* section) {
    if (section == nullptr) {
        return;
    }
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(section, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

void QxDeleteCriticalSection(pthread_mutex_t* section) {
    if (section != nullptr) {
        pthread_mutex_destroy(section);
    }
}

void* QxCreateEvent(void* /*attributes*/, bool manual_reset, bool initially_set, const char* /*name*/) {
    auto* event = new (std::nothrow) Event{.manual_reset = manual_reset, .signalled = initially_set};
    if (event != nullptr && !InitializeMonotonic(&event->changed)) {
        delete event;
        return nullptr;
    }
    return event;
}

bool QxSetEvent(void* handle) {
    auto* event = static_cast<Event*>(handle);
    if (event == nullptr) {
        return false;
    }
    pthread_mutex_lock(&event->mutex);
    event->signalled = true;
    // Everyone is woken, also for an auto-reset signal that only the first takes: pthread_cond_signal of the glibc
    // versions in use can lose a wake-up (glibc bug 25847). Under the lock, so that whom it wakes may destroy the
    // event.
    pthread_cond_broadcast(&event->changed);
    pthread_mutex_unlock(&event->mutex);
    return true;
}

void QxDestroyEvent(void* handle) {
    auto* event = static_cast<Event*>(handle);
    if (event == nullptr) {
        return;
    }
    pthread_cond_destroy(&event->changed);
    pthread_mutex_destroy(&event->mutex);
    delete event;
}

unsigned int QxWaitEventTimeout(void* handle, long milliseconds) {
    auto* event = static_cast<Event*>(handle);
    if (event == nullptr) {
        return kWaitFailed;
    }
    const bool for_ever = milliseconds < 0;
    const timespec deadline = for_ever ? timespec{} : DeadlineAfter(milliseconds);
    unsigned int result = kWaitFailed;
    pthread_mutex_lock(&event->mutex);
    pthread_cleanup_push(UnlockMutex, &event->mutex);
    result = WaitLocked(event, for_ever ? nullptr : &deadline);
    pthread_cleanup_pop(1);
    return result;
}
