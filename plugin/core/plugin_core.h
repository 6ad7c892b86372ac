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

}  // namespace qxpmaint_impl
