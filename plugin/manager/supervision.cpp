#include <sys/prctl.h>

#include <algorithm>
#include <chrono>
#include <memory>

#include "plugin/manager/attempt.h"
#include "plugin/manager/maint_lock.h"
#include "plugin/manager/maint_mgr.h"
#include "plugin/platform/pause.h"
#include "plugin/platform/qx_log_print.h"
#include "plugin/platform/test_point.h"

namespace {

constexpr int WORK_WAIT_MS = 5000;
constexpr int STOP_POLLS = 200;
constexpr int STOP_POLL_MS = 300;

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
    if (run.u64StartTick == 0 || run.u64StartTick > ulNow) {
        return 0;
    }
    return CMainTTool::GetDiffCount(run.u64StartTick, ulNow);
}

bool IsSelected(const _RunScriptData& run, unsigned int dwDisposeType, unsigned long ulNow) {
    if (dwDisposeType == MT_RUNCOMPLETE) {
        return run.dwRunState == RUN_FINISHED;
    }
    if (dwDisposeType == MT_RUNTIMEOUT) {
        return run.dwTimeOut != 0 && ElapsedTicks(run, ulNow) >= static_cast<uint32_t>(run.dwTimeOut * 1000U) &&
               run.dwRunState != RUN_CREATED;
    }
    return true;
}

// The copy takes the strings over, the output above all, and leaves the numbers and handles for CleanRunData.
void MoveForReport(_RunScriptData& run, std::list<_RunScriptData>& listDisposed) {
    const std::shared_ptr<CRunControl> spControl = std::move(run.spControl);
    listDisposed.splice(listDisposed.end(), run.listCopyRoom);
    listDisposed.back() = std::move(run);
    run.spControl = spControl;  // NOLINT(bugprone-use-after-move): the control block stays with the record
}

}  // namespace

// Takes the selected runs out of the list, without needing memory.
std::list<_RunScriptData> CMaintMgr::ExtractDisposed(unsigned int dwDisposeType, unsigned int dwCount,
                                                     unsigned long ulNow) {
    std::list<_RunScriptData> listDisposed;
    if (dwDisposeType == MT_ERROR || (dwDisposeType == MT_RUNTIMEOUT && dwCount <= MaxRunThreadCount)) {
        return listDisposed;
    }
    const CMaintLockGuard lock(m_csRunScriptList);
    for (auto it = m_PRunScriptList.begin(); it != m_PRunScriptList.end();) {
        _RunScriptData* pRunData = *it;
        if (pRunData && !IsSelected(*pRunData, dwDisposeType, ulNow)) {
            ++it;
            continue;
        }
        if (pRunData) {
            MoveForReport(*pRunData, listDisposed);
            CleanRunData(pRunData, dwDisposeType != MT_RUNCOMPLETE ? 1 : 0);
        }
        it = m_PRunScriptList.erase(it);
    }
    return listDisposed;
}

void CMaintMgr::FinishDisposal(_RunScriptData& run, unsigned int dwDisposeType, unsigned long ulNow,
                               const CPString& strEndTime) {
    const unsigned long uDiffTick = ElapsedTicks(run, ulNow);
    if (dwDisposeType == MT_RUNCOMPLETE) {
        run.u64RunningTime = uDiffTick;
    }
    Attempt("DisposeScriptList", [&] {
        if (dwDisposeType == MT_RUNCOMPLETE) {
            run.strEndTime = strEndTime;
        }
        QXLogPrint(6, MAINT_LOG_SOURCE, "DisposeScriptList", __LINE__,
                   "qxpmaint CMaintMgr::DisposeScriptList u64ThreadId[%llu] dwStartTime[%u] uDiffTick[%lu] "
                   "strScriptId[%s] strScriptPath[%s]",
                   static_cast<unsigned long long>(run.u64ThreadId), run.dwStartTime, uDiffTick,
                   run.strScriptId.c_str(), run.strScriptPath.c_str());
        QXLogPrint(6, MAINT_LOG_SOURCE, "DisposeScriptList", __LINE__,
                   "qxpmaint CMaintMgr::DisposeScriptList strRunOutData[%s]", run.strRunOutData.c_str());
    });
    ReadLogFile(run.strLogPath, run.strRunOutData);
    CMainTTool::MaintDeleteFile(run.strScriptPath.c_str());
    CMainTTool::MaintDeleteFile(run.strLogPath.c_str());
}

// One report a policy, in the order of the policies' identifiers. One that fails loses no other.
void CMaintMgr::ReportByPolicy(std::list<_RunScriptData>& listDisposed) {
    listDisposed.sort([](const _RunScriptData& a, const _RunScriptData& b) { return a.strID < b.strID; });
    while (!listDisposed.empty()) {
        const auto itEnd = std::find_if(listDisposed.begin(), listDisposed.end(), [&](const _RunScriptData& run) {
            return run.strID != listDisposed.front().strID;
        });
        std::list<_RunScriptData> listReport;
        listReport.splice(listReport.end(), listDisposed, listDisposed.begin(), itEnd);
        const CPString strID = std::move(listReport.front().strID);
        Attempt("SendResultToServer", [&] {
            if (SendResultToServer(strID, std::move(listReport)) == 0) {
                QXLogPrint(3, MAINT_LOG_SOURCE, "DisposeScriptList", __LINE__,
                           "*qxpmaint CMaintMgr::DisposeScriptList SendResultToServer not sent strID[%s]",
                           strID.c_str());
            }
        });
    }
}

int CMaintMgr::DisposeScriptList(unsigned int dwDisposeType) {
    TestPoint("disposing");
    const unsigned long ulNow = CMainTTool::MaintGetTickCount();
    const unsigned int dwCount = GetPRunScriptListSize();
    std::list<_RunScriptData> listDisposed = ExtractDisposed(dwDisposeType, dwCount, ulNow);
    // From here on the runs are in no list any more: what fails must not lose them.
    Attempt("DisposeScriptList", [&] {
        QXLogPrint(6, MAINT_LOG_SOURCE, "DisposeScriptList", __LINE__,
                   "qxpmaint CMaintMgr::DisposeScriptList PRunScriptList[%u] dwDisposeType[%u] strDisposeType[%s]",
                   dwCount, dwDisposeType, DisposeLabel(dwDisposeType));
    });
    CPString strEndTime;
    Attempt("DisposeScriptList", [&] { strEndTime = GetStrTime(0, 1); });
    for (_RunScriptData& run : listDisposed) {
        FinishDisposal(run, dwDisposeType, ulNow, strEndTime);
    }
    if (dwDisposeType == MT_RUNCOMPLETE || dwDisposeType == MT_RUNTIMEOUT) {
        ReportByPolicy(listDisposed);
    }
    return dwDisposeType == MT_ERROR ? 0 : 1;
}

void CMaintMgr::WorkPass() {
    if (!WaitWorkEvent(TestableMilliseconds("WORK_WAIT", WORK_WAIT_MS)) || !GetWork()) {
        return;
    }
    DisposeScriptList(MT_RUNCOMPLETE);
    if (!IsWorkThread()) {
        return;  // given up by a stop while the host held a report: the queue is not this thread's any more
    }
    std::list<_MaintPolicyDetail> listPolicy;
    {
        const CMaintLockGuard lock(m_csPolicyList);
        listPolicy.swap(m_MaintPolicyList);
    }
    if (!listPolicy.empty()) {
        RunNewScript(listPolicy);
        DisposeScriptList(MT_RUNTIMEOUT);
    }
    if (m_iRunOnceWaiting != 0 && GetPRunScriptListSize() == 0) {
        PassSignalOn();  // a run-once waits for the same event, and now it can return
    }
}

void CMaintMgr::TryWorkPass() {
    if (Attempt("WorkThread", [this] { WorkPass(); })) {
        return;
    }
    // The signal is used up, and what it stood for may still be there.
    if (HasQueuedPolicy() || HasFinishedRun()) {
        PassSignalOn();
    }
}

bool CMaintMgr::HasFinishedRun() {
    const CMaintLockGuard lock(m_csRunScriptList);
    return std::any_of(m_PRunScriptList.begin(), m_PRunScriptList.end(),
                       [](const _RunScriptData* pRunData) { return pRunData && pRunData->dwRunState == RUN_FINISHED; });
}

bool CMaintMgr::IsWorkThread() {
    const CMaintLockGuard lock(m_csWorkThread);
    return m_u64WorkThreadId == pthread_self();
}

// A thread that Stop gave up may leave after another was started: then the id is not its own.
void CMaintMgr::LeaveWorkThread() {
    const CMaintLockGuard lock(m_csWorkThread);
    if (m_u64WorkThreadId == pthread_self()) {
        m_u64WorkThreadId = 0;
    }
}

void* CMaintMgr::WorkThread(void* pParam) {
    DisableCancellation();
    std::unique_ptr<WorkStart> spStart(static_cast<WorkStart*>(pParam));
    CThreadTicket ticket;
    if (spStart) {
        ticket = CThreadTicket::Adopt(spStart->Ticket);
    }
    pthread_detach(pthread_self());
    prctl(PR_SET_NAME, "qxpmaintwork");
    // Its creator's manager rather than the present one: they differ when a close has given up on this thread.
    CMaintMgr* pThis = spStart ? &spStart->Mgr : Present();
    if (!pThis) {
        return nullptr;
    }
    spStart.reset();
    pThis->CleanOldLog();
    try {
        while (pThis->GetWork()) {
            pThis->TryWorkPass();
            CancellationPoint();
        }
    } catch (const abi::__forced_unwind&) {
        pThis->LeaveWorkThread();
        throw;
    }
    pThis->LeaveWorkThread();
    return nullptr;
}

int CMaintMgr::Stop() {
    QXLogPrintStr(6, MAINT_LOG_SOURCE, "Stop", __LINE__, "qxpmaint CMaintMgr::Stop begin");
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
        QXLogPrintStr(6, MAINT_LOG_SOURCE, "Stop", __LINE__, "qxpmaint CMaintMgr::Stop Already Stop");
    } else {
        for (int iPoll = 0; iPoll < STOP_POLLS && readWorkThreadId() != 0; ++iPoll) {
            MaintPause(std::chrono::milliseconds(TestableMilliseconds("STOP_POLL", STOP_POLL_MS)));
        }
        {
            const CMaintLockGuard lock(m_csWorkThread);
            if (m_u64WorkThreadId != 0) {
                CancelThread(m_u64WorkThreadId);
                QXLogPrint(3, MAINT_LOG_SOURCE, "Stop", __LINE__,
                           "*qxpmaint CMaintMgr::Stop kill WorkThread m_u64WorkThreadId[%llu]", m_u64WorkThreadId);
                m_u64WorkThreadId = 0;
            }
        }
        DisposeScriptList(MT_STOPPLUGIN);
    }
    QXLogPrintStr(6, MAINT_LOG_SOURCE, "Stop", __LINE__, "qxpmaint CMaintMgr::Stop end");
    return 1;
}
