#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace qxpctl {

using WallClock = std::chrono::system_clock;

/// Reads a time as the agent writes it (RFC 3339, with or without fractions of a second); nothing for any other text.
std::optional<WallClock::time_point> ParseTime(const std::string& text);

/// A length of time in the two largest units that matter, as in "3 h 20 min"; "0 s" for a negative one.
std::string DurationText(std::chrono::seconds duration);

/// The time without its fraction and its offset, for a table; the text itself when it is no time.
std::string ShortTime(const std::string& text);

}  // namespace qxpctl
