#include "plugin/adapter/plugin_fun_table.h"

#include <cstring>

#include "plugin/adapter/adapter_support.h"
#include "plugin/adapter/entry_points.h"
#include "plugin/core/plugin_core.h"
#include "qxhost/log.h"

namespace {

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
}
