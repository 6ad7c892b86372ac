#pragma once

#include <string>
#include <string_view>

namespace qxpctl {

/// Text from elsewhere made harmless for a terminal: what qxppolicy::IsControl names, but newline and tab, and bytes
/// that are not UTF-8 are shown as \xNN.
std::string EscapeForTerminal(std::string_view text);

/// The same on one line: newline and tab are escaped too. For names and messages that are put into a line of ours.
std::string OneLine(std::string_view text);

/// A word for a POSIX shell, quoted only when it must be.
std::string ShellWord(std::string_view text);

}  // namespace qxpctl
