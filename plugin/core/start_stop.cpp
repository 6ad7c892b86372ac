#include <cerrno>
#include <chrono>
#include <memory>
#include <new>

#include "plugin/core/loader.h"
#include "plugin/core/plugin_core.h"
#include "plugin/core/plugin_state.h"
#include "plugin/manager/maint_mgr.h"
#include "plugin/manager/thread_gate.h"
#include "plugin/platform/test_point.h"
#include "qxhost/log.h"

namespace qxpmaint_impl {

namespace {

constexpr int STOP_POLLS = 200;
constexpr int STOP_POLL_MS = 300;

int LoaderState() {
    const CMaintLockGuard lock(g_LoadThreadLock);
    return g_iLoadThreadState;
}

// Id and state are stored before the thread can look, since it needs the same lock; so a stop right after the start is
// not lost. A thread that cannot be created changes nothing: a loader of an earlier start goes on.
int CreateLoader(std::shared_ptr<CThreadGate> spGate) try {
    // Without a manager there is nothing that the thread could use, and nobody who would wait for it.
    if (!spGate) {
        spGate = std::make_shared<CThreadGate>();
    }
    auto spTicket = std::make_unique<CThreadTicket>(CThreadTicket::ForNewThread(std::move(spGate)));
    const CMaintLockGuard lock(g_LoadThreadLock);
    pthread_t threadId{};
    const int iResult = pthread_create(&threadId, nullptr, qxpmaint_loadpolicyfile_thread, spTicket.get());
    if (iResult == 0) {
        g_LoadThreadId = threadId;
        g_iLoadThreadState = 1;
        static_cast<void>(spTicket.release());  // the thread's
    }
    return iResult;
} catch (const std::bad_alloc&) {
    return ENOMEM;
}

void StopLoader() {
    {
        const CMaintLockGuard lock(g_LoadThreadLock);
        if (g_LoadThreadId == 0) {
            return;
        }
    }
    for (int iPoll = 0; iPoll < STOP_POLLS && LoaderState() != 2; ++iPoll) {
        MaintPause(std::chrono::milliseconds(TestableMilliseconds("STOP_POLL", STOP_POLL_MS)));
    }
    unsigned long ulCancelled = 0;
    {
        // Under the lock the thread cannot leave, so its id is still its own.
        const CMaintLockGuard lock(g_LoadThreadLock);
        if (g_iLoadThreadState != 2) {
            ulCancelled = g_LoadThreadId;
            CancelThread(g_LoadThreadId);
        }
        g_LoadThreadId = 0;
    }
    if (ulCancelled != 0) {
        LogPrintC(QXPMAINT_MODULE, 2,
                  "*qxpmaint qxploginmon_stop qxpmaint_loadpolicyfile_thread thread need kill threadid[%lu]",
                  ulCancelled);
    }
}

void StopManager() {
    if (const CMaintMgrUse maintMgr = CMaintMgr::Use()) {
        maintMgr->Stop();
    } else {
        LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint qxpmaint_stop pMaintMgr is NULL");
    }
}

void EndLoader() {
    StopLoader();
    g_bRunning = false;
}

}  // namespace

int qxpmaint_start() {
    LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint qxpmaint_start begin ver[%s][%s] 2024-11-15 19:30", QXPMAINT_VERSION,
              "Release");
    const CMaintMgrUse maintMgr = CMaintMgr::Use();
    if (maintMgr) {
        maintMgr->Start();
    } else {
        LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint qxpmaint_start pMaintMgr is NULL");
    }
    if (const int iError = CreateLoader(maintMgr ? maintMgr->Gate() : nullptr); iError != 0) {
        errno = iError;  // a host may read it as well
        LogPrintC(QXPMAINT_MODULE, 3,
                  "**qxpmaint qxploginmon_start pthread_create qxpmaint_loadpolicyfile_thread error[%d]", errno);
    }
    g_bRunning = true;
    LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint qxpmaint_start ok");
    return 0;
}

int qxpmaint_stop() {
    LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint qxpmaint_stop in");
    // The loader is told first and waited for last: it may be inside a scan while the manager stops, and both take
    // time.
    RequestLoaderEnd();
    try {
        StopManager();
    } catch (...) {
        EndLoader();
        throw;
    }
    EndLoader();
    LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint qxpmaint_stop ok");
    return 0;
}

bool isrunning() {
    const bool bRunning = g_bRunning;
    LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint isrunning %d", bRunning ? 1 : 0);
    return bRunning;
}

}  // namespace qxpmaint_impl
