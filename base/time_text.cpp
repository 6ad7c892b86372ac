#include "base/time_text.h"

#include <fmt/chrono.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <ctime>
#include <iomanip>
#include <sstream>
#include <utility>

#include "base/whole_number.h"

namespace qxpbase {

namespace {

constexpr size_t kSecondsLength = 19;  // "2026-11-21T09:21:30"

// The offset from UTC that "Z", "+08:00" or "-03:30" stands for.
std::optional<std::chrono::seconds> ParseOffset(const std::string& text) {
    if (text == "Z") {
        return std::chrono::seconds(0);
    }
    if (text.size() != 6 || (text[0] != '+' && text[0] != '-') || text[3] != ':') {
        return std::nullopt;
    }
    const std::optional<uint32_t> hours = ParseNumber(text.substr(1, 2), 23);
    const std::optional<uint32_t> minutes = ParseNumber(text.substr(4), 59);
    if (!hours || !minutes) {
        return std::nullopt;
    }
    const auto offset = std::chrono::hours(*hours) + std::chrono::minutes(*minutes);
    return text[0] == '-' ? -offset : offset;
}

}  // namespace

std::string LocalTimeText(WallTime time) {
    const auto second = std::chrono::floor<std::chrono::seconds>(time);
    const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(time - second).count();
    const std::time_t since_epoch = std::chrono::system_clock::to_time_t(second);
    std::tm local{};
    localtime_r(&since_epoch, &local);
    const long minutes = std::abs(local.tm_gmtoff / 60);
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}{}{:02}:{:02}", local, milliseconds, local.tm_gmtoff < 0 ? '-' : '+',
                       minutes / 60, minutes % 60);
}

std::optional<WallTime> ParseTime(const std::string& text) {
    std::tm fields{};
    std::istringstream stream(text.substr(0, kSecondsLength));
    stream >> std::get_time(&fields, "%Y-%m-%dT%H:%M:%S");
    if (stream.fail() || text.size() <= kSecondsLength) {
        return std::nullopt;
    }
    const size_t zone = text.find_first_of("Z+-", kSecondsLength);
    if (zone == std::string::npos || (zone > kSecondsLength && text[kSecondsLength] != '.')) {
        return std::nullopt;
    }
    const std::optional<std::chrono::seconds> offset = ParseOffset(text.substr(zone));
    if (!offset) {
        return std::nullopt;
    }
    return std::chrono::system_clock::from_time_t(timegm(&fields)) - *offset;
}

std::string DurationText(std::chrono::seconds duration) {
    constexpr std::array<std::pair<long long, const char*>, 4> kUnits = {
        {{86400, "d"}, {3600, "h"}, {60, "min"}, {1, "s"}}};
    const long long seconds = std::max<long long>(duration.count(), 0);
    const auto* unit = kUnits.begin();
    while (unit->first > 1 && seconds < unit->first) {
        ++unit;
    }
    std::string text = fmt::format("{} {}", seconds / unit->first, unit->second);
    const long long rest = seconds % unit->first;
    if (++unit != kUnits.end() && rest >= unit->first) {
        text += fmt::format(" {} {}", rest / unit->first, unit->second);
    }
    return text;
}

std::string ShortTime(const std::string& text) {
    if (!ParseTime(text)) {
        return text;
    }
    std::string shown = text.substr(0, kSecondsLength);
    shown[10] = ' ';
    return shown;
}

}  // namespace qxpbase
