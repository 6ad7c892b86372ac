#include "ctl/terminal/time_text.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <iomanip>
#include <sstream>

#include "ctl/terminal/text.h"

namespace qxpctl {

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

std::optional<WallClock::time_point> ParseTime(const std::string& text) {
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
    return WallClock::from_time_t(timegm(&fields)) - *offset;
}

std::string DurationText(std::chrono::seconds duration) {
    struct Unit {
        long long seconds;
        const char* name;
    };
    constexpr std::array<Unit, 4> kUnits = {{{86400, " d"}, {3600, " h"}, {60, " min"}, {1, " s"}}};
    long long left = std::max<long long>(duration.count(), 0);
    std::string text;
    int parts = 0;
    for (const Unit& unit : kUnits) {
        const long long count = left / unit.seconds;
        if (parts > 0) {
            ++parts;
        }
        if (count > 0 && parts == 0) {
            parts = 1;
        }
        if (count > 0 && parts <= 2) {
            text += (text.empty() ? "" : " ") + std::to_string(count) + unit.name;
        }
        left -= count * unit.seconds;
    }
    return text.empty() ? "0 s" : text;
}

std::string ShortTime(const std::string& text) {
    if (!ParseTime(text)) {
        return text;
    }
    std::string shown = text.substr(0, kSecondsLength);
    shown[10] = ' ';
    return shown;
}

}  // namespace qxpctl
