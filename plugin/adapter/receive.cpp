#include "plugin/adapter/receive.h"

#include <algorithm>

#include "plugin/adapter/adapter_support.h"
#include "plugin/adapter/bus_text.h"

namespace {

constexpr char CLASS_NAME[] = "CqxpmaintReceive";

// A handler of the block, read once: the host's thread may null the field at any moment.
template <typename Function>
Function* LoadHandler(Function*& pfnHandler) {
    return std::atomic_ref<Function*>(pfnHandler).load();
}

bool IsFrom(const GUID& stSender, const char* pszComponentID) {
    return IsSameGuid(stSender, ParseGuid(pszComponentID));
}

void Acknowledge(void* pEndPoint, long i64MsgType, void* pReplyCtx) {
    if (!pEndPoint || !pReplyCtx) {
        return;
    }
    constexpr char SUCCESS_TEXT[] = "success";
    static_cast<IXBusMREndPoint4*>(pEndPoint)->Reply(
        0, i64MsgType, reinterpret_cast<const unsigned char*>(SUCCESS_TEXT), sizeof(SUCCESS_TEXT) - 1, pReplyCtx);
}

}  // namespace

CPString CqxpmaintReceive::Message::Body() const {
    return CPString(reinterpret_cast<const char*>(pData), uiDataLength);
}

void CqxpmaintReceive::ReceiveCallback(const GUID& stComponentID, long i64MsgType, const unsigned char* pData,
                                       unsigned int uiDataLength, void* pReplyCtx, void* pEndPoint) try {
    try {
        Dispatch({stComponentID, FormatGuid(stComponentID), i64MsgType, pData, uiDataLength});
    } catch (...) {
        StopException(__FUNCTION__);
    }
    Acknowledge(pEndPoint, i64MsgType, pReplyCtx);
} catch (...) {
    StopException(__FUNCTION__);
}

void CqxpmaintReceive::Dispatch(const Message& stMessage) {
    PluginInitParam* pPluginInit = m_pPluginInit;
    if (!pPluginInit) {
        ADAPTER_LOG(ADAPTER_LOG_ERROR, "ReceiveCallback",
                    "**qxpadapterplugin %s::ReceiveCallback Error m_pPluginInit is NULL stComponentID[%s]", CLASS_NAME,
                    stMessage.strComponentID.c_str());
        return;
    }
    const bool bFromAgent = IsFrom(stMessage.stComponentID, AGENT_CONNECT_COMPONENT_ID);
    if (stMessage.i64MsgType == MSG_TYPE_PLUGIN_DATA && IsFrom(stMessage.stComponentID, SERVER_DATA_COMPONENT_ID)) {
        OnPluginData(*pPluginInit, stMessage);
    } else if (stMessage.i64MsgType == MSG_TYPE_AGENT_CONNECT && bFromAgent) {
        OnAgentConnect(*pPluginInit, stMessage);
    } else if (stMessage.i64MsgType == MSG_TYPE_AGENT_DISCONNECT && bFromAgent) {
        OnAgentDisconnect(*pPluginInit, stMessage);
    } else {
        OnNotification(*pPluginInit, stMessage);
    }
}

void CqxpmaintReceive::OnPluginData(PluginInitParam& stInit, const Message& stMessage) {
    const char* pszComponentID = stMessage.strComponentID.c_str();
    const auto pfnRecv = LoadHandler(stInit.plugin_recv);
    if (!pfnRecv) {
        ADAPTER_LOG(ADAPTER_LOG_ERROR, "ReceiveCallback",
                    "**qxpadapterplugin %s::ReceiveCallback Error plugin_recv is NULL stComponentID[%s]", CLASS_NAME,
                    pszComponentID);
        return;
    }
    const CPString strMsg = stMessage.Body();
    ADAPTER_LOG(ADAPTER_LOG_NOTICE, "ReceiveCallback",
                "qxpadapterplugin %s::ReceiveCallback plugin_recv Begin strMsg[%s] stComponentID[%s]", CLASS_NAME,
                strMsg.c_str(), pszComponentID);
    const int iRet = pfnRecv(strMsg.c_str());
    ADAPTER_LOG(ADAPTER_LOG_NOTICE, "ReceiveCallback",
                "qxpadapterplugin %s::ReceiveCallback plugin_recv End iRet[%d] stComponentID[%s]", CLASS_NAME, iRet,
                pszComponentID);
}

void CqxpmaintReceive::OnAgentConnect(PluginInitParam& stInit, const Message& stMessage) {
    // First of all, so that Start does not ask for what has just been told.
    connect_state_flags |= CONNECT_NOTICE_SEEN;

    const char* pszComponentID = stMessage.strComponentID.c_str();
    const auto pfnConnect = LoadHandler(stInit.plugin_connect);
    if (!pfnConnect) {
        ADAPTER_LOG(ADAPTER_LOG_ERROR, "ReceiveCallback",
                    "**qxpadapterplugin %s::ReceiveCallback Error plugin_connect is NULL stComponentID[%s]", CLASS_NAME,
                    pszComponentID);
        return;
    }
    const CPString strData = stMessage.Body();
    ConnectInfo stInfo;
    // A notice with an address counts whatever its online flag says.
    if (!ParseConnectInfo(strData, stInfo) || stInfo.strServerIp.empty()) {
        ADAPTER_LOG(ADAPTER_LOG_WARN, "ReceiveCallback",
                    "*qxpadapterplugin %s::ReceiveCallback Error plugin_connect wrap_cJSON_Parse stComponentID[%s] "
                    "strData[%s]",
                    CLASS_NAME, pszComponentID, strData.c_str());
        return;
    }
    const char* pszIp = stInfo.strServerIp.c_str();
    ADAPTER_LOG(ADAPTER_LOG_NOTICE, "ReceiveCallback",
                "qxpadapterplugin %s::ReceiveCallback plugin_connect Begin strIp[%s] wPort[%d] stComponentID[%s]",
                CLASS_NAME, pszIp, stInfo.wPort, pszComponentID);
    const int iRet = pfnConnect(pszIp, stInfo.wPort);
    ADAPTER_LOG(ADAPTER_LOG_NOTICE, "ReceiveCallback",
                "qxpadapterplugin %s::ReceiveCallback plugin_connect End iRet[%d] strIp[%s] wPort[%d] "
                "stComponentID[%s]",
                CLASS_NAME, iRet, pszIp, stInfo.wPort, pszComponentID);
}

void CqxpmaintReceive::OnAgentDisconnect(PluginInitParam& stInit, const Message& stMessage) {
    connect_state_flags |= DISCONNECT_NOTICE_SEEN;

    const char* pszComponentID = stMessage.strComponentID.c_str();
    const auto pfnDisconnect = LoadHandler(stInit.plugin_disconnect);
    if (!pfnDisconnect) {
        ADAPTER_LOG(ADAPTER_LOG_ERROR, "ReceiveCallback",
                    "**qxpadapterplugin %s::ReceiveCallback Error plugin_disconnect is NULL stComponentID[%s]",
                    CLASS_NAME, pszComponentID);
        return;
    }
    ADAPTER_LOG(ADAPTER_LOG_NOTICE, "ReceiveCallback",
                "qxpadapterplugin %s::ReceiveCallback plugin_disconnect Begin stComponentID[%s]", CLASS_NAME,
                pszComponentID);
    const int iRet = pfnDisconnect();
    ADAPTER_LOG(ADAPTER_LOG_NOTICE, "ReceiveCallback",
                "qxpadapterplugin %s::ReceiveCallback plugin_disconnect End iRet[%d] stComponentID[%s]", CLASS_NAME,
                iRet, pszComponentID);
}

void CqxpmaintReceive::OnNotification(PluginInitParam& stInit, const Message& stMessage) const {
    const char* pszComponentID = stMessage.strComponentID.c_str();
    const auto pfnNotify = LoadHandler(stInit.notify_mgr_to_plugin);
    if (!pfnNotify) {
        ADAPTER_LOG(ADAPTER_LOG_ERROR, "ReceiveCallback",
                    "**qxpadapterplugin %s::ReceiveCallback Error notify_mgr_to_plugin is NULL stComponentID[%s]",
                    CLASS_NAME, pszComponentID);
        return;
    }
    const auto entry = msg_type_registry.find(stMessage.i64MsgType);
    if (entry == msg_type_registry.end()) {
        ADAPTER_LOG(ADAPTER_LOG_WARN, "ReceiveCallback",
                    "*qxpadapterplugin %s::ReceiveCallback Error not find i64MsgType[%ld] uiDataLength[%u] "
                    "stComponentID[%s]",
                    CLASS_NAME, stMessage.i64MsgType, stMessage.uiDataLength, pszComponentID);
        return;
    }
    const CPString strMsg = stMessage.Body();
    const std::list<GUID>& listSender = entry->second;
    const bool bKnownSender = std::any_of(listSender.begin(), listSender.end(), [&](const GUID& stSender) {
        return IsSameGuid(stSender, stMessage.stComponentID);
    });
    if (!listSender.empty() && !bKnownSender) {
        ADAPTER_LOG(ADAPTER_LOG_WARN, "ReceiveCallback",
                    "*qxpadapterplugin %s::ReceiveCallback Error not find guid i64MsgType[%ld] uiDataLength[%u] "
                    "stComponentID[%s] strMsg[%s]",
                    CLASS_NAME, stMessage.i64MsgType, stMessage.uiDataLength, pszComponentID, strMsg.c_str());
        return;
    }
    const int iMsgType = static_cast<int>(stMessage.i64MsgType);
    ADAPTER_LOG(ADAPTER_LOG_NOTICE, "ReceiveCallback",
                "qxpadapterplugin %s::ReceiveCallback notify_mgr_to_plugin Begin i64MsgType[%ld][%d] "
                "stComponentID[%s] strMsg[%s]",
                CLASS_NAME, stMessage.i64MsgType, iMsgType, pszComponentID, strMsg.c_str());
    pfnNotify(iMsgType, strMsg.c_str());
    ADAPTER_LOG(ADAPTER_LOG_NOTICE, "ReceiveCallback",
                "qxpadapterplugin %s::ReceiveCallback notify_mgr_to_plugin End i64MsgType[%ld][%d] stComponentID[%s]",
                CLASS_NAME, stMessage.i64MsgType, iMsgType, pszComponentID);
}
