#pragma once

#include <cstddef>
#include <string_view>

namespace qxppolicy {

/// The length of the well-formed UTF-8 sequence that the text begins with, as the host SDK reads it; 0 when there is
/// none.
size_t Utf8SequenceLength(std::string_view text);

bool IsValidUtf8(std::string_view text);

/// For one well-formed sequence: true for what has no place within a line and could make it look like another one. C0
/// and C1 control characters and DEL, the separators of lines and paragraphs (U+2028, U+2029), and the characters that
/// change the direction of writing (U+061C, U+200E, U+200F, U+202A to U+202E, U+2066 to U+2069).
bool IsControl(std::string_view sequence);

/// True when the text holds such a character.
bool HasControlCharacter(std::string_view text);

}  // namespace qxppolicy
