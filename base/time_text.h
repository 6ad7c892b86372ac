#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace qxpbase {

using WallTime = std::chrono::system_clock::time_point;

/// A point in time as local time with milliseconds and offset (RFC 3339), as in 2026-11-21T09:21:30.123+08:00.
std::string LocalTimeText(WallTime time);

/// Reads such a text, with or without fractions of a second, which are dropped; nothing for any other text.
std::optional<WallTime> ParseTime(const std::string& text);

/// A length of time in the two largest units that matter, as in "3 h 20 min"; "0 s" for a negative one.
std::string DurationText(std::chrono::seconds duration);

/// The time without its fraction and its offset, for a table; the text itself when it is no time.
std::string ShortTime(const std::string& text);

}  // namespace qxpbase
