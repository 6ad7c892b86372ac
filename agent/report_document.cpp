#include "agent/report_document.h"

#include <charconv>
#include <list>
#include <nlohmann/json.hpp>

#include "qxhost/json.h"

namespace qxpagent {

namespace {

std::string Member(const qxtools::CPJsonParse& json, void* parent, const char* key) {
    return json.GetValue(json.GetNode(parent, key)).Str();
}

RunResult ReadRun(const qxtools::CPJsonParse& json, void* node) {
    RunResult run;
    run.script_id = Member(json, node, "scriptid");
    run.start = Member(json, node, "run_starttime");
    run.file = Member(json, node, "filepath");
    run.succeeded = Member(json, node, "run_result") == "1";
    run.timed_out = Member(json, node, "run_endtime").empty();
    const std::string seconds = Member(json, node, "run_runningtime");
    std::from_chars(seconds.data(), seconds.data() + seconds.size(), run.seconds);
    run.output_bytes = Member(json, node, "run_outdata").size();
    return run;
}

}  // namespace

ReportContent ReadReport(const std::string& text) {
    ReportContent content;
    qxtools::CPJsonParse json;
    if (text.find('\0') != std::string::npos || !json.LoadBuffer(text.c_str())) {
        return content;
    }
    content.readable = true;
    content.id = Member(json, nullptr, "ID");
    const std::string kind = Member(json, nullptr, "msg_type");
    content.refusal = kind == "4";
    void* const data = kind == "1" ? json.GetNode(nullptr, "data") : nullptr;
    void* const result = data != nullptr ? json.GetNode(data, "result") : nullptr;
    std::list<void*> nodes;
    if (result != nullptr && json.GetAllNode(result, nodes)) {
        for (void* const node : nodes) {
            content.runs.push_back(ReadRun(json, node));
        }
    }
    return content;
}

std::string InterruptedReport(const std::string& id, const std::string& reason,
                              const std::vector<std::string>& unreported) {
    nlohmann::ordered_json document;
    document["ID"] = id;
    document["msg_type"] = "5";
    document["data_type"] = "CommandInterrupted";
    document["data"] = {{"reason", reason}, {"unreported", unreported}};
    return document.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace qxpagent
