// What every thread of the manager looks at: the work flag, the work event, the queue and the list of runs. Nothing
// here calls another file of the manager.

#include <algorithm>

#include "plugin/manager/maint_mgr.h"

namespace {

/// The last sequence number before the count begins again.
constexpr uint32_t SEQUENCE_LAST = 0x7ffffffe;
/// What the host's wait returns when the time is over.
constexpr unsigned int WAIT_TIMED_OUT = 258;
/// How long a waiter keeps away from the event after it passed a signal on to the other one.
constexpr std::chrono::milliseconds PASS_ON_PAUSE{20};
/// How long a waiter keeps away from an event that cannot be waited on.
constexpr std::chrono::milliseconds BROKEN_EVENT_PAUSE{300};

}  // namespace

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

unsigned int CMaintMgr::GetPRunScriptListSize() {
    const CMaintLockGuard lock(m_csRunScriptList);
    return static_cast<unsigned int>(m_PRunScriptList.size());
}

bool CMaintMgr::HasFinishedRun() {
    const CMaintLockGuard lock(m_csRunScriptList);
    return std::any_of(m_PRunScriptList.begin(), m_PRunScriptList.end(),
                       [](const _RunScriptData* pRunData) { return pRunData && pRunData->dwRunState == RUN_FINISHED; });
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
