#include <sys/prctl.h>
#include <ctime>

#include <exception>
#include <map>

#include "maint/maint_lock.h"
#include "maint/maint_mgr.h"
#include "maint/thread_gate.h"
#include "tool/qx_log_print.h"

namespace {

constexpr long WORK_WAIT_MS = 5000;
/// What the host's wait returns when the time is over.
constexpr unsigned int WAIT_TIMED_OUT = 258;
constexpr int STOP_POLLS = 200;
constexpr timespec STOP_POLL_PAUSE{0, 300'000'000};

const char* DisposeLabel(unsigned int dwDisposeType) {
    switch (dwDisposeType) {
        case MT_STOPPLUGIN:
            return "MT_STOPPLUGIN";
        case MT_RUNCOMPLETE:
            return "MT_RUNCOMPLETE";
        case MT_RUNTIMEOUT:
            return "MT_RUNTIMEOUT";
        default:
            return "MT_ERROR";
    }
}

// 0 while the run has not started, or started after the pass took its tick: such a run would seem 49 days old.
unsigned long ElapsedTicks(const _RunScriptData& run, unsigned long ulNow) {
    if (run.u64StartTick == 0 || run.u64StartTick > ulNow)
        return 0;
    return CMainTTool::GetDiffCount(run.u64StartTick, ulNow);
}

bool IsSelected(const _RunScriptData& run, unsigned int dwDisposeType, unsigned long ulNow) {
    if (dwDisposeType == MT_RUNCOMPLETE)
        return run.dwRunState == RUN_FINISHED;
    if (dwDisposeType == MT_RUNTIMEOUT)
        return run.dwTimeOut != 0 && ElapsedTicks(run, ulNow) >= static_cast<uint32_t>(run.dwTimeOut * 1000U) &&
               run.dwRunState != RUN_CREATED;
    return true;
}

// The copy takes the strings over, the output above all, and leaves the numbers and handles for CleanRunData.
_RunScriptData TakeForReport(_RunScriptData& run) {
    const std::shared_ptr<CRunControl> spControl = std::move(run.spControl);
    _RunScriptData copy = std::move(run);
    run.spControl = spControl;  // NOLINT(bugprone-use-after-move): the control block stays with the record
    return copy;
}

}  // namespace

int CMaintMgr::DisposeScriptList(unsigned int dwDisposeType) {
    const unsigned long ulNow = CMainTTool::MaintGetTickCount();
    const unsigned int dwCount = GetPRunScriptListSize();
    std::list<_RunScriptData> listDisposed;
    if (dwDisposeType != MT_ERROR && !(dwDisposeType == MT_RUNTIMEOUT && dwCount <= MaxRunThreadCount)) {
        const CMaintLockGuard lock(m_csRunScriptList);
        for (auto it = m_PRunScriptList.begin(); it != m_PRunScriptList.end();) {
            _RunScriptData* pRunData = *it;
            if (pRunData && !IsSelected(*pRunData, dwDisposeType, ulNow)) {
                ++it;
                continue;
            }
            if (pRunData) {
                listDisposed.emplace_back();  // first, for nothing is taken from the record if memory is short
                listDisposed.back() = TakeForReport(*pRunData);
                CleanRunData(pRunData, dwDisposeType != MT_RUNCOMPLETE ? 1 : 0);
            }
            it = m_PRunScriptList.erase(it);
        }
    }
    QXLogPrint(6, MAINT_LOG_SOURCE, __FUNCTION__, __LINE__,
               "qxpmaint CMaintMgr::DisposeScriptList PRunScriptList[%u] dwDisposeType[%u] strDisposeType[%s]", dwCount,
               dwDisposeType, DisposeLabel(dwDisposeType));

    const CPString strEndTime = GetStrTime(0, 1);
    std::map<CPString, std::list<_RunScriptData>> mapReport;
    while (!listDisposed.empty()) {
        _RunScriptData& run = listDisposed.front();
        const unsigned long uDiffTick = ElapsedTicks(run, ulNow);
        if (dwDisposeType == MT_RUNCOMPLETE) {
            run.u64RunningTime = uDiffTick;
            run.strEndTime = strEndTime;
        }
        QXLogPrint(6, MAINT_LOG_SOURCE, __FUNCTION__, __LINE__,
                   "qxpmaint CMaintMgr::DisposeScriptList u64ThreadId[%llu] dwStartTime[%u] uDiffTick[%lu] "
                   "strScriptId[%s] strScriptPath[%s]",
                   static_cast<unsigned long long>(run.u64ThreadId), run.dwStartTime, uDiffTick,
                   run.strScriptId.c_str(), run.strScriptPath.c_str());
        QXLogPrint(6, MAINT_LOG_SOURCE, __FUNCTION__, __LINE__,
                   "qxpmaint CMaintMgr::DisposeScriptList strRunOutData[%s]", run.strRunOutData.c_str());
        ReadLogFile(run.strLogPath, run.strRunOutData);
        CMainTTool::MaintDeleteFile(run.strScriptPath.c_str());
        CMainTTool::MaintDeleteFile(run.strLogPath.c_str());
        if (dwDisposeType == MT_RUNCOMPLETE || dwDisposeType == MT_RUNTIMEOUT) {
            std::list<_RunScriptData>& listReport = mapReport[run.strID];
            listReport.splice(listReport.end(), listDisposed, listDisposed.begin());
        } else {
            listDisposed.pop_front();
        }
    }
    for (auto it = mapReport.begin(); it != mapReport.end(); it = mapReport.erase(it))
        SendResultToServer(it->first, std::move(it->second));
    return dwDisposeType == MT_ERROR ? 0 : 1;
}

void CMaintMgr::WorkPass() {
    const unsigned int dwWait = CMainTTool::MaintWaitEvent(m_hWorkEvent, WORK_WAIT_MS);
    if (dwWait != 0 && dwWait != WAIT_TIMED_OUT)
        nanosleep(&STOP_POLL_PAUSE, nullptr);  // an event that fails at once must not make this a busy loop
    if (dwWait != 0 || !GetWork())
        return;
    DisposeScriptList(MT_RUNCOMPLETE);
    if (!IsWorkThread())
        return;  // given up by a stop while the host held a report: the queue is not this thread's any more
    std::list<_MaintPolicyDetail> listPolicy;
    {
        const CMaintLockGuard lock(m_csPolicyList);
        listPolicy.swap(m_MaintPolicyList);
    }
    if (!listPolicy.empty()) {
        RunNewScript(listPolicy);
        DisposeScriptList(MT_RUNTIMEOUT);
    }
    if (m_iRunOnceWaiting != 0 && GetPRunScriptListSize() == 0)
        PassSignalOn();  // a run-once waits for the same event, and now it can return
}

void CMaintMgr::TryWorkPass() {
    try {
        WorkPass();
    } catch (const std::exception& error) {
        QXLogPrint(4, MAINT_LOG_SOURCE, "WorkThread", __LINE__, "**qxpmaint CMaintMgr::WorkThread Error[%s]",
                   error.what());
        // The signal is used up, and the policies it stood for may still be queued.
        if (HasQueuedPolicy())
            PassSignalOn();
    }
}

bool CMaintMgr::IsWorkThread() {
    const CMaintLockGuard lock(m_csWorkThread);
    return m_u64WorkThreadId == pthread_self();
}

// A thread that Stop gave up may leave after another was started: then the id is not its own.
void CMaintMgr::LeaveWorkThread() {
    const CMaintLockGuard lock(m_csWorkThread);
    if (m_u64WorkThreadId == pthread_self())
        m_u64WorkThreadId = 0;
}

void* CMaintMgr::WorkThread(void* pParam) {
    DisableCancellation();
    CThreadTicket ticket;
    ticket.Adopt();
    pthread_detach(pthread_self());
    prctl(PR_SET_NAME, "qxpmaintwork");
    // Its creator's manager rather than the present one: they differ when a close has given up on this thread.
    CMaintMgr* pThis = pParam ? static_cast<CMaintMgr*>(pParam) : Instance();
    if (!pThis)
        return nullptr;
    pThis->CleanOldLog();
    bool bCancelled = false;
    try {
        while (pThis->GetWork()) {
            pThis->TryWorkPass();
            bCancelled = true;  // unless the next line returns
            CancellationPoint();
            bCancelled = false;
        }
    } catch (...) {
        pThis->LeaveWorkThread();
        if (bCancelled)
            throw;
        return nullptr;
    }
    pThis->LeaveWorkThread();
    return nullptr;
}

int CMaintMgr::Stop() {
    QXLogPrintStr(6, MAINT_LOG_SOURCE, __FUNCTION__, __LINE__, "qxpmaint CMaintMgr::Stop begin");
    const auto readWorkThreadId = [this] {
        const CMaintLockGuard lock(m_csWorkThread);
        return m_u64WorkThreadId;
    };
    // Looked at before the signal as well: a work thread that is quick to leave must not make this stop one without a
    // work thread, which would leave its runs alone.
    const bool bHadWorkThread = readWorkThreadId() != 0;
    SetWork(0);
    CMainTTool::MaintSetEvent(m_hWorkEvent);
    if (!bHadWorkThread && readWorkThreadId() == 0) {
        QXLogPrintStr(6, MAINT_LOG_SOURCE, __FUNCTION__, __LINE__, "qxpmaint CMaintMgr::Stop Already Stop");
    } else {
        for (int iPoll = 0; iPoll < STOP_POLLS && readWorkThreadId() != 0; ++iPoll)
            nanosleep(&STOP_POLL_PAUSE, nullptr);
        {
            const CMaintLockGuard lock(m_csWorkThread);
            if (m_u64WorkThreadId != 0) {
                pthread_cancel(m_u64WorkThreadId);
                QXLogPrint(3, MAINT_LOG_SOURCE, __FUNCTION__, __LINE__,
                           "*qxpmaint CMaintMgr::Stop kill WorkThread m_u64WorkThreadId[%llu]", m_u64WorkThreadId);
                m_u64WorkThreadId = 0;
            }
        }
        DisposeScriptList(MT_STOPPLUGIN);
    }
    QXLogPrintStr(6, MAINT_LOG_SOURCE, __FUNCTION__, __LINE__, "qxpmaint CMaintMgr::Stop end");
    return 1;
}
