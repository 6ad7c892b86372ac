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

}  // namespace qxpbase
