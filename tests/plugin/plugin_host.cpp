#include "tests/plugin/plugin_host.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <regex>
#include <stdexcept>

#include "base/encoding.h"
#include "policy/key_file.h"

namespace fs = std::filesystem;

namespace {

void Require(bool condition, const std::string& what) {
    if (!condition) {
        throw std::runtime_error(what);
    }
}

void ClaimProcess() {
    static bool claimed = false;
    Require(!claimed, "one plugin host a process: run these tests through ctest, or one at a time");
    claimed = true;
}

void BuildTree(const fs::path& root) {
    for (const char* directory : {"bin", "lib", "etc/plugins/qxpmaint", "etc/trusted-keys", "data"}) {
        fs::create_directories(root / directory);
    }
    fs::copy_file(QXPMAINT_TEST_LIBRARY, root / "lib/libqxpmaint.so");
    fs::copy_file(QXPMAINT_TEST_HOST_LIBRARY, root / "lib/libqxhost.so");
    std::ofstream(root / "etc/plugins/qxpmaint/qxpmaint.conf") << "[qxpmaint]\ncheckcycle=1\n";
}

}  // namespace

std::string Text(const Json& document, std::string path) {
    std::replace(path.begin(), path.end(), '.', '/');
    const Json::json_pointer at("/" + path);
    return document.contains(at) ? document.at(at).get<std::string>() : "";
}

std::string MakePolicy(const qxppolicy::Key& key, const std::string& id, const std::string& command,
                       const std::vector<ScriptSpec>& scripts) {
    Json list = Json::array();
    for (const ScriptSpec& script : scripts) {
        const std::string data = qxpbase::Base64Encode(script.body);
        list.push_back({{"scriptid", script.id},
                        {"scripttype", script.type},
                        {"scriptdata", data},
                        {"sign", qxppolicy::Sign(key, script.signed_right ? data : data + "=")},
                        {"timeout", script.timeout},
                        {"checkret", script.check_ret}});
    }
    return Json{{"ID", id}, {"Command", command}, {"param", {{"scriptinfo", list}}}}.dump();
}

PluginHost::PluginHost() {
    ClaimProcess();
    BuildTree(Root());
    Require(chdir((Root() / "bin").c_str()) == 0, "cannot enter bin/");
    setenv("QXHOST_LOG", (Root() / "log").c_str(), 1);
    setenv("QXHOST_LOG_LEVEL", "trace", 1);
    library_ = dlopen(LibraryPath().c_str(), RTLD_NOW | RTLD_LOCAL);
    Require(library_, library_ ? "" : dlerror());
    create_plugin = Symbol<decltype(&::create_plugin)>("create_plugin");
    destroy_plugin = Symbol<decltype(&::destroy_plugin)>("destroy_plugin");
    runonce_plugin = Symbol<decltype(&::runonce_plugin)>("runonce_plugin");
    create_object = Symbol<decltype(&::CreateObject)>("CreateObject");
    destroy_object = Symbol<decltype(&::DestroyObject)>("DestroyObject");
    Require(create_plugin && destroy_plugin && runonce_plugin && create_object && destroy_object,
            "an entry point is missing");
}

PluginHost::~PluginHost() {
    Shutdown();
    // The directory is removed now; nobody may stay in it.
    static_cast<void>(chdir("/") == 0);
}

void PluginHost::Launch() {
    object = static_cast<PluginObjInterface*>(create_object(PLUGIN_CLSID));
    Require(object, "CreateObject failed");
    object->SetCtx(&endpoint);
    Require(object->Initialize(&init_block) == 0, "Initialize failed");
    Require(object->Start() == 0, "Start failed");
}

void PluginHost::Shutdown() {
    if (!object) {
        return;
    }
    if (object->GetStatus() == 2) {
        object->Stop();
    }
    if (object->GetStatus() == 1 || object->GetStatus() == 3) {
        object->Uninitialize();
    }
    destroy_object(PLUGIN_CLSID, object);
    object = nullptr;
}

bool PluginHost::SendCommand(const std::string& json, void* token) {
    return endpoint.Deliver(20001, SERVER_DATA, json, token);
}

std::vector<std::string> PluginHost::WaitForReports(size_t count, std::chrono::milliseconds deadline) {
    Require(endpoint.WaitForCalls("SendAsync", count, deadline), "too few reports");
    std::vector<std::string> reports;
    for (const BusCall& call : endpoint.Calls("SendAsync")) {
        reports.push_back(call.data.substr(148, call.data.size() - 149));  // out of its envelope
    }
    return reports;
}

std::vector<std::string> PluginHost::LogWith(const std::string& part) const {
    static const std::regex time_and_thread(R"(^[^ ]+ ([a-z]+) [^ ]+ )");
    std::vector<std::string> records;
    std::ifstream file(Root() / "log");
    // A last line without its newline is still being written.
    for (std::string line; std::getline(file, line) && !file.eof();) {
        if (line.find(part) != std::string::npos) {
            records.push_back(
                std::regex_replace(line, time_and_thread, "$1 ", std::regex_constants::format_first_only));
        }
    }
    return records;
}
