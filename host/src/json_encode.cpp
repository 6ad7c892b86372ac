#include <cstdint>
#include <cstring>

#include "heap_text.h"
#include "qxhost/json.h"

namespace {

constexpr size_t kEscapeLength = 6;  // \uXXXX
constexpr uint32_t kReplacement = 0xFFFD;

struct SCharacter {
    uint32_t uCode;
    size_t uLength;  // in bytes; 0 when there is no valid character
};

/// The non-ASCII character that begins at p (RFC 3629: no surrogates, nothing above U+10FFFF, shortest form only).
/// Never reads beyond a NUL.
SCharacter DecodeUtf8(const unsigned char* p) {
    constexpr uint32_t kLeastCode[] = {0, 0, 0x80, 0x800, 0x10000};
    const size_t uLength = (p[0] & 0xE0) == 0xC0 ? 2 : (p[0] & 0xF0) == 0xE0 ? 3 : (p[0] & 0xF8) == 0xF0 ? 4 : 0;
    if (uLength == 0) {
        return {0, 0};
    }
    uint32_t uCode = p[0] & (0x7FU >> uLength);
    for (size_t i = 1; i < uLength; ++i) {
        if ((p[i] & 0xC0) != 0x80) {
            return {0, 0};
        }
        uCode = uCode << 6 | (p[i] & 0x3FU);
    }
    const bool bSurrogate = uCode >= 0xD800 && uCode <= 0xDFFF;
    if (uCode < kLeastCode[uLength] || bSurrogate || uCode > 0x10FFFF) {
        return {0, 0};
    }
    return {uCode, uLength};
}

char* AppendEscape(char* pOut, uint32_t uUnit) {
    constexpr char kDigits[] = "0123456789abcdef";
    *pOut++ = '\\';
    *pOut++ = 'u';
    for (int iShift = 12; iShift >= 0; iShift -= 4) {
        *pOut++ = kDigits[uUnit >> iShift & 0xF];
    }
    return pOut;
}

char* AppendCharacter(char* pOut, uint32_t uCode) {
    if (uCode < 0x10000) {
        return AppendEscape(pOut, uCode);
    }
    pOut = AppendEscape(pOut, 0xD800 + ((uCode - 0x10000) >> 10));
    return AppendEscape(pOut, 0xDC00 + (uCode & 0x3FF));
}

size_t CountNonAscii(const unsigned char* p) {
    size_t uCount = 0;
    for (; *p != 0; ++p) {
        uCount += *p >> 7;
    }
    return uCount;
}

}  // namespace

char* QxJsonEncodeStr(const char* pszText) {
    const auto* pIn = reinterpret_cast<const unsigned char*>(pszText);
    const size_t uNonAscii = pszText == nullptr ? 0 : CountNonAscii(pIn);
    if (uNonAscii == 0) {
        return nullptr;
    }
    // No byte becomes more than one escape.
    CHeapText pEncoded = AllocateHeapText(std::strlen(pszText) + uNonAscii * (kEscapeLength - 1) + 1);
    if (!pEncoded) {
        return nullptr;
    }
    char* pOut = pEncoded.get();
    while (*pIn != 0) {
        if (*pIn < 0x80) {
            *pOut++ = static_cast<char>(*pIn++);
            continue;
        }
        const SCharacter character = DecodeUtf8(pIn);
        pOut = AppendCharacter(pOut, character.uLength == 0 ? kReplacement : character.uCode);
        pIn += character.uLength == 0 ? 1 : character.uLength;
    }
    *pOut = '\0';
    return pEncoded.release();
}
