#include "plugin/core/plugin_core.h"

#include <ini.h>
#include <strings.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "plugin/core/command.h"
#include "plugin/core/loader.h"
#include "plugin/core/plugin_state.h"
#include "plugin/core/report_sender.h"
#include "plugin/manager/maint_mgr.h"
#include "qxhost/log.h"

namespace qxpmaint_impl {

namespace {

/// The module number of one line of init; the plugin's own is QXPMAINT_MODULE.
constexpr int NO_MANAGER_MODULE = 83;

// Takes the value of an item "key=value" of n characters into a zeroed buffer, cut to its size.
template <size_t uSize>
bool ReadItem(const char* pszItem, size_t n, const char* pszKey, char (&szBuffer)[uSize]) {
    const size_t uKey = strlen(pszKey);
    if (n <= uKey || strncmp(pszItem, pszKey, uKey) != 0) {
        return false;
    }
    memset(szBuffer, 0, uSize);
    memcpy(szBuffer, pszItem + uKey, std::min(n - uKey, uSize - 1));
    return true;
}

const char* OrEmpty(const char* pszText) {
    return pszText ? pszText : "";
}

int CallConnect(const char* pszIp, unsigned short wPort) {
    return connect(pszIp, wPort);
}

void LayOutDirectories() {
    const CPString strClient = CMainTTool::MaintGetCltPath();
    snprintf(g_szPolicyFilePath, sizeof g_szPolicyFilePath, "%s../data/qxpmaint/policyfile", strClient.c_str());
    snprintf(g_szPolicyProcessPath, sizeof g_szPolicyProcessPath, "%s../data/qxpmaint/policyprocess",
             strClient.c_str());
    snprintf(g_szResultFilePath, sizeof g_szResultFilePath, "%s../data/qxpmaint/result", strClient.c_str());
    CMainTTool::RecursiveCreateDir(g_szPolicyFilePath);
    CMainTTool::RecursiveCreateDir(g_szPolicyProcessPath);
    CMainTTool::RecursiveCreateDir(g_szResultFilePath);
}

enum class ERegistration { DONE, DONE_BEFORE, INVALID_PARAMETERS, UNREADABLE_CONFIGURATION };

// The part of init that runs under g_InitLock.
ERegistration RegisterCallbacks(PluginInitParam* pParam) {
    const CMaintLockGuard lock(g_InitLock);
    if (g_bInited) {
        return ERegistration::DONE_BEFORE;
    }
    if (!pParam || !pParam->send_to_mgr || !pParam->notify_to_mgr) {
        return ERegistration::INVALID_PARAMETERS;
    }
    if (!analyze_set_init_kv(pParam->kv)) {
        LogPrintC(QXPMAINT_MODULE, 2, "*qxpmaint qxpmaint_init analyze_set_init_kv error kv[%s]", OrEmpty(pParam->kv));
    }
    if (g_szConfPath[0] && ini_parse(g_szConfPath, qxpmaint_ini_parse_handler, nullptr) != 0) {
        LogPrintC(QXPMAINT_MODULE, 3, "**qxpmaint qxpmaint_init qxpmaint_ini_parse_handler error g_szConfPath[%s]",
                  g_szConfPath);
        return ERegistration::UNREADABLE_CONFIGURATION;
    }
    g_bInited = true;
    g_qxpmaint_send_to_mgr = pParam->send_to_mgr;
    g_pNotifyToMgr = pParam->notify_to_mgr;
    // Bus threads may be reading these fields already.
    std::atomic_ref(pParam->plugin_recv).store(plugin_recv_handler);
    std::atomic_ref(pParam->plugin_connect).store(CallConnect);
    std::atomic_ref(pParam->plugin_disconnect).store(disconnect);
    std::atomic_ref(pParam->notify_mgr_to_plugin).store(notify_mgr_to_plugin);
    return ERegistration::DONE;
}

// False when there was nothing to undo. Without a block the handlers stay in it, which is the adapter's to clear.
bool UndoRegistration(PluginInitParam* pParam) {
    const CMaintLockGuard lock(g_InitLock);
    if (!g_bInited) {
        return false;
    }
    if (pParam) {
        std::atomic_ref(pParam->plugin_recv).store(nullptr);
        std::atomic_ref(pParam->plugin_connect).store(nullptr);
        std::atomic_ref(pParam->plugin_disconnect).store(nullptr);
        std::atomic_ref(pParam->notify_mgr_to_plugin).store(nullptr);
    }
    g_qxpmaint_send_to_mgr = nullptr;
    g_pNotifyToMgr = nullptr;
    g_bInited = false;
    return true;
}

// The part of init after the registration.
void PrepareManager() {
    LayOutDirectories();
    if (CMaintMgr* pMaintMgr = CMaintMgr::Instance()) {
        pMaintMgr->SetReportSender(SendReportDataToServer);
        pMaintMgr->Init();
    } else {
        LogPrintC(NO_MANAGER_MODULE, 5, "qxpmaint init pMaintMgr is NULL");
    }
}

}  // namespace

bool analyze_set_init_kv(const char* pszKv) {
    if (!pszKv || !*pszKv) {
        LogPrintC(QXPMAINT_MODULE, 2, "*qxpmaint param kv is empty");
        return false;
    }
    LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint param pKv=%s", pszKv);
    // An empty item ends the scan.
    const char* pszItem = pszKv;
    for (size_t n = strcspn(pszItem, ":"); n > 0; n = strcspn(pszItem, ":")) {
        if (ReadItem(pszItem, n, "agent_type=", g_szAgentType)) {
            LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint init agent type= %s", g_szAgentType);
        }
        if (ReadItem(pszItem, n, "conf_path=", g_szConfPath)) {
            LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint init conf path= %s", g_szConfPath);
        }
        pszItem += n;
        if (*pszItem == ':') {
            ++pszItem;
        }
    }
    return true;
}

int qxpmaint_ini_parse_handler(void* /*pUser*/, const char* pszSection, const char* pszName, const char* pszValue) {
    LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint qxpmaint_ini_parse_handler conf parse %s:%s:%s", OrEmpty(pszSection),
              OrEmpty(pszName), OrEmpty(pszValue));
    if (!pszSection || !pszName || !pszValue) {
        LogPrintC(QXPMAINT_MODULE, 3,
                  "**qxpmaint qxpmaint_ini_parse_handler point is null section[%p] name[%p] value[%p]",
                  static_cast<const void*>(pszSection), static_cast<const void*>(pszName),
                  static_cast<const void*>(pszValue));
    } else if (strcasecmp(pszSection, "qxpmaint") == 0 && strcasecmp(pszName, "checkcycle") == 0) {
        const long lCheckCycle = strtol(pszValue, nullptr, 10);
        if (lCheckCycle != 0) {
            g_lCheckCycle = lCheckCycle;
        } else {
            LogPrintC(QXPMAINT_MODULE, 2, "*qxpmaint qxpmaint_ini_parse_handler lCheckCycle error");
        }
    }
    LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint qxpmaint_ini_parse_handler g_lCheckCycle[%ld]", g_lCheckCycle.load());
    return 1;
}

int qxpmaint_init(PluginInitParam* pParam) {
    LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint init in");
    switch (RegisterCallbacks(pParam)) {
        case ERegistration::DONE:
            break;
        case ERegistration::DONE_BEFORE:
            LogPrintC(QXPMAINT_MODULE, 2, "*qxpmaint init what??");
            return 0;
        case ERegistration::INVALID_PARAMETERS:
            LogPrintC(QXPMAINT_MODULE, 3, "**qxpmaint init params invalid");
            return -1;
        case ERegistration::UNREADABLE_CONFIGURATION:
            return -2;
    }
    try {
        PrepareManager();
    } catch (...) {
        CMaintMgr::Close();
        UndoRegistration(pParam);
        throw;
    }
    LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint init ok");
    return 0;
}

int uninit() {
    LogPrintC(QXPMAINT_MODULE, 0, "qxpmaint uninit in");
    RequestLoaderEnd();  // of a plugin that was not stopped: Close waits for it
    try {
        if (CMaintMgr* pMaintMgr = CMaintMgr::Present()) {
            pMaintMgr->UnInit();
        } else {
            LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint uninit pMaintMgr is NULL");
        }
    } catch (...) {
        CMaintMgr::Close();
        UndoRegistration(nullptr);
        throw;
    }
    CMaintMgr::Close();
    if (UndoRegistration(nullptr)) {
        LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint uninit ok");
    } else {
        LogPrintC(QXPMAINT_MODULE, 2, "*qxpmaint uninit what??");
    }
    return 0;
}

}  // namespace qxpmaint_impl
