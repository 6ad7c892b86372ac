#include <cstdlib>

#include "plugin/manager/maint_log.h"
#include "plugin/manager/maint_mgr.h"
#include "plugin/platform/qx_log_print.h"
#include "plugin/platform/test_point.h"
#include "plugin/sign/maint_sign.h"
#include "qxhost/json.h"

namespace {

// A number as strtol reads it: white space and a sign are accepted, text without digits is 0, a negative one wraps.
uint32_t ToNumber(const CPString& strValue) {
    return static_cast<uint32_t>(strtol(strValue.c_str(), nullptr, 10));
}

// The value of a member as text, which ends at its first NUL: what is verified, decoded and compared is then the same.
// False leaves the default.
bool ReadMember(const qxtools::CPJsonParse& json, void* pParent, const char* pszKey, CPString& strValue) {
    void* pNode = json.GetNode(pParent, pszKey);
    if (pNode) {
        strValue = CPString(json.GetValue(pNode).c_str());
    }
    return pNode != nullptr;
}

void ReadOptionalMembers(const qxtools::CPJsonParse& json, void* pScript, _MaintPolicyDetail& record) {
    CPString strNumber;
    ReadMember(json, pScript, "scriptid", record.strScriptId);
    ReadMember(json, pScript, "scriptpath", record.strPath);
    ReadMember(json, pScript, "checkret", record.strCheckRet);
    if (ReadMember(json, pScript, "timeout", strNumber)) {
        record.dwTimeOut = ToNumber(strNumber);
    }
    if (ReadMember(json, pScript, "timeoutaction", strNumber)) {
        record.dwTimeOutAction = ToNumber(strNumber);
    }
}

void LogRecord(const _MaintPolicyDetail& record, const CPString& strSign) {
    QXLogPrint(6, MAINT_LOG_SOURCE, "ParsePolicy", __LINE__,
               "qxpmaint CMaintMgr::SetPolicy strID[%s] dwTimeOut[%u] dwTimeOutAction[%u] strScriptId[%s] strType[%s] "
               "strPath[%s] strCheckRet[%s]",
               record.strID.c_str(), record.dwTimeOut, record.dwTimeOutAction, record.strScriptId.c_str(),
               record.strType.c_str(), record.strPath.c_str(), record.strCheckRet.c_str());
    QXLogPrint(6, MAINT_LOG_SOURCE, "ParsePolicy", __LINE__,
               "qxpmaint CMaintMgr::SetPolicy dwPolicyType[%u] strScriptId[%s] strSign[%s] pText[%p] iLenght[%d] "
               "strText[%s]\n",
               record.dwPolicyType, record.strScriptId.c_str(), strSign.c_str(), static_cast<void*>(record.pText),
               record.iLength, record.strText.c_str());
}

}  // namespace

// NOLINTNEXTLINE(performance-unnecessary-value-param): the ID is taken by value at this interface
int CMaintMgr::ParsePolicy(const char* lpJsonData, CPString strID, unsigned int dwPolicyType,
                           std::list<_MaintPolicyDetail>& list) {
    if (!lpJsonData || !*lpJsonData) {
        return 0;
    }
    QXLogPrint(6, MAINT_LOG_SOURCE, "ParsePolicy", __LINE__,
               "qxpmaint CMaintMgr::ParsePolicy strID[%s] lpJsonData[%s] ", strID.c_str(), lpJsonData);
    TestPoint("policy parsing");
    qxtools::CPJsonParse json;
    if (!json.LoadBuffer(lpJsonData)) {
        QXLogPrint(3, MAINT_LOG_SOURCE, "ParsePolicy", __LINE__,
                   "*qxpmaint CMaintMgr::ParsePolicy LoadBuffer Error strID[%s] lpJsonData[%s] ", strID.c_str(),
                   lpJsonData);
        return 0;
    }
    void* pParam = json.GetNode(nullptr, "param");
    if (!pParam) {
        QXLogPrint(3, MAINT_LOG_SOURCE, "ParsePolicy", __LINE__,
                   "*qxpmaint CMaintMgr::ParsePolicy GetNode param Error strID[%s]", strID.c_str());
        return 0;
    }
    void* pScriptInfo = json.GetNode(pParam, "scriptinfo");
    if (!pScriptInfo) {
        QXLogPrint(3, MAINT_LOG_SOURCE, "ParsePolicy", __LINE__,
                   "*qxpmaint CMaintMgr::ParsePolicy GetNode scriptinfo Error strID[%s]", strID.c_str());
        return 0;
    }
    std::list<void*> listScript;
    if (!json.GetAllNode(pScriptInfo, listScript)) {
        QXLogPrint(3, MAINT_LOG_SOURCE, "ParsePolicy", __LINE__,
                   "*qxpmaint CMaintMgr::ParsePolicy GetAllNode Error strID[%s]", strID.c_str());
        return 0;
    }

    std::list<_MaintPolicyDetail> listAccepted;
    for (void* pScript : listScript) {
        CPString strScriptData;
        CPString strSign;
        _MaintPolicyDetail record;
        if (!ReadMember(json, pScript, "scriptdata", strScriptData)) {
            QXLogPrint(3, MAINT_LOG_SOURCE, "ParsePolicy", __LINE__,
                       "*qxpmaint CMaintMgr::ParsePolicy GetNode scriptdata Error strID[%s]", strID.c_str());
            continue;
        }
        if (!ReadMember(json, pScript, "sign", strSign)) {
            continue;
        }
        // Before anything else of the script is looked at: what is not signed decides nothing.
        CMaintSign sign;
        if (!sign.VerifySignContent(strSign.c_str(), strScriptData.c_str())) {
            QXLogPrint(3, MAINT_LOG_SOURCE, "ParsePolicy", __LINE__,
                       "*qxpmaint CMaintMgr::ParsePolicy VerifySignContent fail strID[%s]", strID.c_str());
            continue;
        }
        if (!ReadMember(json, pScript, "scripttype", record.strType) || !CheckIsSupport(strScriptData, record)) {
            continue;
        }
        ReadOptionalMembers(json, pScript, record);
        record.strID = strID;
        record.dwPolicyType = dwPolicyType;
        LogRecord(record, strSign);
        listAccepted.push_back(std::move(record));
    }
    // All at once, at the end: what was thrown on the way leaves the caller's list as it was.
    list.splice(list.end(), listAccepted);
    return 1;
}

int CMaintMgr::CheckIsSupport(const CPString& strScriptData, _MaintPolicyDetail& record) {
    if (record.strType.CompareNoCase("bat") == 0 || record.strType.CompareNoCase("vbs") == 0) {
        return 0;
    }
    if (record.strType.CompareNoCase("sh") == 0) {
        CMainTTool::DecodeBase64(strScriptData, record.strText);
    } else if (record.strType.CompareNoCase("exe") == 0) {
        record.spTextOwner.reset(CMainTTool::DecodeBase64(strScriptData, record.iLength), free);
        record.pText = record.spTextOwner.get();
    }
    // "zip" and every unknown type are accepted without a body.
    return 1;
}
