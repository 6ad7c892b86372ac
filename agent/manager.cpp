#include "agent/manager.h"

#include <chrono>
#include <string>
#include <string_view>
#include <utility>

#include "agent/component_ids.h"
#include "agent/log.h"
#include "agent/report_envelope.h"
#include "agent/startup_error.h"
#include "qxhost/json.h"

namespace qxpagent {

namespace {

std::string IdOf(const std::string& report_text) {
    qxtools::CPJsonParse document;
    if (!document.LoadBuffer(report_text.c_str())) {
        return {};
    }
    return document.GetValue(document.GetNode(nullptr, "ID")).Str();
}

}  // namespace

Manager::Manager(MessageBus& bus, ReportStore& store) : bus_(bus), store_(store) {
    if (bus_.Attach(kManagerId) != kBusOk || bus_.Register(kManagerId, kReportMessage, this, nullptr) != kBusOk) {
        throw StartupError("The manager component cannot be attached to the message bus: its name is taken.");
    }
}

Manager::~Manager() {
    bus_.Detach(kManagerId);
}

void Manager::ReceiveCallback(const GUID& /*stComponentID*/, long /*i64MsgType*/, const unsigned char* pData,
                              unsigned int uiDataLength, void* /*pReplyCtx*/, void* /*pEndPoint*/) {
    const auto envelope = DecodeReportEnvelope({reinterpret_cast<const char*>(pData), uiDataLength});
    if (!envelope.has_value()) {
        QXPAGENT_LOG(kLogWarn, "a report of %u bytes was dropped: its envelope is malformed", uiDataLength);
        return;
    }
    Report report;
    report.received = std::chrono::system_clock::now();
    report.json_data_type = envelope->json_data_type;
    report.value = envelope->value;
    report.text = envelope->text;
    report.id = IdOf(report.text);
    const std::string id = report.id;
    const uint64_t cursor = store_.Append(std::move(report));
    QXPAGENT_LOG(kLogInfo, "report %llu stored, command [%s], %zu bytes", static_cast<unsigned long long>(cursor),
                 id.c_str(), envelope->text.size());
}

}  // namespace qxpagent
