#pragma once

#include <cstddef>
#include <cstdint>

namespace qxtools {

struct Utf8Character {
    uint32_t code;
    size_t length;  // in bytes; 0 when there is no valid character
};

inline constexpr size_t kLongestUtf8 = 4;  // bytes

/// The non-ASCII character that begins at p (RFC 3629: no surrogates, nothing above U+10FFFF, shortest form only).
/// Never reads beyond a NUL, nor more than `limit` bytes.
inline Utf8Character DecodeUtf8(const unsigned char* p, size_t limit = kLongestUtf8) {
    constexpr uint32_t kLeastCode[] = {0, 0, 0x80, 0x800, 0x10000};
    const size_t length = (p[0] & 0xE0) == 0xC0 ? 2 : (p[0] & 0xF0) == 0xE0 ? 3 : (p[0] & 0xF8) == 0xF0 ? 4 : 0;
    if (length == 0 || length > limit) {
        return {0, 0};
    }
    uint32_t code = p[0] & (0x7FU >> length);
    for (size_t i = 1; i < length; ++i) {
        if ((p[i] & 0xC0) != 0x80) {
            return {0, 0};
        }
        code = code << 6 | (p[i] & 0x3FU);
    }
    const bool is_surrogate = code >= 0xD800 && code <= 0xDFFF;
    if (code < kLeastCode[length] || is_surrogate || code > 0x10FFFF) {
        return {0, 0};
    }
    return {code, length};
}

}  // namespace qxtools
