#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>
#include <string_view>

constexpr size_t kMaxLogText = 16UL * 1024;  // bytes

/// The text of a record before escaping: at most kMaxLogText bytes, and how many more it had.
struct LogText {
    std::string text;
    size_t cut_bytes = 0;
};

/// Cuts a text to size, between two characters when it is UTF-8.
LogText CutLogText(std::string_view text);

/// Formats as vsnprintf does, in memory of the size that is kept. A format that fails is itself the text.
LogText FormatLogText(const char* format, va_list args);

/// Appends a text with what could forge a record made visible: a backslash becomes \\, control characters and DEL
/// become \n, \t or \xNN, and so do the bytes of U+0080 to U+009F and bytes 80 to 9F that are not in a UTF-8 character.
void AppendEscaped(std::string& line, std::string_view text);

/// Appends a name as one word: as AppendEscaped, with a space as \x20 and "-" for an empty name.
void AppendWord(std::string& line, std::string_view name);
