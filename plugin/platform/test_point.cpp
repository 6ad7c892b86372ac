#include "plugin/platform/test_point.h"

#ifdef QXPMAINT_TEST_HOOKS

#include <cstdio>
#include <cstdlib>

std::atomic<void (*)(const char*)> g_pfnTestPoint{nullptr};

int TestableMilliseconds(const char* pszName, int iMilliseconds) {
    char szVariable[64];
    snprintf(szVariable, sizeof szVariable, "QXPMAINT_TEST_%s_MS", pszName);
    const char* pszValue = getenv(szVariable);
    return pszValue ? static_cast<int>(strtol(pszValue, nullptr, 10)) : iMilliseconds;
}

#endif
