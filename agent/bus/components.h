#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "agent/bus/message_bus.h"
#include "agent/config/options.h"

// The components that the plugin knows from an agent. Each is attached to the bus while it lives, which must outlive
// it. Every constructor throws StartupError when the component's name is taken.

namespace qxpagent {

/// A name on the bus, from here to the end of its life; the end waits for the deliveries that are in flight.
class Attachment {
public:
    Attachment(MessageBus& bus, const GUID& component, const char* name);
    ~Attachment() { bus_.Detach(component_); }
    Attachment(const Attachment&) = delete;
    Attachment& operator=(const Attachment&) = delete;

private:
    MessageBus& bus_;
    const GUID component_;
};

/// The server data component: hands policies to the plugin.
class ServerData {
public:
    explicit ServerData(MessageBus& bus) : bus_(bus), attachment_(bus, kServerDataId, "server data") {}

    /// Sends a policy and waits until the plugin has acknowledged it, or kAcknowledgeTime has passed. Any thread.
    /// kBusOk means that the plugin has it; kBusTimedOut, that it may have it; anything else, that it was not
    /// delivered, or that the plugin failed on it. What the plugin makes of it comes back as reports.
    int Send(std::string document);
    static constexpr std::chrono::seconds kAcknowledgeTime{60};

private:
    MessageBus& bus_;
    Attachment attachment_;
};

/// The agent connect component: answers the plugin's question whether, and where, the agent is connected to its server.
class AgentConnect final : private IMRReceiveComplete {
public:
    /// `server`: where the agent is connected; nothing means offline.
    AgentConnect(MessageBus& bus, const std::optional<ServerAddress>& server);

private:
    void ReceiveCallback(const GUID& component_id, long message_type, const unsigned char* data,
                         unsigned int data_length, void* reply_context, void* endpoint) override;

    // Constant after construction.
    MessageBus& bus_;
    const std::string information_;
    Attachment attachment_;  // the last, so that deliveries have ended before anything that they use is gone
};

/// The manager component: gives the body of each report message to `receiver`, on the thread of the plugin that sends
/// it. A send succeeds when the receiver has taken the report for good.
class Manager {
public:
    Manager(MessageBus& bus, DirectReceiver receiver);

private:
    Attachment attachment_;
};

}  // namespace qxpagent
