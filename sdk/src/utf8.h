#pragma once

#include <cstddef>
#include <cstdint>

struct SCharacter {
    uint32_t uCode;
    size_t uLength;  // in bytes; 0 when there is no valid character
};

constexpr size_t kLongestUtf8 = 4;

/// The non-ASCII character that begins at p (RFC 3629: no surrogates, nothing above U+10FFFF, shortest form only).
/// Never reads beyond a NUL, nor more than uLimit bytes.
inline SCharacter DecodeUtf8(const unsigned char* p, size_t uLimit = kLongestUtf8) {
    constexpr uint32_t kLeastCode[] = {0, 0, 0x80, 0x800, 0x10000};
    const size_t uLength = (p[0] & 0xE0) == 0xC0 ? 2 : (p[0] & 0xF0) == 0xE0 ? 3 : (p[0] & 0xF8) == 0xF0 ? 4 : 0;
    if (uLength == 0 || uLength > uLimit) {
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
