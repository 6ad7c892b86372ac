#pragma once

#include "plugin/core/plugin_init_param.h"

/// The module number of the plugin in LogPrintC.
inline constexpr int QXPMAINT_MODULE = 93;

/// The version that get_version and the start line report.
inline constexpr char QXPMAINT_VERSION[] = "1.0.125";

/// The plugin core: the functions behind the table that create_plugin hands out. They run on the host's calling thread,
/// never two at once, except RunOnceScriptTask. One plugin a process.
namespace qxpmaint_impl {

/// 0 on success or when initialised already; -1 for a null block or callback; -2 when the INI file cannot be read.
int qxpmaint_init(PluginInitParam* pParam);
/// Always 0. On return no thread of the plugin runs its code, or a log line says that some were left.
int uninit();
/// Always 0.
int qxpmaint_start();
/// Always 0. Waits up to 60 seconds for the work thread and as long for the loader.
int qxpmaint_stop();
/// True between start and stop.
bool isrunning();
/// Runs a policy file of the policyprocess directory and waits for its end; any thread. False when it was not run.
bool RunOnceScriptTask(const char* pszID);

// Parts of init. Under the lock of init; they log, and throw nothing.

/// Reads the init parameter string, items "key=value" separated by ':', into g_szAgentType and g_szConfPath. False for
/// null or an empty string.
bool analyze_set_init_kv(const char* pszKv);
/// The handler of inih's ini_parse: reads the check cycle. Always non-zero: every entry counts as handled.
int qxpmaint_ini_parse_handler(void* pUser, const char* pszSection, const char* pszName, const char* pszValue);

// Two checks of the sibling daemon, for callers to come. Any thread; they throw nothing.

/// True when the process runs the daemon's executable.
bool IsWardenProc(int iPid);
/// The pid in the daemon's pid file, or -1.
int GetWardenPid();

}  // namespace qxpmaint_impl
