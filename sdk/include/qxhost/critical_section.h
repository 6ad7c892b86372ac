#pragma once

#include <pthread.h>

// Critical sections are re-entrant POSIX mutexes in the caller's memory: lock and unlock them with pthread_mutex_lock
// and pthread_mutex_unlock. Null is ignored.

extern "C" {

/// Before any other use of the section, and once.
void QxInitializeCriticalSection(pthread_mutex_t* pSection);

/// The section must be unlocked, and nobody may use it any more; its memory stays with the caller.
void QxDeleteCriticalSection(pthread_mutex_t* pSection);
}
