// A report from anywhere: its envelope, what the agent reads in it, and the agent's own report with texts from it.

#include <cstdlib>
#include <string>
#include <string_view>

#include "agent/records/report_document.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const auto envelope = qxpagent::DecodeReportEnvelope(bytes);
    const qxpagent::ReportContent content = qxpagent::ReadReport(envelope ? envelope->text : bytes);
    std::vector<std::string> scripts;
    for (const qxpagent::RunResult& run : content.runs)
        scripts.push_back(run.script_id);
    // What the agent writes, it can read, whatever it is made of.
    if (!qxpagent::ReadReport(qxpagent::InterruptedReport(content.id, std::string(bytes.substr(0, 100)), scripts))
             .readable)
        abort();
    return 0;
}
