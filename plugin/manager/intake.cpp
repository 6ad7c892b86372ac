#include "plugin/manager/maint_log.h"
#include "plugin/manager/maint_mgr.h"
#include "plugin/platform/qx_log_print.h"

namespace {

constexpr long RUN_ONCE_WAIT_MS = 5000;

}  // namespace

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
    // The thread before the queue: what this throws refuses the policy, which must not be queued then. That the thread
    // finds the queue empty does no harm, since the signal comes last.
    CreateWorkThread();
    {
        const CMaintLockGuard lock(m_csPolicyList);
        m_MaintPolicyList.splice(m_MaintPolicyList.end(), maintPolicyList);
    }
    CMainTTool::MaintSetEvent(m_hWorkEvent);
    return 1;
}

void CMaintMgr::ResumeQueued() {
    if (m_bClosing || !GetWork() || !HasQueuedPolicy()) {
        return;
    }
    CreateWorkThread();
    CMainTTool::MaintSetEvent(m_hWorkEvent);
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
    // The list alone says when to end: a signal may have been for the work thread, or have merged with another.
    do {
        if (WaitWorkEvent(RUN_ONCE_WAIT_MS) && GetWork() && HasQueuedPolicy()) {
            PassSignalOn();  // it was meant for the work thread, which waits for the same event
        }
        DisposeScriptList(MT_RUNCOMPLETE);
    } while (GetPRunScriptListSize() != 0);
    return 1;
}
