#include "log_text.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "utf8.h"

namespace {

bool IsUtf8Continuation(char c) {
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

/// Where to cut a text of more than kMaxLogText bytes, of which at least kMaxLogText + 1 are given.
size_t CutPosition(std::string_view text) {
    constexpr size_t kLongestCharacter = 4;
    for (size_t uCut = kMaxLogText; uCut > kMaxLogText - kLongestCharacter; --uCut) {
        if (!IsUtf8Continuation(text[uCut])) {
            return uCut;
        }
    }
    return kMaxLogText;  // not UTF-8
}

/// @param head         the text, or as much of it as CutPosition needs.
/// @param uFullLength  of the whole text.
SLogText CutHead(std::string_view head, size_t uFullLength) {
    if (uFullLength <= kMaxLogText) {
        return {std::string(head.substr(0, uFullLength)), 0};
    }
    const size_t uKept = CutPosition(head);
    return {std::string(head.substr(0, uKept)), uFullLength - uKept};
}

void AppendHex(std::string& strLine, char c) {
    constexpr char kDigits[] = "0123456789abcdef";
    const auto uByte = static_cast<unsigned char>(c);
    strLine += "\\x";
    strLine += kDigits[uByte >> 4];
    strLine += kDigits[uByte & 0xF];
}

/// The second set of control characters, U+0080 to U+009F; terminals may take their bare bytes for them as well.
bool IsC1(uint32_t uCode) {
    return uCode >= 0x80 && uCode <= 0x9F;
}

/// What could make a record look like another one: C1, the separators of lines and paragraphs, and the characters that
/// change the direction of writing.
bool IsMisleading(uint32_t uCode) {
    return IsC1(uCode) || uCode == 0x061C || uCode == 0x200E || uCode == 0x200F ||
           (uCode >= 0x2028 && uCode <= 0x202E) || (uCode >= 0x2066 && uCode <= 0x2069);
}

void AppendEscapedByte(std::string& strLine, char c) {
    constexpr char kDel = 0x7F;
    if (c == '\\') {
        strLine += "\\\\";
    } else if (c == '\n') {
        strLine += "\\n";
    } else if (c == '\t') {
        strLine += "\\t";
    } else if (static_cast<unsigned char>(c) < ' ' || c == kDel || IsC1(static_cast<unsigned char>(c))) {
        AppendHex(strLine, c);
    } else {
        strLine += c;
    }
}

/// Appends the character that a non-empty text begins with and returns its length in bytes.
size_t AppendEscapedCharacter(std::string& strLine, std::string_view text) {
    const SCharacter character = DecodeUtf8(reinterpret_cast<const unsigned char*>(text.data()), text.size());
    if (character.uLength == 0) {
        AppendEscapedByte(strLine, text[0]);
        return 1;
    }
    const std::string_view bytes = text.substr(0, character.uLength);
    if (IsMisleading(character.uCode)) {
        for (const char c : bytes) {
            AppendHex(strLine, c);
        }
    } else {
        strLine += bytes;
    }
    return bytes.size();
}

}  // namespace

SLogText CutLogText(std::string_view text) {
    return CutHead(text, text.size());
}

SLogText FormatLogText(const char* pszFormat, va_list args) {
    std::array<char, 512> szShort;
    va_list again;
    va_copy(again, args);
    const int iLength = std::vsnprintf(szShort.data(), szShort.size(), pszFormat, args);
    SLogText text;
    if (iLength < 0) {
        text = CutLogText(pszFormat);
    } else if (static_cast<size_t>(iLength) < szShort.size()) {
        text.strText.assign(szShort.data(), static_cast<size_t>(iLength));
    } else {
        const auto uLength = static_cast<size_t>(iLength);
        std::string strHead(std::min(uLength, kMaxLogText + 1), '\0');
        // The analyzer takes an argument list that is passed on for an uninitialised one.
        // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
        std::vsnprintf(strHead.data(), strHead.size() + 1, pszFormat, again);
        text = CutHead(strHead, uLength);
    }
    va_end(again);
    return text;
}

void AppendEscaped(std::string& strLine, std::string_view text) {
    while (!text.empty()) {
        text.remove_prefix(AppendEscapedCharacter(strLine, text));
    }
}

void AppendWord(std::string& strLine, std::string_view name) {
    if (name.empty()) {
        strLine += '-';
    }
    while (!name.empty()) {
        if (name[0] == ' ') {
            AppendHex(strLine, ' ');
            name.remove_prefix(1);
        } else {
            name.remove_prefix(AppendEscapedCharacter(strLine, name));
        }
    }
}
