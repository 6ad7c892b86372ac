#include "plugin/adapter/entry_points.h"

#include <cstring>
#include <memory>
#include <new>

#include "plugin/adapter/adapter_mgr.h"
#include "plugin/adapter/adapter_support.h"
#include "plugin/adapter/plugin_fun_table.h"
#include "plugin/adapter/plugin_obj.h"
#include "plugin/core/plugin_core.h"
#include "qxhost/log.h"

#define QXPMAINT_EXPORT __attribute__((visibility("default")))

namespace {

constexpr char CREATE_CLASS_NAME[] = "CqxpmaintCreateObject";
constexpr char DESTROY_CLASS_NAME[] = "CqxpmaintDestroyObject";

PluginFunTable g_stPluginFunTable;

bool IsPluginClsid(const char* pszClsid) {
    return strcmp(pszClsid, PLUGIN_CLSID) == 0;
}

const char* get_version() {
    return QXPMAINT_VERSION;
}

// The slots: nothing that the plugin core throws leaves them.

int init(PluginInitParam* pParam) try { return qxpmaint_impl::qxpmaint_init(pParam); } catch (...) {
    StopException(__FUNCTION__);
    return -1;
}

int uninit() try { return qxpmaint_impl::uninit(); } catch (...) {
    StopException(__FUNCTION__);
    return -1;
}

int start() try { return qxpmaint_impl::qxpmaint_start(); } catch (...) {
    StopException(__FUNCTION__);
    return -1;
}

int stop() try { return qxpmaint_impl::qxpmaint_stop(); } catch (...) {
    StopException(__FUNCTION__);
    return -1;
}

bool isrunning() try { return qxpmaint_impl::isrunning(); } catch (...) {
    StopException(__FUNCTION__);
    return false;
}

// A function of its own for every reserved slot.
template <int Slot>
int reserved() {
    return 0;
}

void FillPluginFunTable(PluginFunTable& stTable) {
    stTable.get_version = get_version;
    stTable.reserved1 = reserved<1>;
    stTable.reserved2 = reserved<2>;
    stTable.init = init;
    stTable.uninit = uninit;
    stTable.start = start;
    stTable.stop = stop;
    stTable.isrunning = isrunning;
    stTable.reserved8 = reserved<8>;
    stTable.reserved9 = reserved<9>;
    stTable.reserved10 = reserved<10>;
    stTable.reserved11 = reserved<11>;
    stTable.reserved12 = reserved<12>;
    stTable.reserved13 = reserved<13>;
    stTable.reserved14 = reserved<14>;
}

}  // namespace

extern "C" {

QXPMAINT_EXPORT void* create_plugin(const char* clsid) try {
    LogPrintC(QXPMAINT_MODULE, 0, "qxpmaint create_plugin in");
    if (!clsid) {
        LogPrintC(QXPMAINT_MODULE, 3, "**qxpmaint create_plugin clsid is NULL");
        return nullptr;
    }
    if (!IsPluginClsid(clsid)) {
        LogPrintC(QXPMAINT_MODULE, 3, "**qxpmaint create_plugin clsid[%s] is not support", clsid);
        return nullptr;
    }
    FillPluginFunTable(g_stPluginFunTable);
    LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint create_plugin clsid[%s] ok", clsid);
    return &g_stPluginFunTable;
} catch (...) {
    StopException(__FUNCTION__);
    return nullptr;
}

QXPMAINT_EXPORT int destroy_plugin(const char* clsid) try {
    LogPrintC(QXPMAINT_MODULE, 0, "qxpmaint destroy_plugin in");
    if (!clsid) {
        LogPrintC(QXPMAINT_MODULE, 3, "**qxpmaint destroy_plugin clsid is NULL");
        return -1;
    }
    if (!IsPluginClsid(clsid)) {
        LogPrintC(QXPMAINT_MODULE, 3, "**qxpmaint destroy_plugin clsid[%s] is not support", clsid);
        return -1;
    }
    // A plugin that does not run is left as it is, initialised or not.
    if (isrunning()) {
        stop();
        uninit();
    }
    LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint destroy_plugin clsid[%s] ok", clsid);
    return 0;
} catch (...) {
    StopException(__FUNCTION__);
    return -1;
}

QXPMAINT_EXPORT int runonce_plugin(char* arg) try {
    return qxpmaint_impl::RunOnceScriptTask(arg) ? 0 : -1;
} catch (...) {
    StopException(__FUNCTION__);
    return -1;
}

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
