#pragma once

#include "qxhost/cpstring.h"
#include "qxhost/guid.h"

/// Reads the 8-4-4-4-12 hexadecimal form, in braces when the text begins with one. Null gives the all-zero GUID. A text
/// that ends or goes wrong part-way is not detected: what was read before stands, the rest is zero.
GUID ParseGuid(const char* pszText);

/// Writes the 8-4-4-4-12 form in upper case, without braces.
CPString FormatGuid(const GUID& stGuid);

/// Byte-wise.
bool IsSameGuid(const GUID& a, const GUID& b);
