#include "agent/bus/components.h"

#include <nlohmann/json.hpp>
#include <utility>

#include <fmt/core.h>

#include "base/startup_error.h"

namespace qxpagent {

namespace {

std::string ConnectInformation(const std::optional<ServerAddress>& server) {
    const nlohmann::ordered_json information = {{"onlineflag", server.has_value() ? "1" : "0"},
                                                {"ip", server.has_value() ? server->ip : ""},
                                                {"port", server.has_value() ? server->port : ""}};
    return information.dump();
}

}  // namespace

Attachment::Attachment(MessageBus& bus, const GUID& component, const char* name) : bus_(bus), component_(component) {
    if (bus_.Attach(component) != kBusOk) {
        throw qxpbase::StartupError(
            fmt::format("The {} component cannot be attached to the message bus: its name is taken.", name));
    }
}

int ServerData::Send(std::string document) {
    BusAnswer answer;
    const int status =
        bus_.Request(kServerDataId, kPluginId, kCommandMessage, std::move(document), kAcknowledgeTime, answer);
    if (status == kBusOk && (answer.status != 0 || answer.bytes != "success")) {
        return kBusReceiverFailed;
    }
    return status;
}

// A component that has just been attached has no registration yet, so that of its one type cannot fail.
AgentConnect::AgentConnect(MessageBus& bus, const std::optional<ServerAddress>& server)
    : bus_(bus), information_(ConnectInformation(server)), attachment_(bus, kAgentConnectId, "agent connect") {
    bus_.Register(kAgentConnectId, kConnectQueryMessage, this, nullptr);
}

void AgentConnect::ReceiveCallback(const GUID& /*component_id*/, long /*message_type*/, const unsigned char* /*data*/,
                                   unsigned int /*data_length*/, void* reply_context, void* /*endpoint*/) {
    if (reply_context != nullptr) {
        bus_.Reply(kAgentConnectId, reply_context, {0, information_});
    }
}

Manager::Manager(MessageBus& bus, DirectReceiver receiver) : attachment_(bus, kManagerId, "manager") {
    bus.RegisterDirect(kManagerId, kReportMessage, std::move(receiver));
}

}  // namespace qxpagent
