#include "log_text.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "qxhost/utf8.h"

namespace {

bool IsUtf8Continuation(char c) {
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

/// Where to cut a text of more than kMaxLogText bytes, of which at least kMaxLogText + 1 are given.
size_t CutPosition(std::string_view text) {
    for (size_t cut = kMaxLogText; cut > kMaxLogText - qxtools::kLongestUtf8; --cut) {
        if (!IsUtf8Continuation(text[cut])) {
            return cut;
        }
    }
    return kMaxLogText;  // not UTF-8
}

/// @param head         the text, or as much of it as CutPosition needs.
/// @param full_length  of the whole text.
LogText CutHead(std::string_view head, size_t full_length) {
    if (full_length <= kMaxLogText) {
        return {std::string(head.substr(0, full_length)), 0};
    }
    const size_t kept = CutPosition(head);
    return {std::string(head.substr(0, kept)), full_length - kept};
}

void AppendHex(std::string& line, char c) {
    constexpr char kDigits[] = "0123456789abcdef";
    const auto byte = static_cast<unsigned char>(c);
    line += "\\x";
    line += kDigits[byte >> 4];
    line += kDigits[byte & 0xF];
}

/// The second set of control characters, U+0080 to U+009F; terminals may take their bare bytes for them as well.
bool IsC1(uint32_t code) {
    return code >= 0x80 && code <= 0x9F;
}

/// What could make a record look like another one: C1, the separators of lines and paragraphs, and the characters that
/// change the direction of writing.
bool IsMisleading(uint32_t code) {
    return IsC1(code) || code == 0x061C || code == 0x200E || code == 0x200F || (code >= 0x2028 && code <= 0x202E) ||
           (code >= 0x2066 && code <= 0x2069);
}

void AppendEscapedByte(std::string& line, char c) {
    constexpr char kDel = 0x7F;
    if (c == '\\') {
        line += "\\\\";
    } else if (c == '\n') {
        line += "\\n";
    } else if (c == '\t') {
        line += "\\t";
    } else if (static_cast<unsigned char>(c) < ' ' || c == kDel || IsC1(static_cast<unsigned char>(c))) {
        AppendHex(line, c);
    } else {
        line += c;
    }
}

/// Appends the character that a non-empty text begins with and returns its length in bytes.
size_t AppendEscapedCharacter(std::string& line, std::string_view text) {
    const qxtools::Utf8Character character =
        qxtools::DecodeUtf8(reinterpret_cast<const unsigned char*>(text.data()), text.size());
    if (character.length == 0) {
        AppendEscapedByte(line, text[0]);
        return 1;
    }
    const std::string_view bytes = text.substr(0, character.length);
    if (IsMisleading(character.code)) {
        for (const char c : bytes) {
            AppendHex(line, c);
        }
    } else {
        line += bytes;
    }
    return bytes.size();
}

}  // namespace

LogText CutLogText(std::string_view text) {
    return CutHead(text, text.size());
}

LogText FormatLogText(const char* format, va_list args) {
    std::array<char, 512> short_text;
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(short_text.data(), short_text.size(), format, args);
    LogText text;
    if (length < 0) {
        text = CutLogText(format);
    } else if (static_cast<size_t>(length) < short_text.size()) {
        text.text.assign(short_text.data(), static_cast<size_t>(length));
    } else {
        const auto full_length = static_cast<size_t>(length);
        std::string head(std::min(full_length, kMaxLogText + 1), '\0');
        // The analyzer takes an argument list that is passed on for an uninitialised one.
        // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
        std::vsnprintf(head.data(), head.size() + 1, format, again);
        text = CutHead(head, full_length);
    }
    va_end(again);
    return text;
}

void AppendEscaped(std::string& line, std::string_view text) {
    while (!text.empty()) {
        text.remove_prefix(AppendEscapedCharacter(line, text));
    }
}

void AppendWord(std::string& line, std::string_view name) {
    if (name.empty()) {
        line += '-';
    }
    while (!name.empty()) {
        if (name[0] == ' ') {
            AppendHex(line, ' ');
            name.remove_prefix(1);
        } else {
            name.remove_prefix(AppendEscapedCharacter(line, name));
        }
    }
}
