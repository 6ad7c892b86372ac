#pragma once

#include "agent/bus/message_bus.h"
#include "agent/reports/report_intake.h"

namespace qxpagent {

/// The manager component: takes the plugin's reports off the bus. A report is stored when the send of it has succeeded.
class Manager final {
public:
    /// Attaches to the bus; both must outlive it. Throws StartupError when the name is taken.
    Manager(MessageBus& bus, ReportIntake& intake);
    ~Manager();
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

private:
    MessageBus& bus_;
};

}  // namespace qxpagent
