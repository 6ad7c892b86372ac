#pragma once

#include <pthread.h>

// Critical sections are re-entrant POSIX mutexes in the caller's memory: lock and unlock them with pthread_mutex_lock
// and pthread_mutex_unlock.

extern "C" {
void QxInitializeCriticalSection(pthread_mutex_t* pSection);

/// The section must be unlocked.
void QxDeleteCriticalSection(pthread_mutex_t* pSection);
}
