#include "agent/agent.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string_view>
#include <utility>

#include "agent/log.h"
#include "agent/startup_error.h"

namespace qxpagent {

namespace {

constexpr char kDefaultConfiguration[] = "../etc/plugins/qxpmaint/qxpmaint.conf";

// The configuration file that the plugin will read with this parameter string; empty when none. Items are separated by
// ':', an empty item ends the list, the last conf_path counts.
std::string ConfigurationFile(std::string_view init_param) {
    if (init_param.empty()) {
        return kDefaultConfiguration;
    }
    constexpr std::string_view kKey = "conf_path=";
    std::string file;
    while (!init_param.empty()) {
        const std::string_view item = init_param.substr(0, init_param.find(':'));
        if (item.empty()) {
            break;
        }
        if (item.starts_with(kKey) && item.size() > kKey.size()) {
            file = item.substr(kKey.size());
        }
        init_param.remove_prefix(std::min(item.size() + 1, init_param.size()));
    }
    return file;
}

void CheckConfigurationFile(const std::string& init_param) {
    const std::string file = ConfigurationFile(init_param);
    if (!file.empty() && access(file.c_str(), R_OK) != 0) {
        throw StartupError("The plugin's configuration file " +
                           std::filesystem::absolute(file).lexically_normal().string() +
                           " is missing or cannot be read: install it, or name another with "
                           "--init-param agent_type=KSTL:conf_path=FILE.");
    }
}

}  // namespace

Agent::Agent(const Options& options) : options_(options), agent_connect_(bus_, options.online) {
}

Agent::~Agent() {
    Stop();
}

void Agent::Start() {
    // The socket first: its lock keeps a second agent from starting a second plugin. Clients that connect before the
    // plugin runs wait to be accepted.
    listener_ = std::make_unique<UnixListener>(options_.socket);
    CheckConfigurationFile(options_.init_param);
    const PluginEntryPoints entry_points = LoadPlugin(options_.plugin);
    plugin_data_ = std::filesystem::weakly_canonical(PluginDirectory(entry_points) / ".." / "data" / "qxpmaint");
    plugin_ = std::make_unique<PluginModule>(entry_points);
    plugin_->Start(plugin_endpoint_, options_.init_param);
    accepting_ = true;
    http_ = std::make_unique<HttpServer>(*listener_, api_);
    QXPAGENT_LOG(kLogInfo, "qxpagent %s started: plugin %s %s, socket %s", QXPAGENT_VERSION, options_.plugin.c_str(),
                 plugin_->Version().c_str(), options_.socket.c_str());
}

bool Agent::Stop() {
    accepting_ = false;
    if (plugin_ != nullptr) {
        plugin_->Stop();
        if (!plugin_->Finish()) {
            QXPAGENT_LOG(kLogError, "a run-once call did not return; leaving it behind");
            listener_->RemoveName();
            return false;
        }
    }
    reports_.StopWaiting();
    http_.reset();
    plugin_.reset();
    bus_.Shutdown();
    listener_.reset();
    return true;
}

SubmitResult Agent::Submit(const std::string& id, std::string document) {
    if (!accepting_) {
        return SubmitResult::kNotRunning;
    }
    const size_t size = document.size();
    const int status = server_data_.Send(std::move(document));
    if (status == kBusOk) {
        ++commands_delivered_;
        QXPAGENT_LOG(kLogInfo, "command [%s] delivered, %zu bytes", id.c_str(), size);
        return SubmitResult::kDelivered;
    }
    QXPAGENT_LOG(kLogWarn, "command [%s] not delivered (%d), %zu bytes", id.c_str(), status, size);
    switch (status) {
        case kBusUndelivered:
        case kBusShutDown:
            return SubmitResult::kNotRunning;
        case kBusQueueFull:
            return SubmitResult::kBusy;
        case kBusTimedOut:
            return SubmitResult::kNotAcknowledged;
        default:
            return SubmitResult::kFailed;
    }
}

std::optional<bool> Agent::RunOnce(const std::string& name) {
    const std::optional<bool> accepted = plugin_->RunOnce(name);
    if (accepted.has_value()) {
        QXPAGENT_LOG(kLogInfo, "run-once of [%s] %s", name.c_str(), *accepted ? "has ended" : "was not accepted");
    }
    return accepted;
}

AgentStatus Agent::Status() const {
    AgentStatus status;
    status.version = QXPAGENT_VERSION;
    status.plugin_status = plugin_->Status();
    status.plugin_version = plugin_->Version();
    status.uptime = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - started_);
    status.commands_delivered = commands_delivered_;
    status.data_directory = plugin_data_;
    status.policy_directory = plugin_data_ / "policyfile";
    status.process_directory = plugin_data_ / "policyprocess";
    status.result_directory = plugin_data_ / "result";
    return status;
}

}  // namespace qxpagent
