#include "ctl/terminal/console.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "base/errno_text.h"
#include "ctl/terminal/error.h"
#include "ctl/terminal/text.h"

namespace qxpctl {

namespace {

bool WantsColor() {
    const char* const terminal = std::getenv("TERM");
    return !std::getenv("NO_COLOR") && terminal && std::string_view(terminal) != "dumb";
}

// ECMA-48 select graphic rendition.
std::string_view Sequence(Color color) {
    switch (color) {
        case Color::kGreen:
            return "\033[32m";
        case Color::kRed:
            return "\033[31m";
        case Color::kYellow:
            return "\033[33m";
        case Color::kBold:
            return "\033[1m";
        case Color::kPlain:
            break;
    }
    return "";
}

}  // namespace

Stream::Stream(int descriptor)
    : descriptor_(descriptor), terminal_(isatty(descriptor) == 1), color_(terminal_ && WantsColor()) {
}

std::string Stream::Paint(Color color, std::string_view text) const {
    if (!color_ || color == Color::kPlain) {
        return std::string(text);
    }
    return std::string(Sequence(color)).append(text).append("\033[0m");
}

std::string Stream::Untrusted(std::string_view text) const {
    return terminal_ ? EscapeForTerminal(text) : std::string(text);
}

std::optional<TerminalSize> Stream::Size() const {
    winsize size{};
    if (!terminal_ || ioctl(descriptor_, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) {
        return std::nullopt;
    }
    return TerminalSize{size.ws_col, size.ws_row};
}

int Stream::Write(std::string_view text) const {
    while (!text.empty()) {
        const ssize_t written = write(descriptor_, text.data(), text.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            return errno;
        }
        text.remove_prefix(static_cast<size_t>(written));
    }
    return 0;
}

void Console::Print(std::string_view text) const {
    if (const int failure = output_.Write(text); failure != 0) {
        throw LocalFailure("cannot write to the standard output: " + qxpbase::ErrnoText(failure));
    }
}

void Console::Remark(std::string_view text) const {
    // There is nowhere left to tell that this failed.
    static_cast<void>(error_.Write("qxpctl: " + OneLine(text) + "\n"));
}

void Console::Warn(std::string_view text) const {
    static_cast<void>(error_.Write("qxpctl: " + error_.Paint(Color::kYellow, "warning:") + " " + OneLine(text) + "\n"));
}

}  // namespace qxpctl
