#pragma once

#include "plugin/core/plugin_init_param.h"

/// The functions that create_plugin hands out, a binary interface: a slot may change its implementation, never its
/// place or its signature, and no slot is ever null. The table is static; its owner is the plugin library, and nobody
/// frees it.
///
/// Unless a slot says otherwise it is called on the host's calling thread, never two at once, and takes nothing from
/// the caller to keep. No slot throws: one that an exception ended, such as for want of memory, logs it and
/// returns -1 or false.
struct PluginFunTable {
    /// Required. The version as text, static. Any thread.
    const char* (*get_version)();

    /// Reserved: return 0 and do nothing. Any thread.
    int (*reserved1)();
    int (*reserved2)();

    /// Required. Takes the adapter's callbacks from the block and writes the plugin's handlers into it. The block stays
    /// the adapter's; its kv is read during the call only.
    /// @return 0 on success or when initialised already, -1 for a null block or callback, -2 for an unreadable INI
    /// file.
    int (*init)(PluginInitParam* pParam);

    /// Required. Ends what init began; the block's callbacks are not called any more. 0.
    int (*uninit)();

    /// Required. Between init and uninit. 0.
    int (*start)();

    /// Required. Ends every run; may take up to two minutes. 0.
    int (*stop)();

    /// Required. True from start to stop. Any thread.
    bool (*isrunning)();

    /// Reserved: return 0 and do nothing. Any thread.
    int (*reserved8)();
    int (*reserved9)();
    int (*reserved10)();
    int (*reserved11)();
    int (*reserved12)();
    int (*reserved13)();
    int (*reserved14)();
};

static_assert(sizeof(PluginFunTable) == 15 * sizeof(void*), "fifteen function pointers and nothing else");
