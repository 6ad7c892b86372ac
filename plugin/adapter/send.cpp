#include "plugin/adapter/send.h"

#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <string_view>

#include "plugin/adapter/adapter_support.h"
#include "plugin/adapter/bus_text.h"

namespace {

constexpr unsigned int SEND_TIME_OUT_MS = 60000;

// The envelope, packed, numbers with the least significant byte first:
//
//   0  u32  JSON data type        16  char[64]  first name, NUL-padded
//   4  s32  caller's value        80  char[64]  second name, NUL-padded
//   8  s32  second value         144  u32       length L of the text
//  12  u32  zero                 148  text and one NUL, L + 1 bytes
constexpr size_t TYPE_OFFSET = 0;
constexpr size_t VALUE4_OFFSET = 4;
constexpr size_t VALUE8_OFFSET = 8;
constexpr size_t NAME1_OFFSET = 16;
constexpr size_t NAME2_OFFSET = 80;
constexpr size_t NAME_LIMIT = 63;
constexpr size_t LENGTH_OFFSET = 144;
constexpr size_t TEXT_OFFSET = 148;

void PutU32(unsigned char* pTarget, uint32_t uValue) {
    for (int i = 0; i < 4; ++i) {
        pTarget[i] = static_cast<unsigned char>(uValue >> (8 * i));
    }
}

void PutText(unsigned char* pTarget, std::string_view text) {
    memcpy(pTarget, text.data(), text.size());
}

}  // namespace

bool IsJsonDataType(int json_data_type) {
    return json_data_type == 1 || json_data_type == 2;
}

int SendEnvelope(IXBusMREndPoint4& endPoint, int json_data_type, const char* name1, const char* name2, int value4,
                 int value8, std::string_view json) {
    const size_t uSize = TEXT_OFFSET + json.size() + 1;
    if (json.empty() || uSize > std::numeric_limits<uint32_t>::max()) {
        return ADAPTER_E_INVALID_ARG;
    }
    const std::unique_ptr<unsigned char[]> pEnvelope(new (std::nothrow) unsigned char[uSize]());
    if (!pEnvelope) {
        return ADAPTER_E_OUT_OF_MEMORY;
    }

    unsigned char* pBytes = pEnvelope.get();
    PutU32(pBytes + TYPE_OFFSET, static_cast<uint32_t>(json_data_type));
    PutU32(pBytes + VALUE4_OFFSET, static_cast<uint32_t>(value4));
    PutU32(pBytes + VALUE8_OFFSET, static_cast<uint32_t>(value8));
    if (*name1 && *name2) {
        PutText(pBytes + NAME1_OFFSET, {name1, strnlen(name1, NAME_LIMIT)});
        PutText(pBytes + NAME2_OFFSET, {name2, strnlen(name2, NAME_LIMIT)});
    }
    PutU32(pBytes + LENGTH_OFFSET, static_cast<uint32_t>(json.size()));
    PutText(pBytes + TEXT_OFFSET, json);

    // In storage that nothing destroys: the plugin's threads may send while the process exits, and the host answer.
    alignas(CLogCacheAsynCallback) static unsigned char s_storage[sizeof(CLogCacheAsynCallback)];
    static CLogCacheAsynCallback* const s_pCompletionSink = new (s_storage) CLogCacheAsynCallback;
    unsigned long ulOut = 0;
    // The envelope is freed on return: SendAsync copies it.
    return endPoint.SendAsync(ParseGuid(MGR_COMPONENT_ID), MSG_TYPE_JSON_COMBO, pBytes,
                              static_cast<unsigned int>(uSize), s_pCompletionSink, nullptr, &ulOut, SEND_TIME_OUT_MS);
}

int SendJsonComboDataAsyncEx(IXBusMREndPoint4* ep, int json_data_type, const char* name1, const char* name2, int value4,
                             int value8, const char* json) {
    if (!ep || !name1 || !name2 || !json) {
        return ADAPTER_E_INVALID_ARG;
    }
    if (!IsJsonDataType(json_data_type)) {
        return ADAPTER_E_JSON_DATA_TYPE;
    }
    return SendEnvelope(*ep, json_data_type, name1, name2, value4, value8, json);
}
