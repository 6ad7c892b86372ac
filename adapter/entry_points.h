#pragma once

// The symbols that libqxpmaint.so exports, and the object that CreateObject returns. A host looks the functions up by
// exactly these names and calls them in this order, never two at once, except runonce_plugin, which may be called from
// any thread between Initialize and Uninitialize:
//
//   CreateObject(PLUGIN_CLSID) -> SetCtx(endpoint) -> Initialize(init block) -> Start
//   -> ... -> Stop -> Uninitialize -> DestroyObject(PLUGIN_CLSID, object)
//
// Start may not be called twice without Stop between. Stop and Uninitialize must not be called from within a delivery
// of the bus: the receive sink dies in Uninitialize, and what makes that safe is that UnregisterReceive, called by
// Stop, returns only when no delivery is in flight, which it cannot promise to the delivery it is called from.
//
// InitializePlugin and UninitializePlugin do nothing and may come anywhere.

/// The class id of the plugin.
inline constexpr char PLUGIN_CLSID[] = "F87FC278-D443-4C25-95CB-58D6C48E9128";

/// The plugin object: eight operations on the one plugin of the process.
struct PluginObjInterface {
    /// pInitParam: the host's QxInitBlock. Returns 0; -1, -2 or 0xE001xxxx on failure.
    int (*Initialize)(void* pInitParam);
    /// Ends what is left of the plugin: when it returns, no thread runs the plugin's code (bounded, see the log).
    void (*Uninitialize)();
    /// Registers on the bus, asks for the server's address and starts the plugin. 0 on success.
    int (*Start)();
    /// Ends every run and leaves the bus. May take up to two minutes when the host holds a send. 0 on success.
    int (*Stop)();
    /// 0 created, 1 initialised, 2 started, 3 stopped, 4 uninitialised.
    unsigned int (*GetStatus)();
    /// The endpoint that SetCtx stored; the argument is ignored.
    void* (*GetCtx)(void* pUnused);
    /// pData: the host's IXBusMREndPoint4. Not owned; must outlive Uninitialize.
    void (*SetCtx)(void* pData);
    /// 0 when pInfo is not null, else -1.
    int (*Info)(void* pInfo);
};

static_assert(sizeof(PluginObjInterface) == 8 * sizeof(void*), "eight function pointers and nothing else");

extern "C" {

/// The table of fifteen plugin functions for PLUGIN_CLSID (exact match), null for any other class id. Static.
void* create_plugin(const char* clsid);

/// Stops and uninitialises the plugin if it is running. 0, or -1 for any other class id.
int destroy_plugin(const char* clsid);

/// Runs the policy file of this name (".json" and all) from the policyprocess directory, waits until no run is left and
/// deletes the file. 0 when the policy was accepted, else -1. Any thread.
int runonce_plugin(char* arg);

int InitializePlugin(void);
void UninitializePlugin(void);

/// A PluginObjInterface for PLUGIN_CLSID, to be given back with DestroyObject; null on failure.
void* CreateObject(const char* pszName);

/// Gives back the plugin and frees pInterface, whatever pszName is.
void DestroyObject(const char* pszName, void* pInterface);
}
