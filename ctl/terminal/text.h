#pragma once

#include <cstdint>
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

/// "1 script", "2 scripts".
std::string Count(size_t number, std::string_view noun);

/// Bytes in the largest unit that leaves a number of at least one, as in "1.5 MiB".
std::string SizeText(uint64_t bytes);

}  // namespace qxpctl
