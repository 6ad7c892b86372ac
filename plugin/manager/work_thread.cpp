#include <sys/prctl.h>

#include <cxxabi.h>

#include <memory>

#include "plugin/manager/maint_log.h"
#include "plugin/manager/maint_mgr.h"
#include "plugin/platform/qx_log_print.h"
#include "plugin/platform/test_point.h"

namespace {

constexpr int WORK_WAIT_MS = 5000;
constexpr int STOP_POLLS = 200;
constexpr int STOP_POLL_MS = 300;

}  // namespace

// Creates the work thread if there is none. Does not throw any more once the thread exists.
// run.
void CMaintMgr::CreateWorkThread() {
    const CMaintLockGuard lock(m_csWorkThread);
    if (m_u64WorkThreadId != 0) {
        return;
    }
    std::unique_ptr<WorkStart> spStart(new WorkStart{*this, CThreadTicket::ForNewThread(m_spGate)});
    // Under the lock: the thread stores nothing itself, and whether it is the work thread it asks under this lock.
    const int iResult = CMainTTool::MaintCreateThread(WorkThread, spStart.get(), m_u64WorkThreadId);
    if (iResult == 0) {
        static_cast<void>(spStart.release());  // the thread's
    } else {
        m_u64WorkThreadId = 0;  // the next admitted policy tries again, and so does the loader
    }
    Attempt("SetPolicy", [&] {
        QXLogPrint(2, MAINT_LOG_SOURCE, "SetPolicy", __LINE__,
                   "qxpmaint CMaintMgr::SetPolicyMaintCreateThread uThreadID[%u] m_u64WorkThreadId[%llu]",
                   static_cast<unsigned int>(iResult), m_u64WorkThreadId);
        if (iResult != 0) {
            QXLogPrint(3, MAINT_LOG_SOURCE, "SetPolicy", __LINE__,
                       "*qxpmaint CMaintMgr::SetPolicy MaintCreateThread Error[%d]", iResult);
        }
    });
}

void CMaintMgr::WorkPass() {
    if (!WaitWorkEvent(TestableMilliseconds("WORK_WAIT", WORK_WAIT_MS)) || !GetWork()) {
        return;
    }
    // Finished runs first: what is reported and freed makes room for the queued ones.
    DisposeScriptList(MT_RUNCOMPLETE);
    if (!IsWorkThread()) {
        return;  // given up by a stop while the host held a report: the queue is not this thread's any more
    }
    // Taken as a whole, and run without the lock: whoever admits a policy does not wait for scripts being written.
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
    // The pass has used its signal up without doing all that the signal stood for.
    if (HasQueuedPolicy() || HasFinishedRun()) {
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

// The order: the flag first, so that nothing new is started; then the event, which ends the work thread's wait at once;
// then its end is waited for, since a pass that is under way may still be starting runs; and only then are the runs put
// away, or those would be left. A host that holds a report holds the work thread too. Cancelling it does not interrupt
// the host, but lets it end as soon as the host lets it go.
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
