#pragma once

#include <cstdint>

/// A 16-byte component identifier. Compared as raw bytes; as text it is written 8-4-4-4-12 in hexadecimal.
struct GUID {
    uint32_t Data1;
    uint16_t Data2;
    uint16_t Data3;
    uint8_t Data4[8];
};

static_assert(sizeof(GUID) == 16, "a GUID is 16 bytes on the bus");
