#include "ctl/terminal/spinner.h"

#include <string>

namespace qxpctl {

namespace {

constexpr std::chrono::milliseconds kInterval{100};
constexpr std::string_view kFrames = "|/-\\";
// Carriage return and "erase in line" (ECMA-48 EL).
constexpr std::string_view kClearLine = "\r\033[K";

}  // namespace

Spinner::Spinner(const Console& console, bool enabled)
    : console_(console), enabled_(enabled && console.Remarks().IsTerminal()) {
}

void Spinner::Tick(std::string_view what) {
    const Clock::time_point now = Clock::now();
    if (!enabled_ || (visible_ && now - drawn_ < kInterval)) {
        return;
    }
    drawn_ = now;
    visible_ = true;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - start_).count();
    std::string line(kClearLine);
    line += kFrames[step_++ % kFrames.size()];
    line.append(" ").append(what).append(" (").append(std::to_string(seconds)).append(" s)");
    // A spinner that cannot be drawn is no failure of the work.
    static_cast<void>(console_.Remarks().Write(line));
}

void Spinner::Clear() {
    if (visible_) {
        static_cast<void>(console_.Remarks().Write(kClearLine));
    }
    visible_ = false;
}

}  // namespace qxpctl
