#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdlib>
#include <memory>

// What the C interfaces have in common: texts for free(), and callers that may be cancelled.

struct FreeDeleter {
    void operator()(char* p) const { std::free(p); }
};

/// Bytes from malloc, as the C interfaces hand them out.
using HeapText = std::unique_ptr<char[], FreeDeleter>;

/// Null when memory is short.
inline HeapText AllocateHeapText(size_t size) {
    return HeapText(static_cast<char*>(std::malloc(size)));
}

/// Holds off the cancellation of the calling thread. The destructors of this library close files, and a thread that is
/// cancelled inside a destructor ends the process; so everything that reads or writes does it under one of these.
class CancellationOff {
public:
    CancellationOff() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    ~CancellationOff() { pthread_setcancelstate(before_, nullptr); }
    CancellationOff(const CancellationOff&) = delete;
    CancellationOff& operator=(const CancellationOff&) = delete;

private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};
