#pragma once

#include <pthread.h>

#include "plugin/platform/main_t_tool.h"

/// Holds one of the manager's locks for a scope.
class CMaintLockGuard {
public:
    explicit CMaintLockGuard(pthread_mutex_t& lock) : m_pLock(&lock) { CMainTTool::MaintLock(m_pLock); }
    ~CMaintLockGuard() { CMainTTool::MaintUnLock(m_pLock); }
    CMaintLockGuard(const CMaintLockGuard&) = delete;
    CMaintLockGuard& operator=(const CMaintLockGuard&) = delete;

private:
    pthread_mutex_t* m_pLock;
};
