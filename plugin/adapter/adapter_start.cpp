#include <pthread.h>

#include <chrono>

#include "plugin/adapter/adapter_mgr.h"
#include "plugin/adapter/adapter_support.h"
#include "plugin/adapter/bus_text.h"

namespace {

constexpr char CLASS_NAME[] = "CqxpmaintMgr";

constexpr long MSG_TYPE_GET_CONNECT = 10012;
constexpr unsigned int CONNECT_QUERY_TIME_OUT_MS = 5000;

unsigned long MonotonicMs() {
    const auto sinceBoot = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<unsigned long>(std::chrono::duration_cast<std::chrono::milliseconds>(sinceBoot).count());
}

// An answer of SendRequest. The bytes belong to the endpoint and go back to it.
class CReply {
public:
    explicit CReply(IXBusMREndPoint4* pEndPoint) : m_pEndPoint(pEndPoint) {}
    ~CReply() {
        if (!m_pEndPoint || !pBytes) {
            return;
        }
        // Neither an exception of the host nor the unwinding of a cancelled thread may leave a destructor.
        int iCancelState = 0;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &iCancelState);
        try {
            m_pEndPoint->FreeReply(pBytes);
        } catch (...) {
            StopException("FreeReply");
        }
        pthread_setcancelstate(iCancelState, nullptr);
    }
    CReply(const CReply&) = delete;
    CReply& operator=(const CReply&) = delete;

    unsigned int uiStatus = static_cast<unsigned int>(ADAPTER_E_NOT_READY);
    unsigned char* pBytes = nullptr;
    unsigned int uiLength = 0;

private:
    IXBusMREndPoint4* m_pEndPoint;
};

// The agent's status on success, else what the request failed with.
int RequestConnectInfo(IXBusMREndPoint4* pEndPoint, CReply& reply) {
    if (!pEndPoint) {
        return ADAPTER_E_INVALID_ARG;
    }
    const unsigned char empty[1] = {};
    const int iRet = pEndPoint->SendRequest(ParseGuid(AGENT_CONNECT_COMPONENT_ID), MSG_TYPE_GET_CONNECT, empty, 0,
                                            &reply.uiStatus, &reply.pBytes, &reply.uiLength, CONNECT_QUERY_TIME_OUT_MS);
    return iRet == 0 ? static_cast<int>(reply.uiStatus) : iRet;
}

}  // namespace

bool CqxpmaintMgr::GetServerConnectInfo(CPString& strFlag, CPString& strServerIp, unsigned short& wPort) {
    IXBusMREndPoint4* pEndPoint = m_pCompCtx;
    CReply reply(pEndPoint);
    const unsigned long ulStart = MonotonicMs();
    const int iRet = RequestConnectInfo(pEndPoint, reply);
    const unsigned long ulTick = MonotonicMs() - ulStart;
    if (iRet != 0) {
        ADAPTER_LOG(ADAPTER_LOG_WARN, "GetServerConnectInfo",
                    "*qxpadapterplugin %s::GetServerConnectInfo Error AgentGetConnect iRet[%x] Tick[%lu]", CLASS_NAME,
                    static_cast<unsigned int>(iRet), ulTick);
        return false;
    }
    if (reply.uiLength == 0 || !reply.pBytes) {
        ADAPTER_LOG(ADAPTER_LOG_NOTICE, "GetServerConnectInfo",
                    "qxpadapterplugin %s::GetServerConnectInfo retrun empty uiLength[%u] pReply[%p] Tick[%lu]",
                    CLASS_NAME, reply.uiLength, static_cast<void*>(reply.pBytes), ulTick);
        return false;
    }
    ConnectInfo stInfo;
    const bool bStatus = ParseConnectInfo({reinterpret_cast<const char*>(reply.pBytes), reply.uiLength}, stInfo);
    strFlag = stInfo.strFlag;
    strServerIp = stInfo.strServerIp;
    wPort = stInfo.wPort;
    ADAPTER_LOG(ADAPTER_LOG_NOTICE, "GetServerConnectInfo",
                "qxpadapterplugin %s::GetServerConnectInfo bStatus[%d] strFlag[%s] strServerIp[%s] wPort[%d] Tick[%lu]",
                CLASS_NAME, bStatus, strFlag.c_str(), strServerIp.c_str(), wPort, ulTick);
    return bStatus;
}

void CqxpmaintMgr::RegisterOnBus(IXBusMREndPoint4& endPoint) {
    if (const int iRet = endPoint.Initialize(ParseGuid(plugin_name.c_str())); iRet != 0) {
        ADAPTER_LOG(ADAPTER_LOG_WARN, "Start", "*qxpadapterplugin %s::Start Warn Initialize iRet[%x] guid[%s]",
                    CLASS_NAME, static_cast<unsigned int>(iRet), plugin_name.c_str());
        return;
    }
    // The endpoint comes back with each message as the context, and answers it.
    endPoint.RegisterReceive(MSG_TYPE_PLUGIN_DATA, &m_stReceive, &endPoint);
    endPoint.RegisterReceive(MSG_TYPE_AGENT_CONNECT, &m_stReceive, &endPoint);
    endPoint.RegisterReceive(MSG_TYPE_AGENT_DISCONNECT, &m_stReceive, &endPoint);
    for (const auto& [i64MsgType, listSender] : m_stReceive.msg_type_registry) {
        endPoint.RegisterReceive(i64MsgType, &m_stReceive, &endPoint);
    }
}

void CqxpmaintMgr::ConnectIfOnline() {
    CPString strFlag;
    CPString strServerIp;
    unsigned short wPort = 0;
    if (!GetServerConnectInfo(strFlag, strServerIp, wPort)) {
        return;
    }
    const auto pfnConnect = std::atomic_ref(m_stPluginInit.plugin_connect).load();
    // A notice may have come in while the query was under way; it is newer than the answer.
    const uint32_t dwFlag = m_stReceive.connect_state_flags;
    if (dwFlag == 0 && !strServerIp.empty() && strFlag == "1" && pfnConnect) {
        pfnConnect(strServerIp.c_str(), wPort);
        ADAPTER_LOG(ADAPTER_LOG_NOTICE, "Start", "qxpadapterplugin %s::Start plugin_connect strServerIp[%s] wPort[%d]",
                    CLASS_NAME, strServerIp.c_str(), wPort);
        return;
    }
    ADAPTER_LOG(ADAPTER_LOG_NOTICE, "Start",
                "qxpadapterplugin %s::Start not call connect strServerIp[%s] wPort[%d] dwFlag[%d] strFlag[%s] "
                "plugin_connect[%p]",
                CLASS_NAME, strServerIp.c_str(), wPort, static_cast<int>(dwFlag), strFlag.c_str(),
                reinterpret_cast<void*>(pfnConnect));
}

int CqxpmaintMgr::Start() {
    if (!m_pPluginFun) {
        ADAPTER_LOG(ADAPTER_LOG_ERROR, "Start", "**qxpadapterplugin %s::Start Error m_pPluginFun is NULL", CLASS_NAME);
        return ADAPTER_E_NOT_READY;
    }
    IXBusMREndPoint4* pEndPoint = m_pCompCtx;
    if (!pEndPoint) {
        ADAPTER_LOG(ADAPTER_LOG_ERROR, "Start", "**qxpadapterplugin %s::Start Error m_pCompCtx is NULL", CLASS_NAME);
        return ADAPTER_E_NOT_READY;
    }
    ADAPTER_LOG(ADAPTER_LOG_TRACE, "Start", "qxpadapterplugin %s::Start Begin", CLASS_NAME);
    // An assignment writes even when there is nothing to copy.
    if (!msg_type_registry.empty() || !m_stReceive.msg_type_registry.empty()) {
        m_stReceive.msg_type_registry = msg_type_registry;
    }
    RegisterOnBus(*pEndPoint);
    if (m_stReceive.connect_state_flags == 0) {
        ConnectIfOnline();
    }
    const int iRet = m_pPluginFun->start();
    status = STATUS_STARTED;
    ADAPTER_LOG(ADAPTER_LOG_TRACE, "Start", "qxpadapterplugin %s::Start End iRet[%x]", CLASS_NAME,
                static_cast<unsigned int>(iRet));
    return iRet;
}
