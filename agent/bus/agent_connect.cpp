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

void AgentConnect::ReceiveCallback(const GUID& /*stComponentID*/, long /*i64MsgType*/, const unsigned char* /*pData*/,
                                   unsigned int /*uiDataLength*/, void* pReplyCtx, void* /*pEndPoint*/) {
    if (pReplyCtx != nullptr) {
        bus_.Reply(kAgentConnectId, pReplyCtx, {0, ConnectInformation()});
    }
}

}  // namespace qxpagent
