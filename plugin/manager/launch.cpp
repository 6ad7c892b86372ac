#include <ctime>
#include <mutex>
#include <new>
#include <stdexcept>

#include "plugin/manager/maint_log.h"
#include "plugin/manager/maint_mgr.h"
#include "plugin/manager/run_control.h"
#include "plugin/manager/run_thread.h"
#include "plugin/platform/qx_log_print.h"
#include "plugin/platform/test_point.h"

namespace {

/// Held while a child is started, and over nothing else. An executable cannot be run ("Text file busy") while any
/// process has it open for writing, and a child that another launch forks has a copy of all descriptors until it
/// executes its own program. popen returns only after that. So a launch closes its script file, takes this lock, and
/// then knows that no other launch's child holds a copy.
constinit std::mutex g_LaunchLock;

}  // namespace

CPString CMaintMgr::GetRunCommand(const CPString& strPath, const CPString& /*strLogPath*/, const CPString& strType,
                                  CPString& strParam) {
    CPString strCommand;
    if (strType.CompareNoCase("sh") == 0) {
        strCommand.Format("bash %s", strPath.c_str());
    } else if (strType.CompareNoCase("exe") == 0) {
        strCommand = strPath;
    }
    // "bat", "vbs" and every other type do not run on this platform.
    QXLogPrint(6, MAINT_LOG_SOURCE, "GetRunCommand", __LINE__,
               "qxpmaint CMaintMgr::GetRunCommand strCommand[%s] strParam[%s]", strCommand.c_str(), strParam.c_str());
    return strCommand;
}

// Starts the process of a run. When that fails the run goes on without a stream and is reported with empty output.
void CMaintMgr::StartProcess(_RunScriptData& stRunData, const CPString& strCommand, const CPString& strParam) {
    unsigned int dwError = 0;
    // popen tells no pid. The children that this thread has before and after it tell which one is new: see
    // docs/decisions/003-launching-a-child.md.
    m_ProcReader.Replenish();
    const LaunchMark stMark = CChildProcess::MarkLaunch(m_ProcReader);
    bool bStarted = false;
    {
        const std::lock_guard lock(g_LaunchLock);
        bStarted =
            CMainTTool::MaintCreateProcess(strCommand.c_str(), strParam.c_str(), stRunData.strLogPath.empty() ? 1 : 0,
                                           stRunData.stProcessInfo, &dwError);
    }
    if (bStarted) {
        stRunData.spControl->Child.Identify(static_cast<FILE*>(stRunData.stProcessInfo.hProcess), stMark);
        return;
    }
    QXLogPrint(3, MAINT_LOG_SOURCE, "CreateRunScript", __LINE__,
               "*qxpmaint CMaintMgr::CreateRunScript MaintCreateProcess Error[%u] strCommand[%s] strParam[%s]", dwError,
               strCommand.c_str(), strParam.c_str());
}

// A run whose thread could not be created: nobody would ever read its output or wait for it, so it ends here, as one
// that failed, and is reported like any other.
void CMaintMgr::FinishWithoutThread(_RunScriptData& stRunData, int iError) {
    Attempt("CreateRunScript", [&] {
        QXLogPrint(3, MAINT_LOG_SOURCE, "CreateRunScript", __LINE__,
                   "*qxpmaint CMaintMgr::CreateRunScript MaintCreateThread Error[%d] strPath[%s]", iError,
                   stRunData.strScriptPath.c_str());
    });
    stRunData.spControl->Ticket.Release();  // the place of the thread that there is not
    CRunThread::FinishWithoutThread(stRunData);
}

int CMaintMgr::CreateRunScript(const CPString& strPath, const CPString& strLogPath, unsigned int dwSequenceIndex,
                               const _MaintPolicyDetail& stPolicy) {
    CPString strParam;
    const CPString strCommand = GetRunCommand(strPath, strLogPath, stPolicy.strType, strParam);
    if (strCommand.empty() && strParam.empty()) {
        QXLogPrint(3, MAINT_LOG_SOURCE, "CreateRunScript", __LINE__,
                   "*qxpmaint CMaintMgr::CreateRunScript GetRunCommand strCommand[%s] strParam[%s]", strCommand.c_str(),
                   strParam.c_str());
        return 0;
    }
    std::unique_ptr<_RunScriptData> spRunData(new (std::nothrow) _RunScriptData);
    _RunScriptData* pRunData = spRunData.get();
    if (!pRunData) {
        QXLogPrintStr(4, MAINT_LOG_SOURCE, "CreateRunScript", __LINE__,
                      "**qxpmaint CMaintMgr::CreateRunScript pRunData is NULL");
        CMainTTool::MaintDeleteFile(strPath.c_str());  // there is no run that would delete it
        return 0;
    }
    pRunData->dwPolicyType = stPolicy.dwPolicyType;
    pRunData->dwTimeOut = stPolicy.dwTimeOut;
    pRunData->dwTimeOutAction = stPolicy.dwTimeOutAction;
    pRunData->strID = stPolicy.strID;
    pRunData->strScriptId = stPolicy.strScriptId;
    pRunData->strCheckRet = stPolicy.strCheckRet;
    pRunData->strScriptPath = strPath;
    pRunData->dwSequenceIndex = dwSequenceIndex;
    pRunData->dwStartTime = static_cast<uint32_t>(time(nullptr));
    pRunData->strLogPath = strLogPath;
    pRunData->hRunEvent = m_hWorkEvent;
    pRunData->spControl = std::make_shared<CRunControl>(*this, m_ProcReader);
    const std::shared_ptr<CRunControl> spControl = pRunData->spControl;
    spControl->Ticket = CThreadTicket::ForNewThread(m_spGate);
    pRunData->listCopyRoom.emplace_back();
    std::list<_RunScriptData*> listEntry{pRunData};

    if (m_bClosing) {
        throw std::runtime_error("closing");  // nobody would end this run
    }

    // From here on nothing may fail: a process that is not listed could be neither ended nor reported.
    Attempt("CreateRunScript", [&] { StartProcess(*pRunData, strCommand, strParam); });

    unsigned long long u64ThreadId = 0;
    if (const int iError = CMainTTool::MaintCreateThread(RunScriptThread, pRunData, u64ThreadId); iError == 0) {
        // Until the thread holds the control block, the record must not be freed, so it must not be listed either.
        spControl->Attached.acquire();
    } else {
        u64ThreadId = 0;
        FinishWithoutThread(*pRunData, iError);
    }
    Attempt("CreateRunScript", [&] {
        QXLogPrint(6, MAINT_LOG_SOURCE, "CreateRunScript", __LINE__,
                   "qxpmaint CMaintMgr::CreateRunScript Create RunScriptThread u64ThreadId[%llu] strPath[%s]",
                   u64ThreadId, strPath.c_str());
    });
    TestPoint("launch listing");
    ERunTold eTold = ERunTold::TELL_NOBODY;
    {
        const CMaintLockGuard lock(m_csRunScriptList);
        pRunData->u64ThreadId = u64ThreadId;
        eTold = FindRunRow(ERunActor::LAUNCHER, spControl->eState, ERunEvent::LISTED).eTold;
        m_PRunScriptList.splice(m_PRunScriptList.end(), listEntry);
        static_cast<void>(spRunData.release());  // the list owns it now
    }
    // The signal of a run that was over before it was listed may have been taken by a pass that could not see it.
    if (eTold == ERunTold::WORK_THREAD) {
        CMainTTool::MaintSetEvent(m_hWorkEvent);
    }
    return 0;
}
