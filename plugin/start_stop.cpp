#include <time.h>

#include <cerrno>

#include "maint/maint_lock.h"
#include "maint/maint_mgr.h"
#include "maint/thread_gate.h"
#include "plugin/loader.h"
#include "plugin/plugin_core.h"
#include "plugin/plugin_state.h"
#include "qxhost/log.h"

namespace qxpmaint_impl {

namespace {

constexpr int STOP_POLLS = 200;
constexpr timespec STOP_POLL_PAUSE{0, 300'000'000};

int LoaderState() {
    const CMaintLockGuard lock(g_LoadThreadLock);
    return g_iLoadThreadState;
}

// The state is set before the thread exists, so that a stop right after the start is not lost; and the id is stored
// before the thread can look, since it needs the same lock.
int CreateLoader() {
    CThreadTicket ticket;
    ticket.Take();
    const CMaintLockGuard lock(g_LoadThreadLock);
    g_iLoadThreadState = 1;
    const int iResult = pthread_create(&g_LoadThreadId, nullptr, qxpmaint_loadpolicyfile_thread, nullptr);
    if (iResult == 0)
        ticket.HandOver();
    else
        g_LoadThreadId = 0;
    return iResult;
}

void StopLoader() {
    {
        const CMaintLockGuard lock(g_LoadThreadLock);
        if (g_LoadThreadId == 0)
            return;
    }
    for (int iPoll = 0; iPoll < STOP_POLLS && LoaderState() != 2; ++iPoll)
        nanosleep(&STOP_POLL_PAUSE, nullptr);
    const CMaintLockGuard lock(g_LoadThreadLock);
    if (g_iLoadThreadState != 2) {
        LogPrintC(QXPMAINT_MODULE, 2,
                  "*qxpmaint qxploginmon_stop qxpmaint_loadpolicyfile_thread thread need kill threadid[%lu]",
                  g_LoadThreadId);
        pthread_cancel(g_LoadThreadId);
    }
    g_LoadThreadId = 0;
}

}  // namespace

int qxpmaint_start() {
    LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint qxpmaint_start begin ver[%s][%s] 2024-11-15 19:30", QXPMAINT_VERSION,
              "Release");
    if (CMaintMgr* pMaintMgr = CMaintMgr::Instance())
        pMaintMgr->Start();
    else
        LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint qxpmaint_start pMaintMgr is NULL");
    errno = CreateLoader();
    if (errno != 0)
        LogPrintC(QXPMAINT_MODULE, 3,
                  "**qxpmaint qxploginmon_start pthread_create qxpmaint_loadpolicyfile_thread error[%d]", errno);
    g_bRunning = true;
    LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint qxpmaint_start ok");
    return 0;
}

int qxpmaint_stop() {
    LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint qxpmaint_stop in");
    {
        const CMaintLockGuard lock(g_LoadThreadLock);
        if (g_iLoadThreadState != 2)
            g_iLoadThreadState = 0;
    }
    if (CMaintMgr* pMaintMgr = CMaintMgr::Instance())
        pMaintMgr->Stop();
    else
        LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint qxpmaint_stop pMaintMgr is NULL");
    StopLoader();
    g_bRunning = false;
    LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint qxpmaint_stop ok");
    return 0;
}

bool isrunning() {
    const bool bRunning = g_bRunning;
    LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint isrunning %d", bRunning ? 1 : 0);
    return bRunning;
}

}  // namespace qxpmaint_impl
