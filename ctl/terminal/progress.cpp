#include "ctl/terminal/progress.h"

#include <fmt/core.h>

namespace qxpctl {

namespace {

using std::chrono::seconds;

constexpr std::chrono::milliseconds kInterval{100};
constexpr std::string_view kFrames = "|/-\\";
// Carriage return and "erase in line" (ECMA-48 EL).
constexpr std::string_view kClearLine = "\r\033[K";

volatile std::sig_atomic_t g_interrupted = 0;

extern "C" void NoteInterrupt(int /*signal*/) {
    g_interrupted = 1;
}

}  // namespace

void Spinner::Tick(std::string_view what) {
    const Clock::time_point now = Clock::now();
    if (!console_.Remarks().IsTerminal() || (visible_ && now - drawn_ < kInterval)) {
        return;
    }
    drawn_ = now;
    visible_ = true;
    // A spinner that cannot be drawn is no failure of the work.
    static_cast<void>(
        console_.Remarks().Write(fmt::format("{}{} {} ({} s)", kClearLine, kFrames[step_++ % kFrames.size()], what,
                                             std::chrono::duration_cast<seconds>(now - start_).count())));
}

void Spinner::Clear() {
    if (visible_) {
        static_cast<void>(console_.Remarks().Write(kClearLine));
    }
    visible_ = false;
}

InterruptGuard::InterruptGuard() {
    g_interrupted = 0;
    struct sigaction action {};
    action.sa_handler = NoteInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &previous_);
}

InterruptGuard::~InterruptGuard() {
    sigaction(SIGINT, &previous_, nullptr);
}

bool InterruptGuard::Interrupted() const {
    return g_interrupted != 0;
}

}  // namespace qxpctl
