#include "plugin/adapter/adapter_mgr.h"

#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "plugin/adapter/adapter_support.h"
#include "plugin/adapter/entry_points.h"
#include "qxhost/init_block.h"

namespace {

constexpr char CLASS_NAME[] = "CqxpmaintMgr";
constexpr char PLUGIN_NAME[] = "qxpmaint";

// A late message may meet the block while it is being emptied; the handlers are what bus threads read.
void ClearInitParam(PluginInitParam& stInit) {
    stInit.notify_to_mgr = nullptr;
    stInit.send_to_mgr = nullptr;
    std::atomic_ref(stInit.plugin_recv).store(nullptr);
    std::atomic_ref(stInit.plugin_connect).store(nullptr);
    std::atomic_ref(stInit.plugin_disconnect).store(nullptr);
    std::atomic_ref(stInit.notify_mgr_to_plugin).store(nullptr);
    stInit.kv = nullptr;
}

// The init string lives for the call of init only, whatever comes of that.
class CKvLifetime {
public:
    CKvLifetime(PluginInitParam& stInit, const char* pszKv) : m_stInit(stInit) { m_stInit.kv = pszKv; }
    ~CKvLifetime() { m_stInit.kv = nullptr; }
    CKvLifetime(const CKvLifetime&) = delete;
    CKvLifetime& operator=(const CKvLifetime&) = delete;

private:
    PluginInitParam& m_stInit;
};

}  // namespace

std::atomic<CqxpmaintMgr*> CqxpmaintMgr::m_pThis{nullptr};

CqxpmaintMgr* CqxpmaintMgr::Instance() {
    CqxpmaintMgr* pThis = m_pThis;
    if (pThis) {
        return pThis;
    }
    // A plugin thread that sends may come here beside the host's thread: the first one to publish its manager wins.
    std::unique_ptr<CqxpmaintMgr> pNew(new (std::nothrow) CqxpmaintMgr);
    if (!pNew || !m_pThis.compare_exchange_strong(pThis, pNew.get())) {
        return pThis;
    }
    return pNew.release();
}

void CqxpmaintMgr::DestroyInstance() {
    delete m_pThis.exchange(nullptr);
}

bool CqxpmaintMgr::CreateObject(const char* pszName) {
    if (!pszName) {
        ADAPTER_LOG(ADAPTER_LOG_ERROR, "CreateObject", "**qxpadapterplugin %s::CreateObject Error pszName is NULL",
                    CLASS_NAME);
        return false;
    }
    auto* pPluginFun = static_cast<PluginFunTable*>(create_plugin(pszName));
    if (!pPluginFun) {
        ADAPTER_LOG(ADAPTER_LOG_ERROR, "CreateObject",
                    "**qxpadapterplugin %s::CreateObject Error create_plugin pPluginFun is NULL", CLASS_NAME);
        return false;
    }
    CPString strName(pszName);  // may throw; nothing after it does
    m_pPluginFun = pPluginFun;
    plugin_name = std::move(strName);
    ADAPTER_LOG(ADAPTER_LOG_NOTICE, "CreateObject", "qxpadapterplugin %s::CreateObject OK pszName[%s] pPluginFun[%p]",
                CLASS_NAME, pszName, static_cast<void*>(pPluginFun));
    return true;
}

void CqxpmaintMgr::DestroyObject(const char* pszName) {
    if (!pszName) {
        ADAPTER_LOG(ADAPTER_LOG_ERROR, "DestroyObject", "**qxpadapterplugin %s::DestroyObject Error pszName is NULL",
                    CLASS_NAME);
        return;
    }
    if (const int iRet = destroy_plugin(pszName); iRet != 0) {
        ADAPTER_LOG(ADAPTER_LOG_WARN, "DestroyObject",
                    "*qxpadapterplugin %s::DestroyObject Error destroy_plugin iRet[%x]", CLASS_NAME,
                    static_cast<unsigned int>(iRet));
        return;
    }
    m_pPluginFun = nullptr;
    plugin_name.clear();
    ADAPTER_LOG(ADAPTER_LOG_NOTICE, "DestroyObject", "qxpadapterplugin %s::DestroyObject OK pszName[%s]", CLASS_NAME,
                pszName);
}

void CqxpmaintMgr::SetCtx(void* pData) {
    if (!pData) {
        ADAPTER_LOG(ADAPTER_LOG_ERROR, "SetCtx", "**qxpadapterplugin %s::SetCtx Error pData is NULL", CLASS_NAME);
        return;
    }
    m_pCompCtx = static_cast<IXBusMREndPoint4*>(pData);
    ADAPTER_LOG(ADAPTER_LOG_TRACE, "SetCtx", "qxpadapterplugin %s::SetCtx OK m_pCompCtx[%p]", CLASS_NAME, pData);
}

int CqxpmaintMgr::Initialize(void* pInitParam) {
    if (!m_pPluginFun) {
        ADAPTER_LOG(ADAPTER_LOG_ERROR, "Initialize", "**qxpadapterplugin %s::Initialize Error m_pPluginFun is NULL",
                    CLASS_NAME);
        return ADAPTER_E_NO_FUN_TABLE;
    }
    if (!pInitParam) {
        ADAPTER_LOG(ADAPTER_LOG_ERROR, "Initialize", "**qxpadapterplugin %s::Initialize Error pPluginInitParam is NULL",
                    CLASS_NAME);
        return ADAPTER_E_INVALID_ARG;
    }
    m_stPluginInit.notify_to_mgr = AdapterNotifyToMgr;
    m_stPluginInit.send_to_mgr = AdapterSendToMgr;
    CPString strDefault;
    const char* pszKv = static_cast<const QxInitBlock*>(pInitParam)->pszInitParam;
    if (!pszKv || !*pszKv) {
        strDefault.Format("agent_type=KSTL:conf_path=../etc/plugins/%s/%s.conf", PLUGIN_NAME, PLUGIN_NAME);
        pszKv = strDefault.c_str();
    }
    status = STATUS_INITIALIZED;
    ADAPTER_LOG(ADAPTER_LOG_TRACE, "Initialize", "qxpadapterplugin %s::Initialize Begin", CLASS_NAME);
    m_stReceive.m_pPluginInit = &m_stPluginInit;
    const CKvLifetime kvLifetime(m_stPluginInit, pszKv);
    const int iRet = m_pPluginFun->init(&m_stPluginInit);
    ADAPTER_LOG(ADAPTER_LOG_TRACE, "Initialize", "qxpadapterplugin %s::Initialize End iRet[%x]", CLASS_NAME,
                static_cast<unsigned int>(iRet));
    return iRet;
}

int CqxpmaintMgr::Stop() {
    if (!m_pPluginFun) {
        ADAPTER_LOG(ADAPTER_LOG_ERROR, "Stop", "**qxpadapterplugin %s::Stop Error m_pPluginFun is NULL", CLASS_NAME);
        return ADAPTER_E_NOT_READY;
    }
    IXBusMREndPoint4* pEndPoint = m_pCompCtx;
    if (!pEndPoint) {
        ADAPTER_LOG(ADAPTER_LOG_ERROR, "Stop", "**qxpadapterplugin %s::Stop Error m_pCompCtx is NULL", CLASS_NAME);
        return ADAPTER_E_NOT_READY;
    }
    ADAPTER_LOG(ADAPTER_LOG_TRACE, "Stop", "qxpadapterplugin %s::Stop Begin", CLASS_NAME);
    pEndPoint->UnregisterReceive(MSG_TYPE_PLUGIN_DATA);
    pEndPoint->UnregisterReceive(MSG_TYPE_AGENT_CONNECT);
    pEndPoint->UnregisterReceive(MSG_TYPE_AGENT_DISCONNECT);
    for (const auto& [i64MsgType, listSender] : msg_type_registry) {
        pEndPoint->UnregisterReceive(i64MsgType);
    }
    m_stReceive.msg_type_registry.clear();
    const int iRet = m_pPluginFun->stop();
    status = STATUS_STOPPED;
    pEndPoint->Uninitialize();
    ADAPTER_LOG(ADAPTER_LOG_TRACE, "Stop", "qxpadapterplugin %s::Stop End iRet[%x]", CLASS_NAME,
                static_cast<unsigned int>(iRet));
    return iRet;
}

void CqxpmaintMgr::Uninitialize() {
    if (!m_pPluginFun) {
        ADAPTER_LOG(ADAPTER_LOG_ERROR, "Uninitialize", "**qxpadapterplugin %s::Uninitialize Error m_pPluginFun is NULL",
                    CLASS_NAME);
        return;
    }
    status = STATUS_UNINITIALIZED;
    ADAPTER_LOG(ADAPTER_LOG_TRACE, "Uninitialize", "qxpadapterplugin %s::Uninitialize Begin", CLASS_NAME);
    m_pPluginFun->uninit();
    ClearInitParam(m_stPluginInit);
    ADAPTER_LOG(ADAPTER_LOG_TRACE, "Uninitialize", "qxpadapterplugin %s::Uninitialize End", CLASS_NAME);
}

int CqxpmaintMgr::AdapterSendToMgr(int json_data_type, const char* /*name1*/, const char* /*name2*/, int value4,
                                   const unsigned char* data, unsigned int len) try {
    if (!data || len == 0 || !*data) {
        ADAPTER_LOG(ADAPTER_LOG_WARN, "AdapterSendToMgr",
                    "*qxpadapterplugin %s::AdapterSendToMgr Error data[%p] data_len[%d]", CLASS_NAME,
                    static_cast<const void*>(data), static_cast<int>(len));
        return -1;
    }
    const CqxpmaintMgr* pAdapterMgr = Instance();
    if (!pAdapterMgr) {
        ADAPTER_LOG(ADAPTER_LOG_WARN, "AdapterSendToMgr",
                    "*qxpadapterplugin %s::AdapterSendToMgr Error pAdapterMgr is NULL", CLASS_NAME);
        return -1;
    }
    IXBusMREndPoint4* pEndPoint = pAdapterMgr->m_pCompCtx;
    if (!IsJsonDataType(json_data_type)) {
        ADAPTER_LOG(ADAPTER_LOG_WARN, "AdapterSendToMgr",
                    "*qxpadapterplugin %s::AdapterSendToMgr Error json_data_type[%d]", CLASS_NAME, json_data_type);
        return -1;
    }
    if (!pEndPoint) {
        return ADAPTER_E_INVALID_ARG;
    }
    // Straight from the caller's bytes: a report can be over a hundred MiB.
    const auto* pszJson = reinterpret_cast<const char*>(data);
    return SendEnvelope(*pEndPoint, json_data_type, "", "", value4, 1, {pszJson, strnlen(pszJson, len)});
} catch (...) {
    StopException(__FUNCTION__);
    return -1;
}

void CqxpmaintMgr::AdapterNotifyToMgr(int, const unsigned char*) {
}
