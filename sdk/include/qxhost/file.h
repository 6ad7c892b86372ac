#pragma once

// Any thread, and no cancellation point.

extern "C" {

/// Examines what a path leads to, of whatever kind it is.
/// @param puSize  receives the size in bytes.
/// @param puTime  receives the modification time in seconds since the epoch.
/// @return false when the path is null or cannot be examined; the outputs are then unchanged. Null outputs are skipped.
bool QxGetFileAttr(const char* pszPath, unsigned long long* puSize, unsigned long long* puTime);

/// Reads a whole regular file of 1 byte to 128 MiB, as large as it is when it is opened: what is appended meanwhile is
/// left out, and of a file that shrinks meanwhile the result is what was still there. Never blocks on a FIFO, a socket
/// or a device.
/// @return its bytes followed by one NUL, for QxReleaseFileData; null for a missing, unreadable, empty, non-regular or
///         larger file, or when memory is short.
char* QxReadFileData(const char* pszPath);

/// Null is ignored.
void QxReleaseFileData(char* pData);
}
