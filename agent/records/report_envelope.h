#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace qxpagent {

/// A report on its way to the manager, the JsonComboData message body. All numbers are little-endian:
///
///   offset 0   uint32    JSON data type, 1 or 2
///          4   int32     the sender's value
///          8   int32     the sender's second value
///         12   4 bytes   reserved
///         16   char[64]  first name, NUL-padded
///         80   char[64]  second name, NUL-padded
///        144   uint32    length L of the text
///        148   L bytes   JSON text, followed by one NUL
struct ReportEnvelope {
    uint32_t json_data_type;
    int32_t value;
    std::string_view text;  // points into the decoded bytes
};

inline constexpr size_t kEnvelopeHeaderBytes = 148;

/// Reads an envelope. Nothing when a length does not fit the bytes exactly, the last byte is not NUL, or the type is
/// not 1 or 2. Any bytes are safe to give.
std::optional<ReportEnvelope> DecodeReportEnvelope(std::string_view bytes);

}  // namespace qxpagent
