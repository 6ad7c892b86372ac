#pragma once

#include "agent/message_bus.h"
#include "agent/report_store.h"

namespace qxpagent {

/// The manager component: takes the plugin's reports off the bus and stores them.
class Manager final : private IMRReceiveComplete {
public:
    /// Attaches to the bus; both must outlive it. Throws StartupError when the name is taken.
    Manager(MessageBus& bus, ReportStore& store);
    ~Manager() override;
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

private:
    void ReceiveCallback(const GUID& stComponentID, long i64MsgType, const unsigned char* pData,
                         unsigned int uiDataLength, void* pReplyCtx, void* pEndPoint) override;

    MessageBus& bus_;
    ReportStore& store_;
};

}  // namespace qxpagent
