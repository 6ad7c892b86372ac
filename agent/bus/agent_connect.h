#pragma once

#include <optional>
#include <string>

#include "agent/bus/message_bus.h"
#include "agent/config/options.h"

namespace qxpagent {

/// The agent connect component: answers the plugin's question whether, and where, the agent is connected to its server.
class AgentConnect final : private IMRReceiveComplete {
public:
    /// Attaches to the bus, which must outlive it. `server`: where the agent is connected; nothing means offline.
    /// Throws StartupError when the name is taken.
    AgentConnect(MessageBus& bus, std::optional<ServerAddress> server);
    ~AgentConnect() override;
    AgentConnect(const AgentConnect&) = delete;
    AgentConnect& operator=(const AgentConnect&) = delete;

private:
    void ReceiveCallback(const GUID& component_id, long message_type, const unsigned char* data,
                         unsigned int data_length, void* reply_context, void* endpoint) override;
    std::string ConnectInformation() const;

    // Constant after construction.
    MessageBus& bus_;
    const std::optional<ServerAddress> server_;
};

}  // namespace qxpagent
