#include "plugin/adapter/connect_info.h"

#include <cjson/cJSON.h>

#include <cstdlib>
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
