#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qxpbase {

/// Two lower-case digits a byte.
std::string HexEncode(std::span<const unsigned char> bytes);

/// Reads an even number of hexadecimal digits of either case; nothing for any other text.
std::optional<std::vector<unsigned char>> HexDecode(std::string_view digits);

/// Base64 in the standard alphabet with padding, without line breaks (RFC 4648 section 4).
std::string Base64Encode(std::string_view bytes);

}  // namespace qxpbase
