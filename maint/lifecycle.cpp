#include <list>
#include <new>

#include "maint/maint_lock.h"
#include "maint/maint_mgr.h"
#include "maint/thread_gate.h"
#include "qxhost/critical_section.h"
#include "tool/qx_log_print.h"

namespace {

/// How long Close waits for threads to end: more than the grace that ended scripts get, so that it is hit only when a
/// script cannot be killed or the host holds a thread.
constexpr int CLOSE_WAIT_MS = 15000;
/// A late policy may start runs while Close waits, so it looks again this often.
constexpr int CLOSE_PASS_MS = 100;

/// The last sequence number before the count begins again.
constexpr uint32_t SEQUENCE_LAST = 0x7ffffffe;

// Managers that were left to threads which did not end. Only reachable; used by those threads alone.
std::list<CMaintMgr*>& LeftBehind() {
    static auto* const pList = new std::list<CMaintMgr*>;
    return *pList;
}

}  // namespace

std::atomic<CMaintMgr*> CMaintMgr::m_pThis{nullptr};

CMaintMgr::CMaintMgr() : m_hWorkEvent(CMainTTool::MaintCreateEvent(nullptr, 0, 0, nullptr)) {
    QxInitializeCriticalSection(&m_csRunScriptList);
    QxInitializeCriticalSection(&m_csPolicyList);
    QxInitializeCriticalSection(&m_csWork);
    QxInitializeCriticalSection(&m_csWorkThread);
}

CMaintMgr::~CMaintMgr() {
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

CMaintMgr* CMaintMgr::Instance() {
    CMaintMgr* pThis = m_pThis.load();
    if (pThis)
        return pThis;
    auto* pNew = new (std::nothrow) CMaintMgr;
    if (m_pThis.compare_exchange_strong(pThis, pNew))
        return pNew;
    delete pNew;  // another thread was first
    return pThis;
}

void CMaintMgr::Close() {
    CMaintMgr* pThis = m_pThis.load();
    if (!pThis)
        return;
    int iCancelState = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &iCancelState);
    bool bEnded = pThis->EndWhatIsLeft();
    m_pThis.store(nullptr);
    // A run-once that took its place in the gate meanwhile may have got the pointer; a later one does not.
    bEnded = bEnded && pThis->EndWhatIsLeft();
    if (bEnded)
        delete pThis;
    else
        QXLogPrint(4, MAINT_LOG_SOURCE, __FUNCTION__, __LINE__,
                   "**qxpmaint CMaintMgr::Close threads[%u] still running after [%d]ms, the manager is left to them",
                   CThreadGate::Instance().Count(), CLOSE_WAIT_MS);
    pthread_setcancelstate(iCancelState, nullptr);
    if (!bEnded)
        LeftBehind().push_back(pThis);
}

// Ends the runs that Stop left and whatever a late policy or a run-once started, and waits for every thread.
bool CMaintMgr::EndWhatIsLeft() {
    SetWork(0);
    for (int iWaited = 0; iWaited < CLOSE_WAIT_MS; iWaited += CLOSE_PASS_MS) {
        CMainTTool::MaintSetEvent(m_hWorkEvent);
        if (GetPRunScriptListSize() != 0)
            DisposeScriptList(MT_STOPPLUGIN);
        if (CThreadGate::Instance().WaitEmpty(CLOSE_PASS_MS) && GetPRunScriptListSize() == 0)
            return true;
    }
    return false;
}

int CMaintMgr::Init() {
    QXLogPrintStr(6, MAINT_LOG_SOURCE, __FUNCTION__, __LINE__, "qxpmaint CMaintMgr::Init begin");
    m_strDataPath = CMainTTool::MaintGetCltPath() + "../data/qxpmaint/";
    CMainTTool::RecursiveCreateDir(m_strDataPath.c_str());
    QXLogPrintStr(6, MAINT_LOG_SOURCE, __FUNCTION__, __LINE__, "qxpmaint CMaintMgr::Init end");
    return 1;
}

int CMaintMgr::Start() {
    QXLogPrintStr(6, MAINT_LOG_SOURCE, __FUNCTION__, __LINE__, "qxpmaint CMaintMgr::Start begin");
    SetWork(1);
    QXLogPrintStr(6, MAINT_LOG_SOURCE, __FUNCTION__, __LINE__, "qxpmaint CMaintMgr::Start end");
    return 1;
}

int CMaintMgr::UnInit() {
    QXLogPrintStr(6, MAINT_LOG_SOURCE, __FUNCTION__, __LINE__, "qxpmaint CMaintMgr::UnInit begin");
    QXLogPrintStr(6, MAINT_LOG_SOURCE, __FUNCTION__, __LINE__, "qxpmaint CMaintMgr::UnInit end");
    return 1;
}

int CMaintMgr::GetWork() {
    const CMaintLockGuard lock(m_csWork);
    return m_iWork;
}

void CMaintMgr::SetWork(int iWork) {
    const CMaintLockGuard lock(m_csWork);
    m_iWork = iWork;
}

unsigned int CMaintMgr::GetSequenceIndex() {
    uint32_t dwLast = m_dwSequenceIndex.load();
    uint32_t dwNext = 0;
    do {
        dwNext = dwLast < SEQUENCE_LAST ? dwLast + 1 : 1;
    } while (!m_dwSequenceIndex.compare_exchange_weak(dwLast, dwNext));
    return dwNext;
}

bool CMaintMgr::CleanOldLog() {
    return true;
}

bool CMaintMgr::ReadLogFile(const CPString& /*strPath*/, CPString& /*strContent*/) {
    return true;
}
