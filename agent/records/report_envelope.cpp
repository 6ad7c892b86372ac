#include "agent/records/report_envelope.h"

namespace qxpagent {

namespace {

uint32_t ReadUint32(std::string_view bytes, size_t offset) {
    uint32_t value = 0;
    for (size_t i = 4; i-- > 0;) {
        value = value << 8 | static_cast<unsigned char>(bytes[offset + i]);
    }
    return value;
}

}  // namespace

std::optional<ReportEnvelope> DecodeReportEnvelope(std::string_view bytes) {
    if (bytes.size() <= kEnvelopeHeaderBytes) {
        return std::nullopt;
    }
    const size_t text_bytes = bytes.size() - kEnvelopeHeaderBytes - 1;
    const uint32_t json_data_type = ReadUint32(bytes, 0);
    if (ReadUint32(bytes, 144) != text_bytes || bytes.back() != '\0' || (json_data_type != 1 && json_data_type != 2)) {
        return std::nullopt;
    }
    return ReportEnvelope{json_data_type, static_cast<int32_t>(ReadUint32(bytes, 4)),
                          bytes.substr(kEnvelopeHeaderBytes, text_bytes)};
}

}  // namespace qxpagent
