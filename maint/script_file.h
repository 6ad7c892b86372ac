#pragma once

#include <mutex>

/// Held while a script file is open for writing and while a child is started, so that the two never overlap. Never
/// held together with another lock, nor while anything is waited for.
std::mutex& LaunchLock();
