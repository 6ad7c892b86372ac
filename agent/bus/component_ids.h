#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include "plugin/adapter/entry_points.h"
#include "qxhost/guid.h"

// Who is who on the bus, and what they say to each other.

namespace qxpagent {

/// A component identifier from its text, 8-4-4-4-12 hexadecimal digits. Anything else does not compile.
consteval GUID ParseGuid(std::string_view text) {
    uint8_t bytes[16] = {};
    size_t digits = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash != (text[i] == '-') || text.size() != 36) {
            throw std::invalid_argument("a GUID is written 8-4-4-4-12");
        }
        if (!dash) {
            const std::string_view hexadecimal = "0123456789ABCDEF";
            const size_t value = hexadecimal.find(text[i]);
            if (value == std::string_view::npos) {
                throw std::invalid_argument("a GUID is written in upper-case hexadecimal digits");
            }
            bytes[digits / 2] = static_cast<uint8_t>(bytes[digits / 2] << 4 | value);
            ++digits;
        }
    }
    GUID guid{};
    guid.Data1 = uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
    guid.Data2 = static_cast<uint16_t>(bytes[4] << 8 | bytes[5]);
    guid.Data3 = static_cast<uint16_t>(bytes[6] << 8 | bytes[7]);
    for (size_t i = 0; i < sizeof(guid.Data4); ++i) {
        guid.Data4[i] = bytes[8 + i];
    }
    return guid;
}

/// Identifiers are compared as raw bytes.
inline bool SameId(const GUID& a, const GUID& b) {
    return std::memcmp(&a, &b, sizeof(GUID)) == 0;
}

struct GuidLess {
    bool operator()(const GUID& a, const GUID& b) const { return std::memcmp(&a, &b, sizeof(GUID)) < 0; }
};

inline constexpr GUID kPluginId = ParseGuid(PLUGIN_CLSID);
inline constexpr GUID kServerDataId = ParseGuid("FAB922A8-736E-4CB5-A666-4FD849A3049A");
inline constexpr GUID kAgentConnectId = ParseGuid("ABC9A772-602C-45F4-9AAC-7096FD9BEDA4");
inline constexpr GUID kManagerId = ParseGuid("9946467F-0102-46E8-ACAC-B9EFE3CD68FD");

inline constexpr long kCommandMessage = 20001;       // server data -> plugin: a policy
inline constexpr long kConnectQueryMessage = 10012;  // plugin -> agent connect: where is the server?
inline constexpr long kReportMessage = 20300;        // plugin -> manager: a report in its envelope

}  // namespace qxpagent
