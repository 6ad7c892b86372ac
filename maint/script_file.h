#pragma once

#include <mutex>

/// Held while a script file is open for writing and while a child is started, so that the two never overlap. Held
/// over the log line of a failure, over no other lock and no wait.
std::mutex& LaunchLock();
