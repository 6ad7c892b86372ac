#pragma once

#include <chrono>
#include <string>

namespace qxpagent {

/// A point in time as local time with milliseconds and offset (RFC 3339), as in 2026-11-21T09:21:30.123+08:00.
std::string LocalTimeText(std::chrono::system_clock::time_point time);

}  // namespace qxpagent
