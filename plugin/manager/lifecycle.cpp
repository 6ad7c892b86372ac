#include <cassert>
#include <new>

#include "plugin/manager/maint_log.h"
#include "plugin/manager/maint_mgr.h"
#include "plugin/platform/qx_log_print.h"
#include "plugin/platform/test_point.h"
#include "qxhost/critical_section.h"

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

/// How long Close waits for threads to end: more than the grace that ended scripts get, so that it is hit only when a
/// script cannot be killed or the host holds a thread.
constexpr int CLOSE_WAIT_MS = 15000;
/// A late policy may start runs while Close waits, so it looks again this often.
constexpr milliseconds CLOSE_PASS{100};

/// Makes "take the manager and count it" and "take the manager away" one step each.
constinit std::mutex g_UseLock;

/// Managers that were left to threads which did not end. Only reachable; used by those threads alone.
constinit std::atomic<CMaintMgr*> g_pLeftBehind{nullptr};

}  // namespace

std::atomic<CMaintMgr*> CMaintMgr::m_pThis{nullptr};

CMaintMgr::CMaintMgr() {
    QxInitializeCriticalSection(&m_csRunScriptList);
    QxInitializeCriticalSection(&m_csPolicyList);
    QxInitializeCriticalSection(&m_csWork);
    QxInitializeCriticalSection(&m_csWorkThread);
    m_hWorkEvent = CMainTTool::MaintCreateEvent(nullptr, 0, 0, nullptr);  // last: a member that throws would leave it
}

CMaintMgr::~CMaintMgr() {
    assert(m_PRunScriptList.empty());
    CMainTTool::MaintDestroyEvent(m_hWorkEvent);
    // A barrier: waits for a thread that is still inside one of these sections.
    CMainTTool::MaintLock(&m_csRunScriptList);
    CMainTTool::MaintUnLock(&m_csRunScriptList);
    CMainTTool::MaintLock(&m_csWorkThread);
    CMainTTool::MaintUnLock(&m_csWorkThread);

    QxDeleteCriticalSection(&m_csRunScriptList);
    QxDeleteCriticalSection(&m_csPolicyList);
    QxDeleteCriticalSection(&m_csWork);
    QxDeleteCriticalSection(&m_csWorkThread);
}

CMaintMgr* CMaintMgr::Instance() try {
    CMaintMgr* pThis = m_pThis.load();
    if (pThis) {
        return pThis;
    }
    auto* pNew = new (std::nothrow) CMaintMgr;
    if (pNew && !pNew->m_hWorkEvent) {
        // Without its event it would accept policies and never run one.
        delete pNew;
        pNew = nullptr;
    }
    if (m_pThis.compare_exchange_strong(pThis, pNew)) {
        return pNew;
    }
    delete pNew;  // another thread was first
    return pThis;
} catch (const std::bad_alloc&) {
    return nullptr;
}

CMaintMgrUse CMaintMgr::Use() {
    const std::lock_guard lock(g_UseLock);
    CMaintMgr* pThis = m_pThis.load();
    if (!pThis || !pThis->m_bInitialised) {
        return {};
    }
    return {*pThis, CThreadTicket::ForCaller(pThis->m_spGate)};
}

// From now on nobody gets the manager any more.
CMaintMgr* CMaintMgr::Withdraw() {
    const std::lock_guard lock(g_UseLock);
    CMaintMgr* pThis = m_pThis.exchange(nullptr);
    if (pThis) {
        pThis->m_bClosing = true;
    }
    return pThis;
}

void CMaintMgr::Close() {
    const CCancellationOff cancellationOff;
    // Withdrawn first, so that the number of those who use it can only fall.
    CMaintMgr* pThis = Withdraw();
    if (!pThis) {
        return;
    }
    const int iWait = TestableMilliseconds("CLOSE_WAIT", CLOSE_WAIT_MS);
    const bool bEnded = pThis->EndWhatIsLeft(steady_clock::now() + milliseconds(iWait));
    Attempt("Close", [pThis] { pThis->LogNeverRun(); });
    if (bEnded) {
        delete pThis;
        return;
    }
    Attempt("Close", [&] {
        QXLogPrint(4, MAINT_LOG_SOURCE, "Close", __LINE__,
                   "**qxpmaint CMaintMgr::Close threads[%u] still running after [%d]ms, the manager is left to them",
                   pThis->m_spGate->Count(), iWait);
    });
    // Kept reachable, so that leak checkers tell it from a manager that was lost.
    pThis->m_pNextLeftBehind = g_pLeftBehind.load();
    while (!g_pLeftBehind.compare_exchange_weak(pThis->m_pNextLeftBehind, pThis)) {
    }
}

// Ends the runs that Stop left and whatever a late policy or a run-once started, and waits for every thread.
bool CMaintMgr::EndWhatIsLeft(steady_clock::time_point deadline) {
    SetWork(0);
    do {
        // Each time: the event wakes one waiter only, and a run-once may wait beside the work thread.
        CMainTTool::MaintSetEvent(m_hWorkEvent);
        if (GetPRunScriptListSize() != 0) {
            Attempt("Close", [this] { DisposeScriptList(MT_STOPPLUGIN); });  // what failed is tried again
        }
        if (m_spGate->WaitEmpty(std::min(deadline, steady_clock::now() + CLOSE_PASS)) && GetPRunScriptListSize() == 0) {
            return true;
        }
    } while (steady_clock::now() < deadline);
    return false;
}

// A policy that was accepted and that no work thread took before the end: a stop came first.
void CMaintMgr::LogNeverRun() {
    const CMaintLockGuard lock(m_csPolicyList);
    for (const _MaintPolicyDetail& record : m_MaintPolicyList) {
        QXLogPrint(3, MAINT_LOG_SOURCE, "Close", __LINE__,
                   "*qxpmaint CMaintMgr::Close never run strID[%s] strScriptId[%s]", record.strID.c_str(),
                   record.strScriptId.c_str());
    }
}

int CMaintMgr::Init() {
    QXLogPrintStr(6, MAINT_LOG_SOURCE, "Init", __LINE__, "qxpmaint CMaintMgr::Init begin");
    m_strDataPath = CMainTTool::MaintGetCltPath() + "../data/qxpmaint/";
    CMainTTool::RecursiveCreateDir(m_strDataPath.c_str());
    m_bInitialised = true;
    QXLogPrintStr(6, MAINT_LOG_SOURCE, "Init", __LINE__, "qxpmaint CMaintMgr::Init end");
    return 1;
}

int CMaintMgr::Start() {
    QXLogPrintStr(6, MAINT_LOG_SOURCE, "Start", __LINE__, "qxpmaint CMaintMgr::Start begin");
    SetWork(1);
    QXLogPrintStr(6, MAINT_LOG_SOURCE, "Start", __LINE__, "qxpmaint CMaintMgr::Start end");
    return 1;
}

int CMaintMgr::UnInit() {
    QXLogPrintStr(6, MAINT_LOG_SOURCE, "UnInit", __LINE__, "qxpmaint CMaintMgr::UnInit begin");
    QXLogPrintStr(6, MAINT_LOG_SOURCE, "UnInit", __LINE__, "qxpmaint CMaintMgr::UnInit end");
    return 1;
}
