#include <cstdint>
#include <cstring>

#include "heap_text.h"
#include "qxhost/json.h"
#include "utf8.h"

namespace {

constexpr size_t kEscapeLength = 6;  // \uXXXX
constexpr uint32_t kReplacement = 0xFFFD;

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
