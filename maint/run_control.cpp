#include "maint/run_control.h"

#include <sys/eventfd.h>
#include <unistd.h>

CRunControl::CRunControl(CMaintMgr& mgr) : Mgr(mgr), m_iWakeDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
}

CRunControl::~CRunControl() {
    if (m_iWakeDescriptor >= 0)
        close(m_iWakeDescriptor);
}

void CRunControl::Wake() const {
    if (m_iWakeDescriptor >= 0)
        eventfd_write(m_iWakeDescriptor, 1);
}
