#include "base/time_text.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace qxpbase {

std::string LocalTimeText(WallTime time) {
    const auto second = std::chrono::floor<std::chrono::seconds>(time);
    const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(time - second).count();
    const std::time_t since_epoch = std::chrono::system_clock::to_time_t(second);
    std::tm local{};
    localtime_r(&since_epoch, &local);
    std::array<char, 32> date{};
    std::strftime(date.data(), date.size(), "%Y-%m-%dT%H:%M:%S", &local);
    const long minutes = local.tm_gmtoff / 60;
    const char sign = minutes < 0 ? '-' : '+';
    std::array<char, 24> rest{};
    snprintf(rest.data(), rest.size(), ".%03d%c%02d:%02d", static_cast<int>(milliseconds), sign,
             static_cast<int>(std::abs(minutes) / 60), static_cast<int>(std::abs(minutes) % 60));
    return std::string(date.data()) + rest.data();
}

}  // namespace qxpbase
