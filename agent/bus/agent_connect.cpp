#include "agent/bus/agent_connect.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "agent/bus/component_ids.h"
#include "base/startup_error.h"

namespace qxpagent {

AgentConnect::AgentConnect(MessageBus& bus, std::optional<ServerAddress> server)
    : bus_(bus), server_(std::move(server)) {
    if (bus_.Attach(kAgentConnectId) != kBusOk ||
        bus_.Register(kAgentConnectId, kConnectQueryMessage, this, nullptr) != kBusOk) {
        throw qxpbase::StartupError(
            "The agent connect component cannot be attached to the message bus: its name is taken.");
    }
}

AgentConnect::~AgentConnect() {
    bus_.Detach(kAgentConnectId);
}

std::string AgentConnect::ConnectInformation() const {
    nlohmann::ordered_json information;
    information["onlineflag"] = server_.has_value() ? "1" : "0";
    information["ip"] = server_.has_value() ? server_->ip : "";
    information["port"] = server_.has_value() ? server_->port : "";
    return information.dump();
}

void AgentConnect::ReceiveCallback(const GUID& /*component_id*/, long /*message_type*/, const unsigned char* /*data*/,
                                   unsigned int /*data_length*/, void* reply_context, void* /*endpoint*/) {
    if (reply_context != nullptr) {
        bus_.Reply(kAgentConnectId, reply_context, {0, ConnectInformation()});
    }
}

}  // namespace qxpagent
