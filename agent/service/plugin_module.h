#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>

#include "plugin/adapter/entry_points.h"
#include "qxhost/bus.h"

namespace qxpagent {

/// The functions of a plugin library that a host calls.
struct PluginEntryPoints {
    decltype(&::create_plugin) create_plugin = nullptr;
    decltype(&::runonce_plugin) runonce_plugin = nullptr;
    decltype(&::CreateObject) create_object = nullptr;
    decltype(&::DestroyObject) destroy_object = nullptr;
    // The public key that the plugin verifies scripts with: modulus and exponent as hexadecimal digits.
    const char* rsa_modulus = nullptr;
    const char* rsa_exponent = nullptr;
};

/// Loads a plugin library and looks its functions up. The library stays loaded for the life of the process: its threads
/// may be in their last instructions after it has been stopped. Throws StartupError.
PluginEntryPoints LoadPlugin(const std::filesystem::path& path);

/// The directory that the plugin's library was loaded from, absolute; empty when it cannot be found out.
std::filesystem::path PluginDirectory(const PluginEntryPoints& entry_points);

/// The one plugin of this process, taken through its life in the only order that it allows. A step is undone only when
/// it was done, and in reverse.
///
/// Start, Stop and Finish are called from one thread; the rest may be called from any.
class PluginModule {
public:
    explicit PluginModule(const PluginEntryPoints& entry_points) : entry_points_(entry_points) {}
    ~PluginModule();
    PluginModule(const PluginModule&) = delete;
    PluginModule& operator=(const PluginModule&) = delete;

    /// Creates, initialises and starts the plugin on this endpoint, which must outlive Finish. Throws StartupError, and
    /// then nothing of the plugin is left.
    void Start(IXBusMREndPoint4& endpoint, const std::string& init_param);

    /// Refuses run-once calls from now on, and stops the plugin. May take minutes. Nothing happens when not started.
    void Stop();

    /// Waits for run-once calls to return, then uninitialises and destroys the plugin. False when a run-once call has
    /// not returned within twice kRunOnceEndTime: its thread is still inside the plugin and cannot be joined.
    bool Finish();
    static constexpr std::chrono::seconds kRunOnceEndTime{30};

    /// Runs a policy file of the process directory by its name and waits for it to end. True when the plugin accepted
    /// it; nothing when the plugin is not running. Scripts start with the signal mask of no signal blocked.
    std::optional<bool> RunOnce(const std::string& name);

    /// The plugin's GetStatus as it was after the last step: 0 created … 4 uninitialised.
    unsigned int Status() const { return status_; }
    /// The plugin's version, empty before Start, which it must not be called during.
    std::string Version() const { return version_; }

private:
    enum class Step { kNone, kCreated, kInitialized, kStarted, kStopped };

    void UndoFrom(Step step);

    const PluginEntryPoints entry_points_;

    // Used by the thread that starts and stops.
    PluginObjInterface* object_ = nullptr;
    Step step_ = Step::kNone;

    std::string version_;  // constant after Start

    std::atomic<unsigned int> status_{0};

    std::mutex mutex_;
    std::condition_variable run_once_ended_;
    // Guarded by mutex_.
    bool run_once_open_ = false;
    int run_once_calls_ = 0;
};

}  // namespace qxpagent
