#include "agent/service/agent.h"

#include <fmt/format.h>
#include <unistd.h>

#include <filesystem>
#include <utility>

#include "agent/access/access.h"
#include "agent/config/installation.h"
#include "agent/log.h"
#include "agent/service/environment.h"
#include "base/startup_error.h"

namespace qxpagent {

namespace {

constexpr size_t kDescriptorsPerRun = 6;  // while it is begun and ended; in between two
constexpr size_t kSpareDescriptors = 8;

void LogHttp(qxphttp::Severity severity, const std::string& text) {
    const int level = severity == qxphttp::Severity::kError     ? kLogError
                      : severity == qxphttp::Severity::kWarning ? kLogWarn
                                                                : kLogInfo;
    QXPAGENT_LOG(level, "%s", text.c_str());
}

void CheckConfigurationFile(const std::string& init_param) {
    const std::filesystem::path file = PluginConfigurationFile(init_param);
    if (!file.empty() && access(file.c_str(), R_OK) != 0) {
        throw qxpbase::StartupError(
            fmt::format("The plugin's configuration file {} is missing or cannot be read: install it, or name another "
                        "with --init-param agent_type=KSTL:conf_path=FILE.",
                        std::filesystem::absolute(file).lexically_normal().string()));
    }
}

}  // namespace

Agent::Agent(const Options& options) : options_(options), agent_connect_(bus_, options.online) {
}

void Agent::Start() {
    // The socket first: its lock keeps a second agent from starting a second plugin. Clients that connect before the
    // plugin runs wait to be accepted.
    listener_ = std::make_unique<qxphttp::UnixListener>(options_.socket, "agent", options_.socket_group);
    CheckConfigurationFile(options_.init_param);
    OpenStore();
    LoadPluginLibrary();
    // What an earlier agent has left: its result files first, since they may be the last words that are missing, and
    // before the plugin writes over them.
    try {
        commands_->LoadOrphans();
        collector_ = std::make_unique<ResultCollector>(plugin_data_ / "result", *intake_);
    } catch (const StoreError& error) {
        throw qxpbase::StartupError(error.what());
    }
    const Places places{plugin_data_, plugin_data_ / "result", plugin_data_ / "policyfile",
                        plugin_data_ / "policyfile-unusable"};
    MoveUnusablePolicies(places, keys_);
    plugin_ = std::make_unique<PluginModule>(entry_points_);
    plugin_->Start(plugin_endpoint_, options_.init_param);
    // Once more, now that the plugin has made what was missing: before any command of ours.
    for (const char* const directory : {"", "policyfile", "policyprocess", "result"}) {
        RequireUnwritableByOthers(plugin_data_ / directory);
    }
    commands_->RetryPending();
    maintenance_->Start(places);
    accepting_ = true;
    http_ = std::make_unique<qxphttp::Server>(*listener_, api_, &LogHttp);
    QXPAGENT_LOG(kLogInfo, "qxpagent %s started: plugin %s %s, socket %s", QXPAGENT_VERSION, options_.plugin.c_str(),
                 plugin_->Version().c_str(), options_.socket.c_str());
}

void Agent::OpenStore() {
    store_ = std::make_unique<Store>(StoreOptions{options_.store});
    commands_ = std::make_unique<CommandService>(
        *store_, counters_, keys_, [this](const std::string& directory) { return ValidateDirectory(directory); },
        [this](std::string document, uint32_t scripts) { return HandOver(std::move(document), scripts); });
    intake_ = std::make_unique<ReportIntake>(
        *store_, counters_, [this](const std::string& id) { return commands_->MayBeRefused(id); },
        [this] { maintenance_->StoreHasGrown(); });
    maintenance_ = std::make_unique<Maintenance>(*store_, *commands_, *intake_, counters_, keys_, options_.retention);
    manager_ = std::make_unique<Manager>(bus_, [this](std::string_view body) { return intake_->AcceptMessage(body); });
}

// A run for which no descriptor is left has never started, and its report looks like that of a script that wrote
// nothing. So there have to be enough before.
int Agent::HandOver(std::string document, uint32_t scripts) {
    const size_t needed = kSpareDescriptors + kDescriptorsPerRun * scripts;
    const size_t left = DescriptorsLeft();
    if (left < needed) {
        QXPAGENT_LOG(kLogWarn, "%zu descriptors are left, and %u scripts need %zu: they have to wait", left, scripts,
                     needed);
        return kBusQueueFull;
    }
    return server_data_.Send(std::move(document));
}

qxppolicy::Fault Agent::ValidateDirectory(const std::string& directory) const {
    std::vector<std::filesystem::path> allowed = options_.script_directories;
    allowed.push_back(plugin_data_);
    return ValidateScriptDirectory(directory, allowed);
}

void Agent::LoadPluginLibrary() {
    entry_points_ = LoadPlugin(options_.plugin);
    plugin_data_ = std::filesystem::weakly_canonical(PluginDirectory(entry_points_) / ".." / "data" / "qxpmaint");
    if (!keys_.SetPluginKey(entry_points_.rsa_modulus, entry_points_.rsa_exponent)) {
        throw qxpbase::StartupError(
            fmt::format("The plugin {} was built with a key of another kind.", options_.plugin.string()));
    }
}

// The plugin ends before everything that its threads may still call: the bus carries its last reports, and the store
// takes them. The API answers meanwhile, so that who waits for a command learns what became of it.
bool Agent::Stop() {
    accepting_ = false;
    bool ended = true;
    if (plugin_ != nullptr) {
        plugin_->Stop();
        ended = plugin_->Finish();
    }
    if (maintenance_ != nullptr) {
        maintenance_->Stop();  // it would retry what ConcludeCommands is about to end
    }
    ConcludeCommands();
    if (!ended) {
        QXPAGENT_LOG(kLogError, "a run-once call did not return; leaving it behind");
        listener_->RemoveName();
        return false;
    }
    if (store_ != nullptr) {
        store_->StopWaiting();  // requests that wait for a change would hold the server's end up
    }
    http_.reset();
    plugin_.reset();
    bus_.Shutdown();
    listener_.reset();  // last: until then no other agent can start
    return true;
}

// Nothing runs any more: what has no result now never will.
void Agent::ConcludeCommands() {
    if (collector_ == nullptr) {
        return;
    }
    collector_->Stop();
    if (plugin_ == nullptr) {
        return;
    }
    if (const size_t lost = intake_->StoreWaiting(); lost > 0) {
        QXPAGENT_LOG(kLogError, "%zu reports that waited in memory are lost: the store has not taken them", lost);
    }
    try {
        commands_->InterruptAll("The agent was stopped before every result was there; what was running was ended.");
    } catch (const StoreError& error) {
        QXPAGENT_LOG(kLogError, "commands have no final state yet, the next start gives it: %s", error.what());
    }
}

SubmitOutcome Agent::Submit(std::string document, const qxpbase::Peer& peer) {
    if (!accepting_) {
        return {SubmitStatus::kNotRunning, "The agent is stopping, or its plugin is not started.", std::nullopt};
    }
    return commands_->Submit(std::move(document), peer);
}

std::optional<bool> Agent::RunOnce(const std::string& name, const qxpbase::Peer& peer) {
    // Before it runs: a script that takes the machine down leaves who asked for it behind.
    QXPAGENT_LOG(kLogInfo, "run-once of [%s] from user [%s] uid %u pid %d", name.c_str(), peer.user.c_str(), peer.uid,
                 peer.pid);
    return plugin_->RunOnce(name);
}

bool Agent::IsAlive() {
    try {
        Status();
    } catch (const StoreError&) {
        // Told by the API's health: a restart mends no disk.
    }
    return true;
}

AgentStatus Agent::Status() {
    AgentStatus status;
    status.version = QXPAGENT_VERSION;
    status.plugin_status = plugin_->Status();
    status.plugin_version = plugin_->Version();
    status.uptime = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - started_);
    status.data_directory = plugin_data_;
    status.policy_directory = plugin_data_ / "policyfile";
    status.process_directory = plugin_data_ / "policyprocess";
    status.result_directory = plugin_data_ / "result";
    const OpenScripts scripts = store_->ScriptsWithoutResult();
    status.scripts_queued = scripts.queued;
    status.scripts_waiting = scripts.unreported;
    status.store = store_->Figures();
    status.reports_waiting = intake_->Waiting();
    status.counters = counters_.Collect();
    return status;
}

}  // namespace qxpagent
