#include "plugin/adapter/entry_points.h"

#include <memory>
#include <new>

#include "plugin/adapter/adapter_mgr.h"
#include "plugin/adapter/adapter_support.h"
#include "plugin/adapter/plugin_obj.h"

namespace {

constexpr char CREATE_CLASS_NAME[] = "CqxpmaintCreateObject";
constexpr char DESTROY_CLASS_NAME[] = "CqxpmaintDestroyObject";

}  // namespace

extern "C" {

QXPMAINT_EXPORT int InitializePlugin(void) {  // NOLINT(modernize-redundant-void-arg): as in its declaration
    return 0;
}

// NOLINTNEXTLINE(modernize-redundant-void-arg): as in its declaration
QXPMAINT_EXPORT void UninitializePlugin(void) {
}

QXPMAINT_EXPORT void* CreateObject(const char* pszName) try {
    CqxpmaintMgr* pAdapterMgr = CqxpmaintMgr::Instance();
    if (!pAdapterMgr) {
        ADAPTER_LOG(ADAPTER_LOG_ERROR, "CreateObject", "**qxpadapterplugin %s::CreateObject Error pAdapterMgr is NULL",
                    CREATE_CLASS_NAME);
        return nullptr;
    }
    ADAPTER_LOG(ADAPTER_LOG_TRACE, "CreateObject", "qxpadapterplugin %s::CreateObject Begin pszName[%s]",
                CREATE_CLASS_NAME, TextOrNull(pszName));
    if (!pAdapterMgr->CreateObject(pszName)) {
        ADAPTER_LOG(ADAPTER_LOG_ERROR, "CreateObject", "**qxpadapterplugin %s::CreateObject Error FALSE pszName[%s]",
                    CREATE_CLASS_NAME, TextOrNull(pszName));
        return nullptr;
    }
    auto* pPluginObj = new (std::nothrow)
        PluginObjInterface{CqxpmaintPluginObj::Initialize, CqxpmaintPluginObj::Uninitialize, CqxpmaintPluginObj::Start,
                           CqxpmaintPluginObj::Stop,       CqxpmaintPluginObj::GetStatus,    CqxpmaintPluginObj::GetCtx,
                           CqxpmaintPluginObj::SetCtx,     CqxpmaintPluginObj::Info};
    if (!pPluginObj) {
        ADAPTER_LOG(ADAPTER_LOG_ERROR, "CreateObject",
                    "**qxpadapterplugin %s::CreateObject Error pPluginObj is NULL pszName[%s]", CREATE_CLASS_NAME,
                    pszName);
        return nullptr;
    }
    ADAPTER_LOG(ADAPTER_LOG_TRACE, "CreateObject", "qxpadapterplugin %s::CreateObject End pszName[%s] pPluginObj[%p]",
                CREATE_CLASS_NAME, pszName, static_cast<void*>(pPluginObj));
    return pPluginObj;
} catch (...) {
    StopException(__FUNCTION__);
    return nullptr;
}

QXPMAINT_EXPORT void DestroyObject(const char* pszName, void* pInterface) try {
    CqxpmaintMgr* pAdapterMgr = CqxpmaintMgr::Instance();
    if (!pAdapterMgr) {
        ADAPTER_LOG(ADAPTER_LOG_ERROR, "DestroyObject",
                    "**qxpadapterplugin %s::DestroyObject Error pAdapterMgr is NULL", DESTROY_CLASS_NAME);
        return;
    }
    ADAPTER_LOG(ADAPTER_LOG_TRACE, "DestroyObject",
                "qxpadapterplugin %s::DestroyObject Begin pszName[%s] pInterface[%p]", DESTROY_CLASS_NAME,
                TextOrNull(pszName), pInterface);
    std::unique_ptr<PluginObjInterface> pPluginObj(static_cast<PluginObjInterface*>(pInterface));
    if (pszName) {
        pAdapterMgr->DestroyObject(pszName);
    }
    pPluginObj.reset();
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDelete): the value is printed, nothing is read through it
    ADAPTER_LOG(ADAPTER_LOG_TRACE, "DestroyObject", "qxpadapterplugin %s::DestroyObject End pszName[%s] pInterface[%p]",
                DESTROY_CLASS_NAME, TextOrNull(pszName), pInterface);
} catch (...) {
    StopException(__FUNCTION__);
}
}
