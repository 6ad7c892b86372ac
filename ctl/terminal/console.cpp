#include "ctl/terminal/console.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "base/errno_text.h"
#include "ctl/terminal/error.h"
#include "ctl/terminal/files.h"
#include "ctl/terminal/text.h"

namespace qxpctl {

namespace {

bool WantsColor() {
    const char* const terminal = std::getenv("TERM");
    return std::getenv("NO_COLOR") == nullptr && terminal != nullptr && std::string_view(terminal) != "dumb";
}

bool BeginsCharacter(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
}

size_t CountColumns(std::string_view text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), BeginsCharacter));
}

// The beginning of a text that takes at most so many columns.
std::string_view Cut(std::string_view text, size_t columns) {
    size_t at = 0;
    for (size_t seen = 0; at < text.size(); ++at) {
        if (BeginsCharacter(text[at]) && seen++ == columns) {
            break;
        }
    }
    return text.substr(0, at);
}

}  // namespace

Stream::Stream(int descriptor)
    : descriptor_(descriptor), terminal_(isatty(descriptor) == 1), color_(terminal_ && WantsColor()) {
}

std::string Stream::Paint(Color color, std::string_view text) const {
    return color_ && color != Color::kPlain ? fmt::format("\033[{}m{}\033[0m", static_cast<int>(color), text)
                                            : std::string(text);
}

std::string Stream::Untrusted(std::string_view text) const {
    return terminal_ ? EscapeForTerminal(text) : std::string(text);
}

std::string Stream::Table(const std::vector<Row>& rows, size_t width) const {
    std::vector<size_t> widths;
    for (const Row& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t at = 0; at < row.size(); ++at) {
            widths[at] = std::max(widths[at], CountColumns(OneLine(row[at].text)));
        }
    }
    std::string table;
    for (const Row& row : rows) {
        size_t left = width == 0 ? SIZE_MAX : width;
        std::string gap;
        for (size_t at = 0; at < row.size() && left > gap.size(); ++at) {
            left -= gap.size();
            const std::string whole = OneLine(row[at].text);
            const std::string_view text = Cut(whole, left);
            const size_t columns = CountColumns(text);
            table += gap + Paint(row[at].color, text);
            left -= columns;
            gap.assign(widths[at] - columns + 2, ' ');
        }
        table += '\n';
    }
    return table;
}

std::optional<TerminalSize> Stream::Size() const {
    winsize size{};
    if (!terminal_ || ioctl(descriptor_, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) {
        return std::nullopt;
    }
    return TerminalSize{size.ws_col, size.ws_row};
}

int Stream::Write(std::string_view text) const {
    return WriteAll(descriptor_, text);
}

void Console::Print(std::string_view text) const {
    if (const int failure = output_.Write(text); failure != 0) {
        throw LocalFailure("cannot write to the standard output: {}", qxpbase::ErrnoText(failure));
    }
}

void Console::Remark(std::string_view text) const {
    // There is nowhere left to tell that this failed.
    static_cast<void>(error_.Write(fmt::format("qxpctl: {}\n", OneLine(text))));
}

void Console::Warn(std::string_view text) const {
    static_cast<void>(
        error_.Write(fmt::format("qxpctl: {} {}\n", error_.Paint(Color::kYellow, "warning:"), OneLine(text))));
}

}  // namespace qxpctl
