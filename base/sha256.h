#pragma once

#include <array>
#include <string>
#include <string_view>

namespace qxpbase {

/// FIPS 180-4. Throws std::runtime_error when the library cannot compute it.
std::array<unsigned char, 32> Sha256(std::string_view bytes);
/// The same as 64 lower-case hexadecimal digits.
std::string Sha256Hex(std::string_view bytes);

}  // namespace qxpbase
