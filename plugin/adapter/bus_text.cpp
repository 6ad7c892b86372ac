#include "plugin/adapter/bus_text.h"

#include <cjson/cJSON.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

struct CJsonDelete {
    void operator()(cJSON* pNode) const { cJSON_Delete(pNode); }
};

// Null when there is no such member or it is not a string.
const char* GetString(const cJSON* pObject, const char* pszKey) {
    const cJSON* pNode = cJSON_GetObjectItem(pObject, pszKey);
    return cJSON_IsString(pNode) ? pNode->valuestring : nullptr;
}

}  // namespace

GUID ParseGuid(const char* pszText) {
    GUID g{};
    if (!pszText) {
        return g;
    }
    // The number of fields read is of no interest: see the contract.
    if (*pszText == '{') {
        // NOLINTNEXTLINE(cert-err34-c): each field has a fixed width that fits its type
        sscanf(pszText, "{%08x-%04hx-%04hx-%02hhx%02hhx-%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx}", &g.Data1, &g.Data2,
               &g.Data3, &g.Data4[0], &g.Data4[1], &g.Data4[2], &g.Data4[3], &g.Data4[4], &g.Data4[5], &g.Data4[6],
               &g.Data4[7]);
    } else {
        // NOLINTNEXTLINE(cert-err34-c): as above
        sscanf(pszText, "%08x-%04hx-%04hx-%02hhx%02hhx-%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx", &g.Data1, &g.Data2,
               &g.Data3, &g.Data4[0], &g.Data4[1], &g.Data4[2], &g.Data4[3], &g.Data4[4], &g.Data4[5], &g.Data4[6],
               &g.Data4[7]);
    }
    return g;
}

CPString FormatGuid(const GUID& stGuid) {
    CPString strText;
    strText.Format("%s%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X%s", "", stGuid.Data1, stGuid.Data2, stGuid.Data3,
                   stGuid.Data4[0], stGuid.Data4[1], stGuid.Data4[2], stGuid.Data4[3], stGuid.Data4[4], stGuid.Data4[5],
                   stGuid.Data4[6], stGuid.Data4[7], "");
    return strText;
}

bool IsSameGuid(const GUID& a, const GUID& b) {
    return memcmp(&a, &b, sizeof(GUID)) == 0;
}

bool ParseConnectInfo(const CPString& strJson, ConnectInfo& stInfo) {
    const std::unique_ptr<cJSON, CJsonDelete> pRoot(cJSON_Parse(strJson.c_str()));
    if (!pRoot) {
        return false;
    }
    stInfo.strFlag = CPString::SafeConstruct(GetString(pRoot.get(), "onlineflag"));
    stInfo.strServerIp = CPString::SafeConstruct(GetString(pRoot.get(), "ip"));
    if (const char* pszPort = GetString(pRoot.get(), "port")) {
        stInfo.wPort = static_cast<unsigned short>(strtol(pszPort, nullptr, 10));
    }
    return true;
}
