#pragma once

#include <dlfcn.h>

#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "plugin/adapter/entry_points.h"
#include "plugin/adapter/plugin_fun_table.h"
#include "policy/key_file.h"
#include "qxhost/init_block.h"
#include "tests/plugin/scripted_endpoint.h"
#include "tests/support/temp_dir.h"

using Json = nlohmann::json;

/// Throws an exception for text that is not JSON.
inline Json ParseJson(const std::string& text) {
    return Json::parse(text);
}
/// The string at a path of keys and array positions, as in "data.result.0.scriptid"; empty when there is none.
std::string Text(const Json& document, std::string path);

/// One script of a policy; the members are those of the document, as text.
struct ScriptSpec {
    std::string id = "1";
    std::string type = "sh";
    std::string body{};
    std::string timeout = "0";
    std::string check_ret{};
    bool signed_right = true;  ///< false: the signature is one of another body
};

/// A command with its policy as the server sends it, every script signed with the key.
std::string MakePolicy(const qxppolicy::Key& key, const std::string& id, const std::string& command,
                       const std::vector<ScriptSpec>& scripts);

/// A host that loads the built plugin from a private installation tree, in the order and with the calls that a vendor's
/// agent makes:
///
///   bin/        the working directory      etc/plugins/qxpmaint/qxpmaint.conf, etc/trusted-keys/
///   lib/        copies of both libraries   data/qxpmaint/   made by the plugin
///
/// The plugin is one a process and is never unloaded, so every test needs a process of its own, as ctest gives it; a
/// second host in one process throws.
class PluginHost {
public:
    /// Builds the tree and loads the plugin. Throws std::runtime_error.
    PluginHost();
    /// Ends a plugin that is still started, initialised or created.
    ~PluginHost();
    PluginHost(const PluginHost&) = delete;
    PluginHost& operator=(const PluginHost&) = delete;

    std::filesystem::path Root() const { return root_.Path(); }
    std::filesystem::path Data() const { return Root() / "data/qxpmaint"; }
    std::string LibraryPath() const { return (Root() / "lib/libqxpmaint.so").string(); }

    /// An exported symbol of the plugin; null when there is none.
    template <typename Pointer>
    Pointer Symbol(const char* name) const {
        return reinterpret_cast<Pointer>(dlsym(library_, name));
    }

    /// CreateObject, SetCtx, Initialize and Start, each of which must succeed.
    void Launch();
    /// Stop, Uninitialize and DestroyObject, as far as they are due.
    void Shutdown();

    /// Hands the plugin a command from the server and waits until it was handled. False when it is not registered.
    bool SendCommand(const std::string& json, void* token = nullptr);
    /// Waits for count reports and returns the JSON text of each; throws when the deadline passes first.
    std::vector<std::string> WaitForReports(size_t count, std::chrono::milliseconds deadline = DEADLINE);

    /// The records of the log so far that contain a part, in order: "LEVEL module|source level text".
    std::vector<std::string> LogWith(const std::string& part) const;

    decltype(&::create_plugin) create_plugin = nullptr;
    decltype(&::destroy_plugin) destroy_plugin = nullptr;
    decltype(&::runonce_plugin) runonce_plugin = nullptr;
    decltype(&::CreateObject) create_object = nullptr;
    decltype(&::DestroyObject) destroy_object = nullptr;

    PluginObjInterface* object = nullptr;
    ScriptedEndpoint endpoint;
    /// The key that the loaded plugin trusts.
    const qxppolicy::Key signer = qxppolicy::ReadPrivateKey(QXPMAINT_TEST_SIGNING_KEY);
    QxInitBlock init_block{nullptr};

private:
    TempDir root_;
    void* library_ = nullptr;
};
