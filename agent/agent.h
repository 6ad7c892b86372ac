#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "agent/agent_connect.h"
#include "agent/api.h"
#include "agent/endpoint.h"
#include "agent/http_server.h"
#include "agent/manager.h"
#include "agent/message_bus.h"
#include "agent/options.h"
#include "agent/plugin_module.h"
#include "agent/report_store.h"
#include "agent/server_data.h"
#include "agent/unix_listener.h"

namespace qxpagent {

/// The agent: its parts, wired together, started and stopped in order. Start and Stop belong to one thread.
class Agent final : private AgentControl {
public:
    explicit Agent(const Options& options);
    ~Agent() override;
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    /// When it returns, the plugin is started and the API answers. Throws StartupError; Stop, or the
    /// destructor, then ends what had been started.
    void Start();

    /// Refuses new commands, ends the plugin, then the API, then the bus. The API answers until the plugin has ended.
    /// False when a call into the plugin never came back: the threads cannot be joined, the socket is removed, and the
    /// process has to end at once, without running destructors.
    bool Stop();

private:
    SubmitResult Submit(const std::string& id, std::string document) override;
    std::optional<bool> RunOnce(const std::string& name) override;
    AgentStatus Status() const override;

    // Constant after construction.
    const Options options_;
    const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();

    // Safe for any thread by themselves. Each uses those above it, so they end in the reverse order.
    MemoryReportStore reports_;
    MessageBus bus_;
    ServerData server_data_{bus_};
    AgentConnect agent_connect_;
    Manager manager_{bus_, reports_};
    Endpoint plugin_endpoint_{bus_};
    Api api_{*this, reports_};

    // Set by Start before the API is served, constant until the API has ended.
    std::filesystem::path plugin_data_;
    std::unique_ptr<UnixListener> listener_;
    std::unique_ptr<PluginModule> plugin_;
    std::unique_ptr<HttpServer> http_;

    // Atomic.
    std::atomic<bool> accepting_{false};
    std::atomic<uint64_t> commands_delivered_{0};
};

}  // namespace qxpagent
