#include "plugin/platform/pause.h"

#include <cerrno>
#include <ctime>

void MaintPause(std::chrono::milliseconds time) {
    timespec stDeadline{};
    clock_gettime(CLOCK_MONOTONIC, &stDeadline);
    const long lNanoseconds = stDeadline.tv_nsec + time.count() % 1000 * 1'000'000;
    stDeadline.tv_sec += time.count() / 1000 + lNanoseconds / 1'000'000'000;
    stDeadline.tv_nsec = lNanoseconds % 1'000'000'000;
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &stDeadline, nullptr) == EINTR) {
    }
}
