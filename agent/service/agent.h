#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "agent/api/api.h"
#include "agent/bus/components.h"
#include "agent/bus/endpoint.h"
#include "agent/bus/message_bus.h"
#include "agent/commands/command_service.h"
#include "agent/config/options.h"
#include "agent/reports/report_intake.h"
#include "agent/reports/result_collector.h"
#include "agent/reports/run_counters.h"
#include "agent/service/maintenance.h"
#include "agent/service/plugin_module.h"
#include "agent/service/service.h"
#include "agent/store/store.h"
#include "http/server.h"
#include "http/unix_listener.h"
#include "policy/trusted_keys.h"

namespace qxpagent {

/// The agent: its parts, wired together, started and stopped in order (docs/decisions/007). Start and Stop belong to
/// one thread.
class Agent final : public ServiceAgent, private AgentControl {
public:
    explicit Agent(const Options& options);
    ~Agent() override { Stop(); }
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    /// When it returns, the plugin is started and the API answers. Throws StartupError; Stop, or the
    /// destructor, then ends what had been started.
    void Start() override;

    /// Refuses new commands, ends the plugin, then the API, then the bus. The API answers until the plugin has ended.
    /// False when a call into the plugin never came back: the threads cannot be joined, the socket is removed, and the
    /// process has to end at once, without running destructors.
    bool Stop() override;

    bool IsAlive() override;
    void SetRetention(const Retention& retention) override { maintenance_->SetRetention(retention); }

private:
    // What the API asks of the agent.
    SubmitOutcome Submit(std::string document, const qxpbase::Peer& peer) override;
    std::optional<CommandRecord> FindCommand(const std::string& id) override { return store_->FindCommand(id); }
    std::vector<CommandRecord> ListCommands(const CommandQuery& query) override { return store_->ListCommands(query); }
    std::vector<Report> ListReports(const ReportQuery& query) override { return store_->ListReports(query); }
    std::optional<Report> FindReport(uint64_t cursor) override { return store_->FindReport(cursor); }
    uint64_t Acknowledge(const std::vector<uint64_t>& cursors) override { return store_->Acknowledge(cursors); }
    uint64_t AcknowledgeUpTo(uint64_t cursor) override { return store_->AcknowledgeUpTo(cursor); }
    std::optional<bool> RunOnce(const std::string& name, const qxpbase::Peer& peer) override;
    AgentStatus Status() override;

    void OpenStore();
    void LoadPluginLibrary();
    int HandOver(std::string document, uint32_t scripts);
    qxppolicy::Fault ValidateDirectory(const std::string& directory) const;
    void ConcludeCommands();

    // Constant after construction.
    const Options options_;
    const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();

    // Safe for any thread by themselves. Each uses those above it, so they end in the reverse order. The pointers are
    // set by Start before the plugin starts, and constant until the destructor.
    RunCounters counters_;
    qxppolicy::TrustedKeys keys_;
    std::unique_ptr<Store> store_;
    MessageBus bus_;
    ServerData server_data_{bus_};
    AgentConnect agent_connect_;
    std::unique_ptr<CommandService> commands_;
    std::unique_ptr<ReportIntake> intake_;
    std::unique_ptr<Maintenance> maintenance_;
    std::unique_ptr<Manager> manager_;
    Endpoint plugin_endpoint_{bus_};
    std::unique_ptr<ResultCollector> collector_;
    Api api_{*this};

    // Set by Start before the API is served, constant until the API has ended.
    std::filesystem::path plugin_data_;
    PluginEntryPoints entry_points_;
    std::unique_ptr<qxphttp::UnixListener> listener_;
    std::unique_ptr<PluginModule> plugin_;
    std::unique_ptr<qxphttp::Server> http_;

    // Atomic.
    std::atomic<bool> accepting_{false};
};

}  // namespace qxpagent
