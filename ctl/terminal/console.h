#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/core.h>

namespace qxpctl {

/// The numbers are those of ECMA-48, select graphic rendition.
enum class Color { kPlain = 0, kBold = 1, kRed = 31, kGreen = 32, kYellow = 33 };

struct TerminalSize {
    size_t columns;
    size_t lines;
};

struct Cell {
    std::string text;
    Color color = Color::kPlain;
};

using Row = std::vector<Cell>;

/// One output stream of the program: whether it is a terminal, and whether to colour it.
class Stream {
public:
    /// @param descriptor  borrowed; must outlive the stream.
    explicit Stream(int descriptor);

    bool IsTerminal() const { return terminal_; }
    /// The text in a colour, when this stream shows colours (a terminal, not a dumb one, NO_COLOR unset).
    std::string Paint(Color color, std::string_view text) const;
    /// Text from elsewhere: escaped for a terminal, as it is for a pipe or a file.
    std::string Untrusted(std::string_view text) const;
    /// Lines of aligned columns, two spaces apart, each with its line break. Control characters in the texts are
    /// escaped. A character counts as one column.
    /// @param width  0, or what lines are cut to.
    std::string Table(const std::vector<Row>& rows, size_t width = 0) const;
    /// How much the terminal shows; nothing when this stream is none, or does not tell.
    std::optional<TerminalSize> Size() const;
    /// Writes all of it. Returns 0, or the errno of the write that failed.
    int Write(std::string_view text) const;

private:
    // Constant after construction.
    int descriptor_;
    bool terminal_;
    bool color_;
};

/// The program's results (standard output) and its remarks (standard error).
class Console {
public:
    Console(int output, int error) : output_(output), error_(error) {}

    const Stream& Output() const { return output_; }
    const Stream& Remarks() const { return error_; }

    /// Writes to the standard output, unbuffered. Throws LocalFailure when not all of it could be written, as on a full
    /// disk or a closed pipe.
    void Print(std::string_view text) const;
    /// Writes "qxpctl: text" and a line break to the standard error. Control characters in the text are escaped.
    void Remark(std::string_view text) const;
    template <typename... Arguments>
    void Remark(fmt::format_string<Arguments...> format, Arguments&&... arguments) const {
        Remark(std::string_view(fmt::format(format, std::forward<Arguments>(arguments)...)));
    }
    void Warn(std::string_view text) const;

private:
    Stream output_;
    Stream error_;
};

}  // namespace qxpctl
