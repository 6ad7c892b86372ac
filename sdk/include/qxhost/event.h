#pragma once

// Events. A handle belongs to whoever created it, and may be set and waited on from any thread until it is destroyed.

extern "C" {

/// @param pAttributes   ignored.
/// @param bManualReset  false: a signal wakes one waiter and is gone; true: it stays.
/// @param pszName       ignored.
/// @return null on failure.
void* QxCreateEvent(void* pAttributes, bool bManualReset, bool bInitiallySet, const char* pszName);

/// False for null.
bool QxSetEvent(void* hEvent);

/// No thread may be waiting. Null is ignored.
void QxDestroyEvent(void* hEvent);

/// Waits on the monotonic clock; a negative time waits for ever. This is the one cancellation point of the host SDK: a
/// thread that is cancelled here holds no lock of the event, and takes no signal that another waiter could have had.
/// @return 0 signalled, 258 timed out, 0xFFFFFFFF error.
unsigned int QxWaitEventTimeout(void* hEvent, long iMilliseconds);
}
