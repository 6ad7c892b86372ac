#pragma once

#include <chrono>
#include <string>

namespace qxpbase {

using WallTime = std::chrono::system_clock::time_point;

/// A point in time as local time with milliseconds and offset (RFC 3339), as in 2026-11-21T09:21:30.123+08:00.
std::string LocalTimeText(WallTime time);

}  // namespace qxpbase
