#pragma once

#include <cstddef>

// Base64 in the standard alphabet (RFC 4648 section 4). Padding is complete or left out, ASCII white space is skipped,
// and anything else (another character, NUL included; half a padding; data after padding; a lone last character; null;
// a text for more than INT_MAX bytes) makes the result null. Bits of the last character that belong to no byte are
// ignored. An empty text is zero bytes. Any thread.

extern "C" {

/// @param piDecodedSize receives the number of decoded bytes; 0 on failure. May be null.
/// @return the bytes, followed by one NUL that is not counted, for free(); null on failure.
unsigned char* base64Decode2(const char* pszText, size_t uSize, int* piDecodedSize);

/// The same without the size; bytes that hold a NUL are better taken with it.
char* base64Decode(const char* pszText, size_t uSize);
}
