#pragma once

#include <chrono>
#include <string>

#include "agent/bus/message_bus.h"

namespace qxpagent {

/// The server data component: hands policies to the plugin.
class ServerData {
public:
    /// Attaches to the bus, which must outlive it. Throws StartupError when the name is taken.
    explicit ServerData(MessageBus& bus);
    ~ServerData();
    ServerData(const ServerData&) = delete;
    ServerData& operator=(const ServerData&) = delete;

    /// Sends a command and waits until the plugin has acknowledged it, or kAcknowledgeTime has passed. Any thread.
    /// kBusOk means that the plugin has it; kBusTimedOut, that it may have it; anything else, that it was not
    /// delivered, or that the plugin failed on it. What the plugin makes of the command comes back as reports.
    int Send(std::string document);
    static constexpr std::chrono::seconds kAcknowledgeTime{60};

private:
    MessageBus& bus_;
};

}  // namespace qxpagent
