#include <unistd.h>

#include <memory>

#include "plugin/manager/attempt.h"
#include "plugin/manager/maint_lock.h"
#include "plugin/manager/maint_mgr.h"
#include "plugin/platform/pause.h"
#include "plugin/platform/qx_log_print.h"

namespace {

constexpr long RUN_ONCE_WAIT_MS = 5000;
/// What the host's wait returns when the time is over.
constexpr unsigned int WAIT_TIMED_OUT = 258;
/// How long a waiter keeps away from the event after it passed a signal on to the other one.
constexpr std::chrono::milliseconds PASS_ON_PAUSE{20};
/// How long a waiter keeps away from an event that cannot be waited on.
constexpr std::chrono::milliseconds BROKEN_EVENT_PAUSE{300};

}  // namespace

unsigned int CMaintMgr::GetPRunScriptListSize() {
    const CMaintLockGuard lock(m_csRunScriptList);
    return static_cast<unsigned int>(m_PRunScriptList.size());
}

int CMaintMgr::SetPolicy(const char* lpJsonData, CPString strID, unsigned int dwPolicyType) {
    if (!lpJsonData || !*lpJsonData) {
        QXLogPrintStr(3, MAINT_LOG_SOURCE, "SetPolicy", __LINE__, "*qxpmaint CMaintMgr::SetPolicy lpJsonData is NULL");
        return 0;
    }
    const auto isClosing = [&] {
        if (m_bClosing) {
            QXLogPrint(3, MAINT_LOG_SOURCE, "SetPolicy", __LINE__, "*qxpmaint CMaintMgr::SetPolicy closing strID[%s]",
                       strID.c_str());
        }
        return m_bClosing.load();
    };
    if (isClosing()) {
        return 0;
    }
    std::list<_MaintPolicyDetail> maintPolicyList;
    if (!ParsePolicy(lpJsonData, strID, dwPolicyType, maintPolicyList)) {
        return 0;
    }
    if (maintPolicyList.empty()) {
        QXLogPrintStr(3, MAINT_LOG_SOURCE, "SetPolicy", __LINE__,
                      "*qxpmaint CMaintMgr::SetPolicy maintPolicyList is 0");
        return 0;
    }
    const auto dwSize = static_cast<unsigned int>(GetPRunScriptListSize() + maintPolicyList.size());
    if (dwSize >= MaxRunThreadCount * 2) {
        QXLogPrint(3, MAINT_LOG_SOURCE, "SetPolicy", __LINE__,
                   "*qxpmaint CMaintMgr::SetPolicy GetPRunScriptListSize dwSize[%u] >= MaxRunThreadCount * 2", dwSize);
        return 0;
    }
    // Checking signatures takes its time. A close that begins after this names what it finds queued.
    if (isClosing()) {
        return 0;
    }
    CreateWorkThread();
    {
        const CMaintLockGuard lock(m_csPolicyList);
        m_MaintPolicyList.splice(m_MaintPolicyList.end(), maintPolicyList);
    }
    CMainTTool::MaintSetEvent(m_hWorkEvent);
    return 1;
}

// The work thread, if there is none. Never throws once the thread exists.
void CMaintMgr::CreateWorkThread() {
    const CMaintLockGuard lock(m_csWorkThread);
    if (m_u64WorkThreadId != 0) {
        return;
    }
    std::unique_ptr<WorkStart> spStart(new WorkStart{*this, CThreadTicket::ForNewThread(m_spGate)});
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

void CMaintMgr::ResumeQueued() {
    if (m_bClosing || !GetWork() || !HasQueuedPolicy()) {
        return;
    }
    CreateWorkThread();
    CMainTTool::MaintSetEvent(m_hWorkEvent);
}

bool CMaintMgr::HasQueuedPolicy() {
    const CMaintLockGuard lock(m_csPolicyList);
    return !m_MaintPolicyList.empty();
}

// True when the event was signalled.
bool CMaintMgr::WaitWorkEvent(long lMilliseconds) {
    const unsigned int dwWait = CMainTTool::MaintWaitEvent(m_hWorkEvent, lMilliseconds);
    if (dwWait != 0 && dwWait != WAIT_TIMED_OUT) {
        MaintPause(BROKEN_EVENT_PAUSE);  // an event that fails at once must not make this a busy loop
    }
    return dwWait == 0;
}

void CMaintMgr::PassSignalOn() {
    CMainTTool::MaintSetEvent(m_hWorkEvent);
    MaintPause(PASS_ON_PAUSE);
}

int CMaintMgr::RunOnceTask(const std::list<_MaintPolicyDetail>& list) {
    if (list.empty() || m_bClosing) {
        return 0;
    }
    // The last signal taken here may have stood for a policy as well, so one is given when this ends.
    struct CWaiting {
        explicit CWaiting(CMaintMgr& mgr) : m_Mgr(mgr) { ++m_Mgr.m_iRunOnceWaiting; }
        ~CWaiting() {
            --m_Mgr.m_iRunOnceWaiting;
            CMainTTool::MaintSetEvent(m_Mgr.m_hWorkEvent);
        }
        CWaiting(const CWaiting&) = delete;
        CWaiting& operator=(const CWaiting&) = delete;
        CMaintMgr& m_Mgr;
    };
    const CWaiting waiting(*this);
    if (!RunNewScript(list)) {
        return 0;
    }
    do {
        if (WaitWorkEvent(RUN_ONCE_WAIT_MS) && GetWork() && HasQueuedPolicy()) {
            PassSignalOn();  // it was meant for the work thread, which waits for the same event
        }
        DisposeScriptList(MT_RUNCOMPLETE);
    } while (GetPRunScriptListSize() != 0);
    return 1;
}
