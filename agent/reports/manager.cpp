#include "agent/reports/manager.h"

#include "agent/bus/component_ids.h"
#include "base/startup_error.h"

namespace qxpagent {

Manager::Manager(MessageBus& bus, ReportIntake& intake) : bus_(bus) {
    if (bus_.Attach(kManagerId) != kBusOk ||
        bus_.RegisterDirect(kManagerId, kReportMessage,
                            [&intake](std::string_view body) { return intake.AcceptMessage(body); }) != kBusOk) {
        throw qxpbase::StartupError("The manager component cannot be attached to the message bus: its name is taken.");
    }
}

Manager::~Manager() {
    bus_.Detach(kManagerId);
}

}  // namespace qxpagent
