#include "plugin/manager/run_control.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cassert>

#include "plugin/platform/main_t_tool.h"

CRunControl::CRunControl(CMaintMgr& mgr, CProcReader& reader)
    : Mgr(mgr), Child(reader), m_Wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
}

void CRunControl::Wake() const {
    if (m_Wake) {
        eventfd_write(m_Wake.Get(), 1);
    }
}

bool CRunControl::CloseStream(const std::shared_ptr<CRunControl>& spControl) {
    CChildProcess& child = spControl->Child;
    if (!child.Stream()) {
        return true;
    }
    if (child.HasExited()) {
        CMainTTool::CleanHandle(child.ReleaseStream());
        return true;
    }
    // The block goes to the thread through the block itself: handing it over needs no memory.
    assert(spControl->m_spForCloser == nullptr);
    spControl->m_spForCloser = spControl;
    spControl->m_pClosing = child.Stream();
    pthread_t threadId{};
    if (pthread_create(&threadId, nullptr, CloseStreamThread, spControl.get()) != 0) {
        spControl->m_spForCloser.reset();
        return false;
    }
    child.ReleaseStream();
    return true;
}

void* CRunControl::CloseStreamThread(void* pParam) {
    DisableCancellation();
    pthread_detach(pthread_self());
    prctl(PR_SET_NAME, "qxmaintclose");
    // Not counted by the manager's gate: it touches nothing of the manager, and may last as long as the child does.
    const std::shared_ptr<CRunControl> spControl = std::move(static_cast<CRunControl*>(pParam)->m_spForCloser);
    CMainTTool::CleanHandle(spControl->m_pClosing);
    spControl->bChildReaped = true;
    spControl->Wake();
    return nullptr;
}
