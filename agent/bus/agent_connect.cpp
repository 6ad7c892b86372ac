#include "agent/bus/agent_connect.h"

#include <charconv>
#include <nlohmann/json.hpp>
#include <utility>

#include "agent/bus/component_ids.h"
#include "agent/startup_error.h"

namespace qxpagent {

std::optional<ServerAddress> ParseServerAddress(std::string_view text) {
    const size_t colon = text.rfind(':');
    if (colon == std::string_view::npos) {
        return std::nullopt;
    }
    std::string_view ip = text.substr(0, colon);
    const std::string_view port = text.substr(colon + 1);
    const bool bracketed = ip.size() > 2 && ip.front() == '[' && ip.back() == ']';
    if (bracketed) {
        ip = ip.substr(1, ip.size() - 2);
    }
    const char* const allowed =
        bracketed ? "0123456789abcdefABCDEF:." : "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ.-_";
    uint16_t number = 0;
    const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), number);
    if (ip.empty() || ip.find_first_not_of(allowed) != std::string_view::npos || error != std::errc() ||
        end != port.data() + port.size() || number == 0) {
        return std::nullopt;
    }
    return ServerAddress{std::string(ip), std::to_string(number)};
}

AgentConnect::AgentConnect(MessageBus& bus, std::optional<ServerAddress> server)
    : bus_(bus), server_(std::move(server)) {
    if (bus_.Attach(kAgentConnectId) != kBusOk ||
        bus_.Register(kAgentConnectId, kConnectQueryMessage, this, nullptr) != kBusOk) {
        throw StartupError("The agent connect component cannot be attached to the message bus: its name is taken.");
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
