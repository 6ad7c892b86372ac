#pragma once

#include <pthread.h>

/// Holds off the cancellation of the calling thread. The destructors of this library close files, and a thread that is
/// cancelled inside a destructor ends the process; so everything that reads or writes does it under one of these.
class CNoCancel {
public:
    CNoCancel() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_iBefore); }
    ~CNoCancel() { pthread_setcancelstate(m_iBefore, nullptr); }
    CNoCancel(const CNoCancel&) = delete;
    CNoCancel& operator=(const CNoCancel&) = delete;

private:
    int m_iBefore = PTHREAD_CANCEL_ENABLE;
};
