#include "plugin/adapter/plugin_obj.h"

#include "plugin/adapter/adapter_mgr.h"
#include "plugin/adapter/adapter_support.h"

namespace {

constexpr char CLASS_NAME[] = "CqxpmaintPluginObj";

// The manager, or null with a log line of the operation.
CqxpmaintMgr* GetManager(const char* pszOperation) {
    CqxpmaintMgr* pAdapterMgr = CqxpmaintMgr::Instance();
    if (!pAdapterMgr) {
        ADAPTER_LOG(ADAPTER_LOG_ERROR, pszOperation, "**qxpadapterplugin %s::%s Error pAdapterMgr is NULL", CLASS_NAME,
                    pszOperation);
    }
    return pAdapterMgr;
}

}  // namespace

int CqxpmaintPluginObj::Initialize(void* pInitParam) try {
    CqxpmaintMgr* pAdapterMgr = GetManager(__FUNCTION__);
    if (!pAdapterMgr) {
        return -1;
    }
    ADAPTER_LOG(ADAPTER_LOG_TRACE, "Initialize", "qxpadapterplugin %s::Initialize Begin pInitParam[%p]", CLASS_NAME,
                pInitParam);
    const int iRet = pAdapterMgr->Initialize(pInitParam);
    ADAPTER_LOG(ADAPTER_LOG_TRACE, "Initialize", "qxpadapterplugin %s::Initialize End iRet[%x] pInitParam[%p]",
                CLASS_NAME, static_cast<unsigned int>(iRet), pInitParam);
    return iRet;
} catch (...) {
    StopException(__FUNCTION__);
    return ADAPTER_E_OUT_OF_MEMORY;
}

void CqxpmaintPluginObj::Uninitialize() try {
    CqxpmaintMgr* pAdapterMgr = GetManager(__FUNCTION__);
    if (!pAdapterMgr) {
        return;
    }
    ADAPTER_LOG(ADAPTER_LOG_TRACE, "Uninitialize", "qxpadapterplugin %s::Uninitialize Begin", CLASS_NAME);
    pAdapterMgr->Uninitialize();
    CqxpmaintMgr::DestroyInstance();
    ADAPTER_LOG(ADAPTER_LOG_TRACE, "Uninitialize", "qxpadapterplugin %s::Uninitialize End", CLASS_NAME);
} catch (...) {
    StopException(__FUNCTION__);
}

int CqxpmaintPluginObj::Start() try {
    CqxpmaintMgr* pAdapterMgr = GetManager(__FUNCTION__);
    if (!pAdapterMgr) {
        return -1;
    }
    ADAPTER_LOG(ADAPTER_LOG_TRACE, "Start", "qxpadapterplugin %s::Start Begin", CLASS_NAME);
    const int iRet = pAdapterMgr->Start();
    ADAPTER_LOG(ADAPTER_LOG_TRACE, "Start", "qxpadapterplugin %s::Start End iRet[%x]", CLASS_NAME,
                static_cast<unsigned int>(iRet));
    return iRet;
} catch (...) {
    StopException(__FUNCTION__);
    return ADAPTER_E_OUT_OF_MEMORY;
}

int CqxpmaintPluginObj::Stop() try {
    CqxpmaintMgr* pAdapterMgr = GetManager(__FUNCTION__);
    if (!pAdapterMgr) {
        return -1;
    }
    ADAPTER_LOG(ADAPTER_LOG_TRACE, "Stop", "qxpadapterplugin %s::Stop Begin", CLASS_NAME);
    const int iRet = pAdapterMgr->Stop();
    ADAPTER_LOG(ADAPTER_LOG_TRACE, "Stop", "qxpadapterplugin %s::Stop End iRet[%x]", CLASS_NAME,
                static_cast<unsigned int>(iRet));
    return iRet;
} catch (...) {
    StopException(__FUNCTION__);
    return ADAPTER_E_OUT_OF_MEMORY;
}

unsigned int CqxpmaintPluginObj::GetStatus() try {
    const CqxpmaintMgr* pAdapterMgr = GetManager(__FUNCTION__);
    return pAdapterMgr ? pAdapterMgr->status.load() : 0;
} catch (...) {
    StopException(__FUNCTION__);
    return 0;
}

void* CqxpmaintPluginObj::GetCtx(void* /*pUnused*/) try {
    const CqxpmaintMgr* pAdapterMgr = GetManager(__FUNCTION__);
    return pAdapterMgr ? pAdapterMgr->m_pCompCtx.load() : nullptr;
} catch (...) {
    StopException(__FUNCTION__);
    return nullptr;
}

void CqxpmaintPluginObj::SetCtx(void* pData) try {
    CqxpmaintMgr* pAdapterMgr = GetManager(__FUNCTION__);
    if (!pAdapterMgr) {
        return;
    }
    ADAPTER_LOG(ADAPTER_LOG_TRACE, "SetCtx", "qxpadapterplugin %s::SetCtx Begin pData[%p]", CLASS_NAME, pData);
    pAdapterMgr->SetCtx(pData);
    ADAPTER_LOG(ADAPTER_LOG_TRACE, "SetCtx", "qxpadapterplugin %s::SetCtx End pData[%p]", CLASS_NAME, pData);
} catch (...) {
    StopException(__FUNCTION__);
}

int CqxpmaintPluginObj::Info(void* pInfo) {
    return pInfo ? 0 : -1;
}
