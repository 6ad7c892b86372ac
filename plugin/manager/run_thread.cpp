#include "plugin/manager/run_thread.h"

#include <cxxabi.h>
#include <sys/prctl.h>

#include <exception>

#include "plugin/manager/attempt.h"
#include "plugin/manager/maint_lock.h"
#include "plugin/platform/process_tree.h"
#include "plugin/platform/qx_log_print.h"
#include "plugin/platform/test_point.h"

namespace {

/// How long a wait lasts before the thread looks at its stop flag and its cancellation by itself.
constexpr int WAIT_TICK_MS = 1000;
/// What ended processes get between SIGTERM and SIGKILL.
constexpr std::chrono::milliseconds END_GRACE{2000};

void SetThreadName(unsigned int dwSequenceIndex) {
    char szName[16] = {};
    snprintf(szName, sizeof szName, "qxmaintr%04x", dwSequenceIndex);
    prctl(PR_SET_NAME, szName);
}

}  // namespace

std::shared_ptr<CRunControl> CRunThread::Attach(_RunScriptData& stRunData, CThreadTicket& ticket) {
    std::shared_ptr<CRunControl> spControl = stRunData.spControl;
    ticket = CThreadTicket::Adopt(spControl->Ticket);
    spControl->Attached.release();
    return spControl;
}

CRunThread::CRunThread(_RunScriptData* pRunData, std::shared_ptr<CRunControl> spControl)
    : m_Mgr(spControl->Mgr), m_pRunData(pRunData), m_spControl(std::move(spControl)) {
    Begin();
}

void CRunThread::Begin() {
    if (!m_Mgr.GetWork()) {
        m_ePhase = LeaveReading();
        return;
    }
    unsigned int dwSequenceIndex = 0;
    {
        const CMaintLockGuard lock(m_Mgr.m_csRunScriptList);
        if (m_spControl->iStopFlag) {
            m_ePhase = EPhase::OVER;
            return;
        }
        m_pRunData->piStopFlag = &m_spControl->iStopFlag;
        m_pRunData->dwRunState = RUN_RUNNING;
        m_strCheckRet = m_pRunData->strCheckRet;
        dwSequenceIndex = m_pRunData->dwSequenceIndex;
        m_hRunEvent = m_pRunData->hRunEvent;
        m_pRunData->u64StartTick = CMainTTool::MaintGetTickCount();
    }
    SetThreadName(dwSequenceIndex);
    m_iResult = m_strCheckRet.empty() ? 1 : 0;
}

bool CRunThread::Step() {
    switch (m_ePhase) {
        case EPhase::READING:
            TestPoint("run reading");
            m_ePhase = ReadStep();
            break;
        case EPhase::WAITING_FOR_EXIT:
            TestPoint("run waiting");
            m_ePhase = WaitStep();
            break;
        case EPhase::OVER:
            break;
    }
    return m_ePhase != EPhase::OVER;
}

CRunThread::EPhase CRunThread::ReadStep() {
    if (m_bChunkBegins && !m_Mgr.GetWork()) {
        return LeaveReading();
    }
    if (StopRequested()) {
        return EPhase::OVER;
    }
    if (!m_spControl->Child.Stream()) {
        return EPhase::OVER;
    }
    std::string_view chunk;
    const CChunkReader::EState eState = m_Reader.Next(chunk);
    m_bChunkBegins = eState == CChunkReader::EState::CHUNK;
    if (eState == CChunkReader::EState::CHUNK) {
        StoreChunk(chunk);
    } else if (eState == CChunkReader::EState::NEED_DATA) {
        WaitForOutput();
    }
    return eState == CChunkReader::EState::END ? EPhase::WAITING_FOR_EXIT : EPhase::READING;
}

// Output that nobody reads any more must not hold the script up: it meets a broken pipe, as after a close.
CRunThread::EPhase CRunThread::LeaveReading() {
    if (!m_spControl->Child.Stream()) {
        return EPhase::OVER;
    }
    CloseReadEnd(m_spControl->Child.Stream(), m_spControl->WakeDescriptor());
    return EPhase::WAITING_FOR_EXIT;
}

void CRunThread::StoreChunk(std::string_view chunk) {
    chunk = chunk.substr(0, chunk.find('\0'));
    m_Capture.Append(chunk);
    if (!m_strCheckRet.empty() && chunk.find(m_strCheckRet.Str()) != std::string_view::npos) {
        m_iResult = 1;
    }
}

void CRunThread::WaitForOutput() {
    const int iOutput = fileno(m_spControl->Child.Stream());
    pollfd arrWait[] = {{iOutput, POLLIN, 0}, {m_spControl->WakeDescriptor(), POLLIN, 0}};
    if (PollOrPause(arrWait, WAIT_TICK_MS) > 0 && arrWait[0].revents != 0) {
        m_Reader.Fill(iOutput);
    } else {
        m_spControl->Child.FindAgain();
    }
}

CRunThread::EPhase CRunThread::WaitStep() {
    CRunControl& control = *m_spControl;
    if (StopRequested()) {
        return EPhase::OVER;
    }
    control.Child.FindAgain();
    // Of a child that is not known nothing tells the exit but the close of its stream, which nothing could wake.
    if (!control.Child.IsKnown()) {
        CRunControl::CloseStream(m_spControl);
    }
    if (control.bChildReaped || control.Child.HasExited()) {
        return EPhase::OVER;
    }
    control.Child.WaitExit(control.WakeDescriptor(), WAIT_TICK_MS);
    return EPhase::WAITING_FOR_EXIT;
}

bool CRunThread::StopRequested() {
    const CMaintLockGuard lock(m_Mgr.m_csRunScriptList);
    return m_spControl->iStopFlag != 0;
}

void CRunThread::Abandon() {
    m_bAbandoned = true;
    m_iResult = 0;
}

void CRunThread::Finish() {
    if (m_bAbandoned || StopRequested()) {
        EndOnce();
    }
    // What may have to wait for the child is not done under the lock.
    if (!m_spControl->Child.CanBeClosedNow()) {
        CloseStream(m_spControl);
    }
    TestPoint("run storing");
    if (!StoreResult()) {
        EndOnce();  // told to stop since the look above
        CloseStream(m_spControl);
    }
    TestPoint("run stored");
    CMainTTool::MaintSetEvent(m_hRunEvent);
}

// False when the run was told to stop: the record is not touched then.
bool CRunThread::StoreResult() {
    CPString strOutput = m_Capture.Take();
    const CMaintLockGuard lock(m_Mgr.m_csRunScriptList);
    m_spControl->bThreadEnding = true;
    if (m_spControl->iStopFlag) {
        return false;
    }
    m_pRunData->strRunOutData = std::move(strOutput);
    _CreateProcessInfo& stProcessInfo = m_pRunData->stProcessInfo;
    for (void** phHandle : {&stProcessInfo.hThread, &stProcessInfo.hReadPipe, &stProcessInfo.hWritePipe}) {
        CMainTTool::CleanHandle(*phHandle);
        *phHandle = nullptr;
    }
    CloseStream(m_spControl);  // the child has ended: returns at once
    stProcessInfo.hProcess = nullptr;
    m_pRunData->dwRunState = RUN_FINISHED;
    m_pRunData->iRunResult = m_iResult;
    return true;
}

void CRunThread::EndOnce() {
    CRunControl& control = *m_spControl;
    if (!control.Child.WasStarted() || m_bProcessesEnded) {
        return;
    }
    m_bProcessesEnded = true;
    if (control.Child.Stream()) {
        CloseReadEnd(control.Child.Stream(), control.WakeDescriptor());
    }
    control.Child.FindAgain();
    EndProcesses(control, END_GRACE);
}

void CRunThread::EndProcesses(CRunControl& control, std::chrono::milliseconds grace) {
    CMaintMgr& mgr = control.Mgr;
    const int iPid = control.Child.Identity().iPid;
    switch (CProcessTree(control.Child, mgr.m_ProcReader, mgr.m_ProcessScan).End(grace)) {
        case CProcessTree::EEnd::GONE:
            break;
        case CProcessTree::EEnd::LEFT:
            Attempt("RunScriptThread", [&] {
                QXLogPrint(3, MAINT_LOG_SOURCE, "RunScriptThread", __LINE__,
                           "*qxpmaint CMaintMgr::RunScriptThread processes left of pid[%d]", iPid);
            });
            break;
        case CProcessTree::EEnd::UNKNOWN:
            Attempt("RunScriptThread", [&] {
                QXLogPrint(3, MAINT_LOG_SOURCE, "RunScriptThread", __LINE__,
                           "*qxpmaint CMaintMgr::RunScriptThread processes may be left of pid[%d], they could not be "
                           "looked for",
                           iPid);
            });
            break;
    }
}

void CRunThread::CloseStream(const std::shared_ptr<CRunControl>& spControl) {
    if (CRunControl::CloseStream(spControl)) {
        return;
    }
    Attempt("RunScriptThread", [&] {
        QXLogPrint(3, MAINT_LOG_SOURCE, "RunScriptThread", __LINE__,
                   "*qxpmaint CMaintMgr::RunScriptThread stream left open of pid[%d]",
                   spControl->Child.Identity().iPid);
    });
}

void CRunThread::FinishWithoutMemory(_RunScriptData& stRunData, const std::shared_ptr<CRunControl>& spControl) {
    CRunControl& control = *spControl;
    if (control.Child.WasStarted()) {
        EndProcesses(control, std::chrono::milliseconds(0));
    }
    CMaintMgr& mgr = control.Mgr;
    {
        const CMaintLockGuard lock(mgr.m_csRunScriptList);
        control.bThreadEnding = true;
        if (!control.iStopFlag) {
            stRunData.stProcessInfo.hProcess = nullptr;
            stRunData.dwRunState = RUN_FINISHED;
            stRunData.iRunResult = 0;
        }
    }
    CloseStream(spControl);
    CMainTTool::MaintSetEvent(mgr.m_hWorkEvent);
}

namespace {

void FinishRun(CRunThread& run, _RunScriptData& stRunData, const std::shared_ptr<CRunControl>& spControl) {
    if (!Attempt("RunScriptThread", [&] { run.Finish(); })) {
        CRunThread::FinishWithoutMemory(stRunData, spControl);
    }
}

}  // namespace

void* CMaintMgr::RunScriptThread(void* pParam) {
    DisableCancellation();
    pthread_detach(pthread_self());
    CThreadTicket ticket;
    auto* pRunData = static_cast<_RunScriptData*>(pParam);
    std::shared_ptr<CRunControl> spControl;
    if (pRunData) {
        spControl = CRunThread::Attach(*pRunData, ticket);
    }
    TestPoint("run attached");
    // The run's own manager; the present one differs when a close has given up on this thread.
    CMaintMgr* pThis = spControl ? &spControl->Mgr : Present();
    if (!pThis) {
        QXLogPrintStr(4, MAINT_LOG_SOURCE, "RunScriptThread", __LINE__,
                      "**qxpmaint CMaintMgr::RunScriptThread pThis is NULL");
        return nullptr;
    }
    if (!pRunData) {
        QXLogPrintStr(4, MAINT_LOG_SOURCE, "RunScriptThread", __LINE__,
                      "**qxpmaint CMaintMgr::RunScriptThread pRunData is NULL");
        return nullptr;
    }
    try {
        CRunThread run(pRunData, spControl);
        try {
            while (run.Step()) {
                CancellationPoint();
            }
        } catch (const abi::__forced_unwind&) {
            run.Abandon();
            FinishRun(run, *pRunData, spControl);
            throw;
        } catch (const std::exception& error) {
            run.Abandon();
            Attempt("RunScriptThread", [&] { LogFailedStep("RunScriptThread", error.what()); });
        }
        FinishRun(run, *pRunData, spControl);
    } catch (const std::exception& error) {
        Attempt("RunScriptThread", [&] { LogFailedStep("RunScriptThread", error.what()); });
        CRunThread::FinishWithoutMemory(*pRunData, spControl);  // not even the beginning found memory
    }
    return nullptr;
}
