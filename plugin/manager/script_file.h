#pragma once

#include <mutex>

/// Held while a child is started, and over nothing else. A descriptor that is open for writing on a fresh executable
/// and copied into another launch's child, for the moment before that executes, makes running the file fail with "Text
/// file busy". popen returns once its child has executed: a launch that waits here meets no such copy of its own file,
/// which was closed before.
std::mutex& LaunchLock();
