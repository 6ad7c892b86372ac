#include <cstdint>
#include <cstring>

#include "c_interface.h"
#include "qxhost/json.h"
#include "qxhost/utf8.h"

namespace {

constexpr size_t kEscapeLength = 6;  // \uXXXX
constexpr uint32_t kReplacement = 0xFFFD;

char* AppendEscape(char* out, uint32_t unit) {
    constexpr char kDigits[] = "0123456789abcdef";
    *out++ = '\\';
    *out++ = 'u';
    for (int shift = 12; shift >= 0; shift -= 4) {
        *out++ = kDigits[unit >> shift & 0xF];
    }
    return out;
}

char* AppendCharacter(char* out, uint32_t code) {
    if (code < 0x10000) {
        return AppendEscape(out, code);
    }
    out = AppendEscape(out, 0xD800 + ((code - 0x10000) >> 10));
    return AppendEscape(out, 0xDC00 + (code & 0x3FF));
}

size_t CountNonAscii(const unsigned char* p) {
    size_t count = 0;
    for (; *p != 0; ++p) {
        count += *p >> 7;
    }
    return count;
}

}  // namespace

char* QxJsonEncodeStr(const char* text) {
    const auto* in = reinterpret_cast<const unsigned char*>(text);
    const size_t non_ascii = text == nullptr ? 0 : CountNonAscii(in);
    if (non_ascii == 0) {
        return nullptr;
    }
    // No byte becomes more than one escape.
    HeapText encoded = AllocateHeapText(std::strlen(text) + non_ascii * (kEscapeLength - 1) + 1);
    if (encoded == nullptr) {
        return nullptr;
    }
    char* out = encoded.get();
    while (*in != 0) {
        if (*in < 0x80) {
            *out++ = static_cast<char>(*in++);
            continue;
        }
        const qxtools::Utf8Character character = qxtools::DecodeUtf8(in);
        out = AppendCharacter(out, character.length == 0 ? kReplacement : character.code);
        in += character.length == 0 ? 1 : character.length;
    }
    *out = '\0';
    return encoded.release();
}
