#include "plugin/manager/run_thread.h"

#include <cxxabi.h>
#include <sys/prctl.h>

#include <cassert>
#include <exception>

#include "plugin/manager/maint_log.h"
#include "plugin/platform/process_tree.h"
#include "plugin/platform/qx_log_print.h"
#include "plugin/platform/test_point.h"

namespace {

/// How long a wait lasts before the thread looks at its stop flag and its cancellation by itself.
constexpr int WAIT_TICK_MS = 1000;
/// What ended processes get between SIGTERM and SIGKILL.
constexpr std::chrono::milliseconds END_GRACE{2000};
constexpr std::chrono::milliseconds NO_GRACE{0};

void SetThreadName(unsigned int dwSequenceIndex) {
    char szName[16] = {};
    snprintf(szName, sizeof szName, "qxmaintr%04x", dwSequenceIndex);
    prctl(PR_SET_NAME, szName);
}

}  // namespace

std::shared_ptr<CRunControl> CRunThread::Attach(_RunScriptData& stRunData, CThreadTicket& ticket) {
    std::shared_ptr<CRunControl> spControl = stRunData.spControl;
    assert(spControl != nullptr && spControl->eState == ERunState::CREATED);
    ticket = CThreadTicket::Adopt(spControl->Ticket);
    spControl->Attached.release();
    return spControl;
}

CRunThread::CRunThread(_RunScriptData* pRunData, std::shared_ptr<CRunControl> spControl)
    : m_Mgr(spControl->Mgr), m_pRunData(pRunData), m_spControl(std::move(spControl)) {
    Begin();
}

// Moves the run on to another state. For what neither stores in the record nor closes the stream.
void CRunThread::Happens(ERunEvent eEvent) {
    CRunControl& control = *m_spControl;
    const RunRow& row = FindRunRow(ERunActor::THREAD, control.eState, eEvent);
    assert(row.eStore == ERunStore::STORE_NOTHING && row.eStream == ERunStream::LEAVE_STREAM);
    {
        const CMaintLockGuard lock(m_Mgr.m_csRunScriptList);
        control.MoveTo(row.eTo);
    }
    EndProcesses(control, row);
}

void CRunThread::Begin() {
    TestPoint("run beginning");
    if (!m_Mgr.GetWork()) {
        LeaveReading();
        return;
    }
    CRunControl& control = *m_spControl;
    unsigned int dwSequenceIndex = 0;
    bool bStopped = false;
    {
        const CMaintLockGuard lock(m_Mgr.m_csRunScriptList);
        bStopped = control.iStopFlag != 0;
        if (!bStopped) {
            m_strCheckRet = m_pRunData->strCheckRet;
            dwSequenceIndex = m_pRunData->dwSequenceIndex;
            m_hRunEvent = m_pRunData->hRunEvent;
            Outcome none;
            Store(*m_pRunData, m_spControl, FindRunRow(ERunActor::THREAD, control.eState, ERunEvent::BEGINS), none);
        }
    }
    if (bStopped) {
        Happens(ERunEvent::STOP_SEEN);
        return;
    }
    SetThreadName(dwSequenceIndex);
    m_iResult = m_strCheckRet.empty() ? 1 : 0;
}

bool CRunThread::Step() {
    if (m_spControl->eState == ERunState::READING) {
        TestPoint("run reading");
        ReadStep();
    } else if (m_spControl->eState == ERunState::WAITING) {
        TestPoint("run waiting");
        WaitStep();
    }
    return m_spControl->eState == ERunState::READING || m_spControl->eState == ERunState::WAITING;
}

void CRunThread::ReadStep() {
    // A line that comes in pieces is one chunk: whether the manager works is asked once for it, the stop flag each
    // time.
    if (m_Reader.ChunkBegins() && !m_Mgr.GetWork()) {
        LeaveReading();
        return;
    }
    if (StopRequested()) {
        Happens(ERunEvent::STOP_SEEN);
        return;
    }
    if (m_spControl->Child.Stream() == nullptr) {
        Happens(ERunEvent::NO_STREAM);
        return;
    }
    std::string_view chunk;
    switch (m_Reader.Next(chunk)) {
        case CChunkReader::EState::CHUNK:
            StoreChunk(chunk);
            break;
        case CChunkReader::EState::NEED_DATA:
            WaitForOutput();
            break;
        case CChunkReader::EState::END:
            Happens(ERunEvent::OUTPUT_ENDED);
            break;
    }
}

// The script is left to end by itself, but its output, which nobody reads any more, must not hold it up.
void CRunThread::LeaveReading() {
    Happens(m_spControl->Child.Stream() != nullptr ? ERunEvent::NOT_WORKING : ERunEvent::NO_STREAM);
}

void CRunThread::StoreChunk(std::string_view chunk) {
    chunk = chunk.substr(0, chunk.find('\0'));
    m_Capture.Append(chunk);
    if (!m_strCheckRet.empty() && chunk.find(m_strCheckRet.Str()) != std::string_view::npos) {
        m_iResult = 1;
    }
}

// In poll and not in read: closing a descriptor wakes no reader, the wake descriptor does.
void CRunThread::WaitForOutput() {
    const int iOutput = fileno(m_spControl->Child.Stream());
    pollfd arrWait[] = {{iOutput, POLLIN, 0}, {m_spControl->WakeDescriptor(), POLLIN, 0}};
    if (PollOrPause(arrWait, WAIT_TICK_MS) > 0 && arrWait[0].revents != 0) {
        m_Reader.Fill(iOutput);
    } else {
        m_spControl->Child.FindAgain();
    }
}

// The exit is waited for here, before the lock is taken for the last time: the close of the stream under that lock
// would otherwise wait for the script, and all that looks at the list of runs with it.
void CRunThread::WaitStep() {
    CRunControl& control = *m_spControl;
    if (StopRequested()) {
        Happens(ERunEvent::STOP_SEEN);
        return;
    }
    control.Child.FindAgain();
    // Nothing but the close of its stream tells of the exit of a child that is not known, and nothing could wake that.
    if (!control.Child.IsKnown()) {
        CRunControl::CloseStream(m_spControl);
    }
    if (control.bChildReaped || control.Child.HasExited()) {
        Happens(ERunEvent::PROCESS_EXITED);
        return;
    }
    control.Child.WaitExit(control.WakeDescriptor(), WAIT_TICK_MS);
}

bool CRunThread::StopRequested() {
    const CMaintLockGuard lock(m_Mgr.m_csRunScriptList);
    return m_spControl->iStopFlag != 0;
}

void CRunThread::GiveUp(ERunEvent eEvent) {
    Happens(eEvent);
}

void CRunThread::Finish() {
    TestPoint("run over");
    if (m_spControl->eState == ERunState::EXITED && StopRequested()) {
        Happens(ERunEvent::STOP_SEEN);
    }
    // A close that may have to wait for the child is not left to the lock.
    if (!m_spControl->Child.CanBeClosedNow()) {
        CloseStream(m_spControl);
    }
    TestPoint("run storing");
    Outcome outcome{m_iResult, m_Capture.Take()};
    const RunRow& row = Conclude(*m_pRunData, m_spControl, outcome);
    TestPoint("run stored");
    if (row.eTold == ERunTold::WAITERS) {
        CMainTTool::MaintSetEvent(m_hRunEvent);
    }
}

void CRunThread::FinishWithoutMemory(_RunScriptData& stRunData, const std::shared_ptr<CRunControl>& spControl) {
    CRunControl& control = *spControl;
    const RunRow* pRow = &FindRunRow(ERunActor::THREAD, control.eState, ERunEvent::FINISH_FAILED);
    {
        const CMaintLockGuard lock(control.Mgr.m_csRunScriptList);
        control.MoveTo(pRow->eTo);
    }
    EndProcesses(control, *pRow);
    if (control.eState == ERunState::KILLED) {
        Outcome none;
        pRow = &Conclude(stRunData, spControl, none);
    }
    if (pRow->eTold == ERunTold::WORK_THREAD) {
        CMainTTool::MaintSetEvent(control.Mgr.m_hWorkEvent);
    }
}

void CRunThread::FinishWithoutThread(_RunScriptData& stRunData) {
    CRunControl& control = *stRunData.spControl;
    const RunRow& row = FindRunRow(ERunActor::LAUNCHER, control.eState, ERunEvent::NO_THREAD);
    EndProcesses(control, row);
    Outcome none;
    Store(stRunData, stRunData.spControl, row, none);
}

// The last row of a run's thread. Whether the run was told to stop is decided under the same lock as the store: the
// record of one that was may be freed already.
const RunRow& CRunThread::Conclude(_RunScriptData& stRunData, const std::shared_ptr<CRunControl>& spControl,
                                   Outcome& outcome) {
    CRunControl& control = *spControl;
    const RunRow* pRow = nullptr;
    {
        const CMaintLockGuard lock(control.Mgr.m_csRunScriptList);
        const ERunEvent eEvent = control.iStopFlag != 0 ? ERunEvent::STOP_AT_END : ERunEvent::MAY_STORE;
        pRow = &FindRunRow(ERunActor::THREAD, control.eState, eEvent);
        Store(stRunData, spControl, *pRow, outcome);
    }
    EndProcesses(control, *pRow);
    if (pRow->eStream == ERunStream::CLOSE_LAST) {
        CloseStream(spControl);
    }
    return *pRow;
}

// The stores of a row, and its new state. Under the lock, or before the record is listed.
void CRunThread::Store(_RunScriptData& stRunData, const std::shared_ptr<CRunControl>& spControl, const RunRow& row,
                       Outcome& outcome) {
    CRunControl& control = *spControl;
    control.MoveTo(row.eTo);
    switch (row.eStore) {
        case ERunStore::STORE_NOTHING:
        case ERunStore::FREE:
            return;
        case ERunStore::RUNNING:
            stRunData.piStopFlag = &control.iStopFlag;
            stRunData.dwRunState = RUN_RUNNING;
            stRunData.u64StartTick = CMainTTool::MaintGetTickCount();
            return;
        case ERunStore::RESULT:
        case ERunStore::FAILURE:
            stRunData.strRunOutData = std::move(outcome.strOutput);
            break;
        case ERunStore::LOSS:
            break;
    }
    stRunData.stProcessInfo.CleanFurtherHandles();
    if (row.eStream == ERunStream::CLOSE_FIRST) {
        CloseStream(spControl);
    }
    stRunData.stProcessInfo.hProcess = nullptr;
    stRunData.dwRunState = RUN_FINISHED;
    stRunData.iRunResult = row.eStore == ERunStore::RESULT ? outcome.iResult : 0;
}

// What a row says of output and processes. No lock is held: ending processes takes its time.
void CRunThread::EndProcesses(CRunControl& control, const RunRow& row) {
    CChildProcess& child = control.Child;
    if (row.eOutput == ERunOutput::SHUT && child.Stream() != nullptr) {
        CloseReadEnd(child.Stream(), control.WakeDescriptor());
    }
    if (row.eProcesses == ERunProcesses::LEAVE_PROCESSES || !child.WasStarted()) {
        return;
    }
    const bool bGrace = row.eProcesses == ERunProcesses::END;
    if (bGrace) {
        child.FindAgain();
    }
    const int iPid = child.Identity().iPid;
    CMaintMgr& mgr = control.Mgr;
    switch (CProcessTree(child, mgr.m_ProcReader, mgr.m_ProcessScan).End(bGrace ? END_GRACE : NO_GRACE)) {
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

// Closes the stream without waiting for a child that lives on. A line says when that cannot be.
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

namespace {

void FinishRun(CRunThread& run, _RunScriptData& stRunData, const std::shared_ptr<CRunControl>& spControl) {
    if (!Attempt("RunScriptThread", [&] { run.Finish(); })) {
        CRunThread::FinishWithoutMemory(stRunData, spControl);
    }
}

}  // namespace

void* CMaintMgr::RunScriptThread(void* pParam) {
    // From the first line on: a cancellation is honoured in the loop below alone, where it unwinds this frame only and
    // no lock is held.
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
            run.GiveUp(ERunEvent::CANCELLED);
            FinishRun(run, *pRunData, spControl);
            throw;
        } catch (const std::exception& error) {
            run.GiveUp(ERunEvent::STEP_FAILED);
            Attempt("RunScriptThread", [&] { LogFailedStep("RunScriptThread", error.what()); });
        }
        FinishRun(run, *pRunData, spControl);
    } catch (const std::exception& error) {
        Attempt("RunScriptThread", [&] { LogFailedStep("RunScriptThread", error.what()); });
        CRunThread::FinishWithoutMemory(*pRunData, spControl);  // not even the beginning found memory
    }
    return nullptr;
}
