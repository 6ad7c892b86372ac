#pragma once

// Named places of the manager at which a test can hold a thread, to force an order of events that is rare otherwise. In
// a build without QXPMAINT_TEST_HOOKS, and so in every release, they are nothing.

#ifdef QXPMAINT_TEST_HOOKS

#include <atomic>

/// Called by the thread that reaches a place, with the place's name; null for none.
extern std::atomic<void (*)(const char* pszPoint)> g_pfnTestPoint;

inline void TestPoint(const char* pszPoint) {
    if (auto* pfnTestPoint = g_pfnTestPoint.load()) {
        pfnTestPoint(pszPoint);
    }
}

/// A time that a test may shorten: the environment variable QXPMAINT_TEST_<NAME>_MS in place of the given one.
int TestableMilliseconds(const char* pszName, int iMilliseconds);

#else

inline void TestPoint(const char* /*pszPoint*/) {
}

inline int TestableMilliseconds(const char* /*pszName*/, int iMilliseconds) {
    return iMilliseconds;
}

#endif
