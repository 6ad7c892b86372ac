#pragma once

#include <string_view>

#include "qxhost/bus.h"

/// The agent's manager component, which takes the plugin's reports, and the type of these messages.
inline constexpr char MGR_COMPONENT_ID[] = "9946467F-0102-46E8-ACAC-B9EFE3CD68FD";
inline constexpr long MSG_TYPE_JSON_COMBO = 20300;

/// Send-complete sinks. Nothing waits for the completion of a send, so they do nothing.
class CqxpmaintAsynCallback : public IMRSendComplete {
public:
    void SendCallback(int, long, const unsigned char*, unsigned int, unsigned long, void*) override {}
};

class CLogCacheAsynCallback : public IMRSendComplete {
public:
    void SendCallback(int, long, const unsigned char*, unsigned int, unsigned long, void*) override {}
};

/// Sends a JSON text to the manager component in an envelope. Logs nothing; any thread.
/// @param name1, name2  at most 63 characters of each are sent, and neither when one is empty.
/// @return SendAsync's result (0 queued); 0xE0010002 for a null argument or an empty text; 0xA0010001 for a
///         json_data_type other than 1 and 2; 0xE0010003 when memory is short.
int SendJsonComboDataAsyncEx(IXBusMREndPoint4* ep, int json_data_type, const char* name1, const char* name2, int value4,
                             int value8, const char* json);

/// True for the two values that json_data_type may have.
bool IsJsonDataType(int json_data_type);
/// The same for arguments that were checked before, and a text that may be no C string: it is copied once, into the
/// envelope, since a report can be over a hundred MiB.
int SendEnvelope(IXBusMREndPoint4& endPoint, int json_data_type, const char* name1, const char* name2, int value4,
                 int value8, std::string_view json);
