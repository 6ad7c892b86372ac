#pragma once

#include <cstddef>

#include "c_interface.h"

struct FileContent {
    HeapText data;  // null when nothing was read, else followed by one NUL
    size_t size = 0;
};

/// Reads a whole regular file of 1 to `limit` bytes. Never blocks on a FIFO, a socket or a device.
///
/// The size is the one at the time of opening: what is appended meanwhile is left out, and of a file that shrinks
/// meanwhile the content is what was still there.
/// @param directory  where a relative path starts; AT_FDCWD for the working directory.
/// @return no data for a missing, unreadable, empty, non-regular or larger file, or when memory is short.
FileContent ReadRegularFile(int directory, const char* path, size_t limit);
