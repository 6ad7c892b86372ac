#pragma once

// Events. A handle belongs to whoever created it, and may be set and waited on from any thread until it is destroyed.

extern "C" {

/// @param pAttributes    ignored.
/// @param bManualReset   false: a signal wakes one waiter and is gone; true: it stays, and wakes all.
/// @param bInitiallySet  whether it begins signalled.
/// @param pszName        ignored.
/// @return a handle for QxDestroyEvent; null when memory is short.
void* QxCreateEvent(void* pAttributes, bool bManualReset, bool bInitiallySet, const char* pszName);

/// Signals the event; several signals that nobody has taken yet are one. Never blocks. False for null.
bool QxSetEvent(void* hEvent);

/// No thread may be waiting on it, nor begin to. Null is ignored.
void QxDestroyEvent(void* hEvent);

/// Waits so many milliseconds of the monotonic clock; a negative time waits for ever. This is the one cancellation
/// point of the host SDK: a thread that is cancelled here holds no lock of the event, and takes no signal that another
/// waiter could have had.
/// @return 0 signalled, 258 timed out, 0xFFFFFFFF error, which null is.
unsigned int QxWaitEventTimeout(void* hEvent, long iMilliseconds);
}
