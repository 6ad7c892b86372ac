#include "agent/bus/server_data.h"

#include <utility>

#include "agent/bus/component_ids.h"
#include "base/startup_error.h"

namespace qxpagent {

ServerData::ServerData(MessageBus& bus) : bus_(bus) {
    if (bus_.Attach(kServerDataId) != kBusOk) {
        throw qxpbase::StartupError(
            "The server data component cannot be attached to the message bus: its name is taken.");
    }
}

ServerData::~ServerData() {
    bus_.Detach(kServerDataId);
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

}  // namespace qxpagent
