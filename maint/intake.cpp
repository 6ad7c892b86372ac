#include <unistd.h>
#include <ctime>

#include "maint/maint_lock.h"
#include "maint/maint_mgr.h"
#include "maint/thread_gate.h"
#include "tool/qx_log_print.h"

namespace {

constexpr long RUN_ONCE_WAIT_MS = 5000;
/// How long a waiter keeps away from the event after it passed a signal on to the other one.
constexpr timespec PASS_ON_PAUSE{0, 20'000'000};

}  // namespace

unsigned int CMaintMgr::GetPRunScriptListSize() {
    const CMaintLockGuard lock(m_csRunScriptList);
    return static_cast<unsigned int>(m_PRunScriptList.size());
}

int CMaintMgr::SetPolicy(const char* lpJsonData, CPString strID, unsigned int dwPolicyType) {
    if (!lpJsonData || !*lpJsonData) {
        QXLogPrintStr(3, MAINT_LOG_SOURCE, __FUNCTION__, __LINE__, "*qxpmaint CMaintMgr::SetPolicy lpJsonData is NULL");
        return 0;
    }
    std::list<_MaintPolicyDetail> maintPolicyList;
    if (!ParsePolicy(lpJsonData, std::move(strID), dwPolicyType, maintPolicyList))
        return 0;
    if (maintPolicyList.empty()) {
        QXLogPrintStr(3, MAINT_LOG_SOURCE, __FUNCTION__, __LINE__,
                      "*qxpmaint CMaintMgr::SetPolicy maintPolicyList is 0");
        return 0;
    }
    const auto dwSize = static_cast<unsigned int>(GetPRunScriptListSize() + maintPolicyList.size());
    if (dwSize >= MaxRunThreadCount * 2) {
        QXLogPrint(3, MAINT_LOG_SOURCE, __FUNCTION__, __LINE__,
                   "*qxpmaint CMaintMgr::SetPolicy GetPRunScriptListSize dwSize[%u] >= MaxRunThreadCount * 2", dwSize);
        return 0;
    }
    {
        const CMaintLockGuard lock(m_csWorkThread);
        if (m_u64WorkThreadId == 0) {
            CThreadTicket ticket;
            ticket.Take();
            const int iResult = CMainTTool::MaintCreateThread(WorkThread, this, m_u64WorkThreadId);
            if (iResult == 0)
                ticket.HandOver();
            else
                m_u64WorkThreadId = 0;  // the next admitted policy tries again
            QXLogPrint(2, MAINT_LOG_SOURCE, __FUNCTION__, __LINE__,
                       "qxpmaint CMaintMgr::SetPolicyMaintCreateThread uThreadID[%u] m_u64WorkThreadId[%llu]",
                       static_cast<unsigned int>(iResult), m_u64WorkThreadId);
        }
    }
    {
        const CMaintLockGuard lock(m_csPolicyList);
        m_MaintPolicyList.splice(m_MaintPolicyList.end(), maintPolicyList);
    }
    CMainTTool::MaintSetEvent(m_hWorkEvent);
    return 1;
}

bool CMaintMgr::HasQueuedPolicy() {
    const CMaintLockGuard lock(m_csPolicyList);
    return !m_MaintPolicyList.empty();
}

void CMaintMgr::PassSignalOn() {
    CMainTTool::MaintSetEvent(m_hWorkEvent);
    nanosleep(&PASS_ON_PAUSE, nullptr);
}

int CMaintMgr::RunOnceTask(const std::list<_MaintPolicyDetail>& list) {
    if (list.empty())
        return 0;
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
    if (!RunNewScript(list))
        return 0;
    do {
        const bool bSignalled = CMainTTool::MaintWaitEvent(m_hWorkEvent, RUN_ONCE_WAIT_MS) == 0;
        if (bSignalled && GetWork() && HasQueuedPolicy())
            PassSignalOn();  // it was meant for the work thread, which waits for the same event
        DisposeScriptList(MT_RUNCOMPLETE);
    } while (GetPRunScriptListSize() != 0);
    return 1;
}
