#include "maint/test_point.h"

#ifdef QXPMAINT_TEST_HOOKS
std::atomic<void (*)(const char*)> g_pfnTestPoint{nullptr};
#endif
