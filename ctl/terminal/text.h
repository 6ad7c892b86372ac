#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/encoding.h"
#include "policy/text.h"

namespace qxpctl {

using qxppolicy::HasControlCharacter;
using qxppolicy::IsValidUtf8;

/// Text from elsewhere made harmless for a terminal: what qxppolicy::IsControl names, but newline and tab, and bytes
/// that are not UTF-8 are shown as \xNN.
std::string EscapeForTerminal(std::string_view text);

/// The same on one line: newline and tab are escaped too. For names and messages that are put into a line of ours.
std::string OneLine(std::string_view text);

/// A word for a POSIX shell, quoted only when it must be.
std::string ShellWord(std::string_view text);

using qxpbase::HexDecode;
using qxpbase::HexEncode;

/// Base64 in the standard alphabet with padding, without line breaks (RFC 4648 section 4).
std::string Base64Encode(std::string_view bytes);

/// A decimal number from 0 to limit, digits only; nothing for any other text.
std::optional<uint32_t> ParseNumber(std::string_view text, uint32_t limit);

}  // namespace qxpctl
