#include "plugin/core/plugin_state.h"

namespace qxpmaint_impl {

pthread_mutex_t g_InitLock = PTHREAD_MUTEX_INITIALIZER;
bool g_bInited = false;
std::atomic<decltype(PluginInitParam::send_to_mgr)> g_qxpmaint_send_to_mgr{nullptr};
std::atomic<decltype(PluginInitParam::notify_to_mgr)> g_pNotifyToMgr{nullptr};
char g_szAgentType[64];
char g_szConfPath[256];
std::atomic<long> g_lCheckCycle{10};
char g_szPolicyFilePath[512];
char g_szPolicyProcessPath[512];
char g_szResultFilePath[512];
std::atomic<uint64_t> g_u64ResultFileIndex{0};
std::atomic<bool> g_bRunning{false};
pthread_mutex_t g_LoadThreadLock = PTHREAD_MUTEX_INITIALIZER;
unsigned long g_LoadThreadId = 0;
int g_iLoadThreadState = 0;

}  // namespace qxpmaint_impl
