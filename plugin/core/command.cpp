#include "plugin/core/command.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "plugin/core/plugin_state.h"
#include "plugin/core/report_sender.h"
#include "plugin/manager/maint_mgr.h"
#include "plugin/platform/qx_log_print.h"
#include "qxhost/json.h"

namespace qxpmaint_impl {

namespace {

constexpr char RECV_FUNCTION[] = "plugin_recv_handler";

/// The type value of a command that runs scripts, 0 for any other command.
unsigned int PolicyType(const CPString& strCommand) {
    if (strCommand == "RunScriptNormal") {
        return 1;
    }
    if (strCommand == "RunScriptFile" || strCommand == "RunScriptProcess") {
        return 2;
    }
    return 0;
}

enum class EAcceptance { ACCEPTED, REFUSED, NO_MANAGER };

// Unless it is accepted, strID and strCommand hold what could be read of it.
EAcceptance AcceptCommand(const CMaintMgrUse& maintMgr, const char* pJsonData, CPString& strID, CPString& strCommand) {
    if (!pJsonData || !*pJsonData) {
        LogPrintC(QXPMAINT_MODULE, 3, "**qxpmaint recv empty msg");
        return EAcceptance::REFUSED;
    }
    LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint recv msg:%s", pJsonData);
    {
        // Freed before the manager parses the same text again: a document may be large.
        qxtools::CPJsonParse json;
        if (!json.LoadBuffer(pJsonData)) {
            QXLogPrint(3, CORE_LOG_SOURCE, RECV_FUNCTION, __LINE__,
                       "qxpmaint CMaintMgr::SetPolicy LoadBuffer Error pJsonData[%s]", pJsonData);
            return EAcceptance::REFUSED;
        }
        void* pID = json.GetNode(nullptr, "ID");
        if (!pID) {
            QXLogPrintStr(3, CORE_LOG_SOURCE, RECV_FUNCTION, __LINE__,
                          "qxpmaint CMaintMgr::SetPolicy GetNode ID Error");
            return EAcceptance::REFUSED;
        }
        strID = CPString(json.GetValue(pID).c_str());  // up to a NUL
        if (strID.empty()) {
            QXLogPrintStr(3, CORE_LOG_SOURCE, RECV_FUNCTION, __LINE__, "qxpmaint CMaintMgr::SetPolicy ID is NULL");
            return EAcceptance::REFUSED;
        }
        void* pCommand = json.GetNode(nullptr, "Command");
        if (!pCommand) {
            QXLogPrintStr(3, CORE_LOG_SOURCE, RECV_FUNCTION, __LINE__,
                          "qxpmaint CMaintMgr::SetPolicy GetNode Command Error");
            return EAcceptance::REFUSED;
        }
        strCommand = CPString(json.GetValue(pCommand).c_str());
    }
    const unsigned int dwPolicyType = PolicyType(strCommand);
    if (dwPolicyType == 0) {
        return EAcceptance::REFUSED;
    }
    if (!maintMgr) {
        LogPrintC(QXPMAINT_MODULE, 3, "**qxpmaint recv msg pMaintMgr is NULL");
        return EAcceptance::NO_MANAGER;
    }
    return maintMgr->SetPolicy(pJsonData, strID, dwPolicyType) != 0 ? EAcceptance::ACCEPTED : EAcceptance::REFUSED;
}

void SendRefusal(const CPString& strID, const CPString& strCommand) {
    char szSendBuffer[256] = {};
    if (!strID.empty()) {
        snprintf(szSendBuffer, sizeof szSendBuffer, R"({"ID":"%s","msg_type":"4","data_type":"%s"})", strID.c_str(),
                 strCommand.c_str());
    }
    if (!g_qxpmaint_send_to_mgr.load() || !szSendBuffer[0]) {
        return;
    }
    const EncodedText spEncoded(QxJsonEncodeStr(szSendBuffer), free);
    if (!spEncoded || !*spEncoded) {
        const int iRet = SendToMgr(szSendBuffer, strlen(szSendBuffer));
        LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint plugin_recv_handler g_qxpmaint_send_to_mgr iRet[%d] szSendBuffer[%s]",
                  iRet, szSendBuffer);
    } else {
        const int iRet = SendToMgr(spEncoded.get(), strlen(spEncoded.get()));
        LogPrintC(QXPMAINT_MODULE, 5,
                  "qxpmaint plugin_recv_handler g_qxpmaint_send_to_mgr JsonEncodeStr iRet[%d] pszEncodeData[%s]", iRet,
                  spEncoded.get());
    }
}

}  // namespace

int plugin_recv_handler(const char* pJsonData) {
    const CCancellationOff cancellationOff;
    const CMaintMgrUse maintMgr = CMaintMgr::Use();  // to the end: an uninit waits for the refusal as well
    CPString strID;
    CPString strCommand;
    EAcceptance eAcceptance = EAcceptance::REFUSED;
    Attempt(RECV_FUNCTION, [&] { eAcceptance = AcceptCommand(maintMgr, pJsonData, strID, strCommand); });
    if (eAcceptance != EAcceptance::ACCEPTED) {
        Attempt(RECV_FUNCTION, [&] { SendRefusal(strID, strCommand); });
    }
    return 0;
}

bool AcceptPolicyFile(const char* pJsonData) {
    const CMaintMgrUse maintMgr = CMaintMgr::Use();
    CPString strID;
    CPString strCommand;
    const EAcceptance eAcceptance = AcceptCommand(maintMgr, pJsonData, strID, strCommand);
    if (eAcceptance == EAcceptance::REFUSED) {
        Attempt(RECV_FUNCTION, [&] { SendRefusal(strID, strCommand); });
    }
    return eAcceptance != EAcceptance::NO_MANAGER;
}

int connect(const char* pszHost, int iPort) {
    LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint connect %s:%d", pszHost ? pszHost : "", iPort & 0xffff);
    return 0;
}

int disconnect() {
    LogPrintC(QXPMAINT_MODULE, 2, "*qxpmaint disconnect");
    return 0;
}

int notify_mgr_to_plugin(int iId, const char* pszText) {
    LogPrintC(QXPMAINT_MODULE, 1, "qxpmaint notify_mgr_to_plugin id[%d] buf[%s]", iId, pszText ? pszText : "");
    return 0;
}

}  // namespace qxpmaint_impl
