#pragma once

#include <cstddef>

#include "heap_text.h"

struct SFileContent {
    CHeapText pData;  // null when nothing was read, else followed by one NUL
    size_t uSize = 0;
};

/// Reads a whole regular file of 1 to uLimit bytes. Never blocks on a FIFO, a socket or a device.
///
/// The size is the one at the time of opening: what is appended meanwhile is left out, and of a file that shrinks
/// meanwhile the content is what was still there.
/// @param iDirectory  where a relative path starts; AT_FDCWD for the working directory.
/// @return no data for a missing, unreadable, empty, non-regular or larger file, or when memory is short.
SFileContent ReadRegularFile(int iDirectory, const char* pszPath, size_t uLimit);
