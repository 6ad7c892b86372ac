#include "qxhost/tick.h"

#include <ctime>

unsigned long QxGetTickCount() {
    timespec stNow = {};
    clock_gettime(CLOCK_MONOTONIC, &stNow);
    return static_cast<unsigned long>(stNow.tv_sec) * 1000 + static_cast<unsigned long>(stNow.tv_nsec) / 1'000'000;
}
