#pragma once

#include <cstddef>

// Base64 in the standard alphabet (RFC 4648 section 4). Padding may be left out, ASCII white space is skipped, and
// anything else (another character, data after padding, a lone last character, null) makes the result null.

extern "C" {

/// @param piDecodedSize receives the number of decoded bytes; 0 on failure. May be null.
/// @return the bytes, followed by one NUL that is not counted, for free(); null on failure.
unsigned char* base64Decode2(const char* pszText, size_t uSize, int* piDecodedSize);

/// The same without the size.
char* base64Decode(const char* pszText, size_t uSize);
}
