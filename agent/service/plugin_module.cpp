#include "agent/service/plugin_module.h"

#include <dlfcn.h>
#include <fmt/format.h>
#include <pthread.h>

#include <array>
#include <climits>
#include <csignal>
#include <system_error>

#include "agent/log.h"
#include "base/startup_error.h"
#include "policy/vocabulary.h"
#include "qxhost/init_block.h"
#include "qxhost/module.h"

namespace qxpagent {

namespace {

template <typename Function>
void LookUp(void* library, const std::filesystem::path& path, const char* name, Function& function) {
    function = reinterpret_cast<Function>(dlsym(library, name));
    if (function == nullptr) {
        throw qxpbase::StartupError(
            fmt::format("The plugin {} does not export {}: name a libqxpmaint.so with --plugin.", path.string(), name));
    }
}

// Scripts inherit the signal mask of the thread that starts them, and the HTTP server's threads block SIGPIPE.
class NoSignalBlocked {
public:
    NoSignalBlocked() {
        sigset_t none;
        sigemptyset(&none);
        pthread_sigmask(SIG_SETMASK, &none, &before_);
    }
    ~NoSignalBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    NoSignalBlocked(const NoSignalBlocked&) = delete;
    NoSignalBlocked& operator=(const NoSignalBlocked&) = delete;

private:
    sigset_t before_{};
};

}  // namespace

PluginEntryPoints LoadPlugin(const std::filesystem::path& path) {
    std::error_code error;
    if (!std::filesystem::exists(path, error)) {
        throw qxpbase::StartupError(
            fmt::format("The plugin {} is missing: install it, or name another library with --plugin.", path.string()));
    }
    void* const library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* const reason = dlerror();
        throw qxpbase::StartupError(fmt::format(
            "The plugin {} cannot be loaded: {}. Install what it needs, or name another library with --plugin.",
            path.string(), reason != nullptr ? reason : "no reason given"));
    }
    PluginEntryPoints entry_points;
    LookUp(library, path, "create_plugin", entry_points.create_plugin);
    LookUp(library, path, "runonce_plugin", entry_points.runonce_plugin);
    LookUp(library, path, "CreateObject", entry_points.create_object);
    LookUp(library, path, "DestroyObject", entry_points.destroy_object);
    const char* const* text = nullptr;
    LookUp(library, path, "g_szRsaModulus", text);
    entry_points.rsa_modulus = *text;
    LookUp(library, path, "g_szRsaPublicExponent", text);
    entry_points.rsa_exponent = *text;
    return entry_points;
}

std::filesystem::path PluginDirectory(const PluginEntryPoints& entry_points) {
    std::array<char, PATH_MAX> directory{};
    const bool known = QxGetModuleFilePath(reinterpret_cast<const void*>(entry_points.create_object), directory.data(),
                                           directory.size() - 1);
    return known ? std::filesystem::path(directory.data()) : std::filesystem::path();
}

PluginModule::~PluginModule() {
    Stop();
    Finish();
}

void PluginModule::Start(IXBusMREndPoint4& endpoint, const std::string& init_param) {
    object_ = static_cast<PluginObjInterface*>(entry_points_.create_object(PLUGIN_CLSID));
    if (object_ == nullptr) {
        throw qxpbase::StartupError("The plugin refused to be created: the log says why.");
    }
    step_ = Step::kCreated;
    // Slot 0 of the plugin's function table tells its version.
    using GetVersion = const char* (*)();
    if (const auto* table = static_cast<const GetVersion*>(entry_points_.create_plugin(PLUGIN_CLSID))) {
        const char* const version = table[0]();
        version_ = version != nullptr ? version : "";
    }
    object_->SetCtx(&endpoint);
    QxInitBlock init_block{init_param.empty() ? nullptr : init_param.c_str()};
    if (const int result = object_->Initialize(&init_block); result != 0) {
        UndoFrom(step_);
        throw qxpbase::StartupError(
            fmt::format("The plugin cannot be initialised ({:#x}): check its configuration file "
                        "and --init-param; the log says more.",
                        static_cast<unsigned int>(result)));
    }
    step_ = Step::kInitialized;
    const int result = object_->Start();
    step_ = Step::kStarted;  // a start that failed part-way is on the bus already
    status_ = object_->GetStatus();
    if (result != 0) {
        UndoFrom(step_);
        throw qxpbase::StartupError(
            fmt::format("The plugin cannot be started ({:#x}): the log says why.", static_cast<unsigned int>(result)));
    }
    std::lock_guard lock(mutex_);
    run_once_open_ = true;
}

void PluginModule::Stop() {
    if (step_ != Step::kStarted) {
        return;
    }
    {
        std::lock_guard lock(mutex_);
        run_once_open_ = false;
    }
    if (const int result = object_->Stop(); result != 0) {
        QXPAGENT_LOG(kLogWarn, "the plugin's Stop returned %#x", static_cast<unsigned int>(result));
    }
    step_ = Step::kStopped;
    status_ = object_->GetStatus();
}

bool PluginModule::Finish() {
    // Uninitialising ends the runs that a run-once waits for, and waits for the call itself.
    UndoFrom(step_);
    std::unique_lock lock(mutex_);
    return run_once_ended_.wait_for(lock, kRunOnceEndTime, [this] { return run_once_calls_ == 0; });
}

void PluginModule::UndoFrom(Step step) {
    switch (step) {
        case Step::kStarted:
            Stop();
            [[fallthrough]];
        case Step::kStopped:
        case Step::kInitialized:
            // The plugin's own record of its status dies in this call.
            object_->Uninitialize();
            status_ = qxppolicy::kPluginUninitialised;
            [[fallthrough]];
        case Step::kCreated:
            entry_points_.destroy_object(PLUGIN_CLSID, object_);
            object_ = nullptr;
            [[fallthrough]];
        case Step::kNone:
            step_ = Step::kNone;
    }
}

std::optional<bool> PluginModule::RunOnce(const std::string& name) {
    {
        std::lock_guard lock(mutex_);
        if (!run_once_open_) {
            return std::nullopt;
        }
        ++run_once_calls_;
    }
    std::string argument = name;  // the plugin's interface takes a mutable text
    int result = -1;
    {
        const NoSignalBlocked no_signal_blocked;
        result = entry_points_.runonce_plugin(argument.data());
    }
    std::lock_guard lock(mutex_);
    --run_once_calls_;
    run_once_ended_.notify_all();
    return result == 0;
}

}  // namespace qxpagent
