#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>

namespace qxpbase {

/// A whole number in decimal digits, nothing when the text is anything else or the number does not fit.
inline std::optional<uint64_t> WholeNumber(std::string_view text) {
    uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [parsed, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && parsed == end ? std::optional(number) : std::nullopt;
}

/// The same from 0 to a limit.
inline std::optional<uint32_t> ParseNumber(std::string_view text, uint32_t limit) {
    const std::optional<uint64_t> number = WholeNumber(text);
    return number.has_value() && *number <= limit ? std::optional(static_cast<uint32_t>(*number)) : std::nullopt;
}

}  // namespace qxpbase
