#pragma once

/// The block that adapter and plugin core exchange at init. Owned by the adapter, or by a host that uses the function
/// table itself. Bus threads read the four handlers while the host's thread writes them: access goes through
/// std::atomic_ref.
struct PluginInitParam {
    // From the adapter, before init.
    void (*notify_to_mgr)(int, const unsigned char*);
    /// Wraps JSON text in an envelope and sends it to the manager component. 0 when queued.
    int (*send_to_mgr)(int json_data_type, const char* name1, const char* name2, int value, const unsigned char* data,
                       unsigned int len);

    // From the plugin core, inside init. Called on bus threads, possibly on several at once.
    int (*plugin_recv)(const char* msg);
    int (*plugin_connect)(const char* ip, unsigned short port);
    int (*plugin_disconnect)();
    int (*notify_mgr_to_plugin)(int msg_type, const char* buf);

    /// The init parameter string, valid during init only.
    const char* kv;
};

static_assert(sizeof(PluginInitParam) == 7 * sizeof(void*), "seven pointers and nothing else");
