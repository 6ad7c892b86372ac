#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "plugin/core/plugin_core.h"
#include "plugin/core/plugin_init_param.h"
#include "plugin/platform/qx_log_print.h"
#include "qxhost/log.h"

namespace qxpmaint_impl {

/// The source unit of the records that the plugin core writes through CLogDebug.
inline constexpr char CORE_LOG_SOURCE[] = "qxpmaint_impl";

// The state of the one plugin of the process. Nothing here has a destructor: threads may still read it at process exit.

extern pthread_mutex_t g_InitLock;
extern bool g_bInited;  // guarded by g_InitLock

// Written under g_InitLock, read without it.
extern std::atomic<decltype(PluginInitParam::send_to_mgr)> g_qxpmaint_send_to_mgr;
extern std::atomic<decltype(PluginInitParam::notify_to_mgr)> g_pNotifyToMgr;

// Written by init only, before any thread of the plugin exists.
extern char g_szAgentType[64];
extern char g_szConfPath[256];
extern char g_szPolicyFilePath[512];
extern char g_szPolicyProcessPath[512];
extern char g_szResultFilePath[512];

/// Seconds between scans of the policy-file directory. Written by init; a loader that a stop gave up may read it
/// meanwhile.
extern std::atomic<long> g_lCheckCycle;

/// Number of the last result file; the low 32 bits are in its name.
extern std::atomic<uint64_t> g_u64ResultFileIndex;

extern std::atomic<bool> g_bRunning;

extern pthread_mutex_t g_LoadThreadLock;
extern unsigned long g_LoadThreadId;  // guarded by g_LoadThreadLock; 0: none
extern int g_iLoadThreadState;        // guarded by g_LoadThreadLock: 0 stop requested, 1 running, 2 exited

/// Does a step of an operation that goes on without it. False when the step threw, which a line has said.
template <typename Step>
bool Attempt(const char* pszOperation, const Step& step) {
    return AttemptStep(
        [&](const char* pszWhat) { LogPrintC(QXPMAINT_MODULE, 3, "**qxpmaint %s error[%s]", pszOperation, pszWhat); },
        step);
}

}  // namespace qxpmaint_impl
