#include <algorithm>
#include <cassert>
#include <memory>

#include "plugin/manager/maint_log.h"
#include "plugin/manager/maint_mgr.h"
#include "plugin/manager/run_control.h"
#include "plugin/platform/qx_log_print.h"
#include "plugin/platform/test_point.h"

namespace {

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

ERunEvent DisposeEvent(unsigned int dwDisposeType) {
    switch (dwDisposeType) {
        case MT_RUNCOMPLETE:
            return ERunEvent::COMPLETED;
        case MT_RUNTIMEOUT:
            return ERunEvent::TIMED_OUT;
        default:
            return ERunEvent::PUT_AWAY;
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
    assert(run.listCopyRoom.size() == 1);
    const std::shared_ptr<CRunControl> spControl = std::move(run.spControl);
    listDisposed.splice(listDisposed.end(), run.listCopyRoom);
    listDisposed.back() = std::move(run);
    run.spControl = spControl;  // NOLINT(bugprone-use-after-move): the control block stays with the record
}

}  // namespace

int CMaintMgr::CleanRunData(_RunScriptData* pRunData, int bKill) {
    if (pRunData == nullptr) {
        return 0;
    }
    const std::unique_ptr<_RunScriptData> spRunData(pRunData);
    CRunControl& control = *pRunData->spControl;
    const CMaintLockGuard lock(m_csRunScriptList);
    const RunRow& row =
        FindRunRow(ERunActor::DISPOSER, control.eState, bKill != 0 ? ERunEvent::PUT_AWAY : ERunEvent::COMPLETED);
    assert(row.eStore == ERunStore::FREE);
    if (row.eTold == ERunTold::TELL_NOBODY) {
        return 1;
    }
    control.iStopFlag = 1;  // what piStopFlag points at, also before the thread has set that
    pRunData->stProcessInfo.CleanFurtherHandles();
    // The stream is left to the run thread, which may be reading from it: woken here, it takes the read end away from
    // the script, ends the processes and closes the stream, once.
    pRunData->stProcessInfo.hProcess = nullptr;
    control.Wake();
    if (row.eTold == ERunTold::RUN_CANCELS && pRunData->u64ThreadId != 0) {
        CancelThread(pRunData->u64ThreadId);
    }
    return 1;
}

// Takes the selected runs out of the list, without needing memory.
CMaintMgr::Disposal CMaintMgr::ExtractDisposed(unsigned int dwDisposeType, unsigned int dwCount, unsigned long ulNow) {
    Disposal disposal;
    if (dwDisposeType == MT_ERROR || (dwDisposeType == MT_RUNTIMEOUT && dwCount <= MaxRunThreadCount)) {
        return disposal;
    }
    const ERunEvent eEvent = DisposeEvent(dwDisposeType);
    const CMaintLockGuard lock(m_csRunScriptList);
    for (auto it = m_PRunScriptList.begin(); it != m_PRunScriptList.end();) {
        _RunScriptData* pRunData = *it;
        if (pRunData != nullptr && !IsSelected(*pRunData, dwDisposeType, ulNow)) {
            ++it;
            continue;
        }
        if (pRunData != nullptr) {
            const RunRow& row = FindRunRow(ERunActor::DISPOSER, pRunData->spControl->eState, eEvent);
            disposal.eReport = row.eReport;  // the same for all runs of one pass
            MoveForReport(*pRunData, disposal.listRun);
            CleanRunData(pRunData, row.eTold != ERunTold::TELL_NOBODY ? 1 : 0);
        }
        it = m_PRunScriptList.erase(it);
    }
    return disposal;
}

void CMaintMgr::FinishDisposal(_RunScriptData& run, ERunReport eReport, unsigned long ulNow,
                               const CPString& strEndTime) {
    const unsigned long uDiffTick = ElapsedTicks(run, ulNow);
    if (eReport == ERunReport::WITH_TIMES) {
        run.u64RunningTime = uDiffTick;
    }
    Attempt("DisposeScriptList", [&] {
        if (eReport == ERunReport::WITH_TIMES) {
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
    Disposal disposal = ExtractDisposed(dwDisposeType, dwCount, ulNow);
    // From here on the runs are in no list any more: what fails must not lose them.
    Attempt("DisposeScriptList", [&] {
        QXLogPrint(6, MAINT_LOG_SOURCE, "DisposeScriptList", __LINE__,
                   "qxpmaint CMaintMgr::DisposeScriptList PRunScriptList[%u] dwDisposeType[%u] strDisposeType[%s]",
                   dwCount, dwDisposeType, DisposeLabel(dwDisposeType));
    });
    CPString strEndTime;
    Attempt("DisposeScriptList", [&] { strEndTime = GetStrTime(0, 1); });
    for (_RunScriptData& run : disposal.listRun) {
        FinishDisposal(run, disposal.eReport, ulNow, strEndTime);
    }
    if (disposal.eReport != ERunReport::NO_REPORT) {
        ReportByPolicy(disposal.listRun);
    }
    return dwDisposeType == MT_ERROR ? 0 : 1;
}
