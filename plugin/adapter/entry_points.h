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
//
// What the process must be like, since the plugin starts child processes and is a guest in it:
//
//   - SIGCHLD is neither ignored nor set to SA_NOCLDWAIT, and nobody waits for children that the host did not start:
//     waitpid(-1, ...) takes a run's end away. Runs that are being ended are stopped and continued, so that a handler
//     of SIGCHLD is called for that too.
//   - Threads that start scripts (the plugin's own, and those that call runonce_plugin) block no signals. Where one
//     does, its mask is empty for the moment of a launch, and a blocked signal may be delivered to it then.
//   - Cancelling a thread that is inside the plugin takes effect when it has left it.
//   - The plugin changes no signal disposition, working directory, umask, locale or environment. Scripts inherit them
//     as they are, with an empty signal mask.

/// The class id of the plugin.
inline constexpr char PLUGIN_CLSID[] = "F87FC278-D443-4C25-95CB-58D6C48E9128";

/// The plugin object: eight operations on the one plugin of the process.
struct PluginObjInterface {
    /// pInitParam: the host's QxInitBlock, whose parameter string says which INI file is read (qxhost/init_block.h).
    /// Returns 0; -2 when that file cannot be read; -1 or 0xE001xxxx on other failures.
    int (*Initialize)(void* pInitParam);
    /// Ends what is left of the plugin and destroys the receive sink, which must not be registered any more. Waits for
    /// the plugin's threads and for the host's threads that are inside it (a delivery, a run-once), at most 15 seconds:
    /// then a line "... threads[N] still running ..." is logged, and the endpoint must stay alive for good. Otherwise
    /// no thread runs the plugin's code when it returns.
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

/// The PluginFunTable (plugin_fun_table.h) for PLUGIN_CLSID (exact match), null for any other class id. Static.
void* create_plugin(const char* clsid);

/// Stops and uninitialises the plugin if it is running. 0, or -1 for any other class id.
int destroy_plugin(const char* clsid);

/// Runs the policy file of this name (".json" and all) from the policyprocess directory, waits until no run is left and
/// deletes the file. 0 when the policy was accepted, else -1; before Initialize, after Uninitialize and once that has
/// begun nothing is run. Any thread.
int runonce_plugin(char* arg);

int InitializePlugin(void);
void UninitializePlugin(void);

/// A PluginObjInterface for PLUGIN_CLSID, to be given back with DestroyObject; null on failure.
void* CreateObject(const char* pszName);

/// Gives back the plugin and frees pInterface, whatever pszName is.
///
/// Of a plugin that was started and not stopped it ends the runs and the threads and waits for deliveries and run-onces
/// that are inside it, as Stop and Uninitialize do. It does not leave the bus: the endpoint stays attached, and the
/// message types 20001, 1000 and 1001 stay registered. What is delivered then is refused. The receive sink lives on
/// until the Uninitialize of an object that is created later; before that, such a host unregisters the three types
/// itself.
void DestroyObject(const char* pszName, void* pInterface);
}
