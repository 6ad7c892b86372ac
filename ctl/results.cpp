#include "ctl/results.h"

#include <algorithm>

namespace qxpctl {

namespace {

// The "msg_type" of the reply to a command that the plugin refused, and of a result document.
constexpr const char* kRefusal = "4";
constexpr const char* kResult = "1";

std::string Text(const Json& object, const char* key) {
    if (!object.is_object())
        return {};
    const auto member = object.find(key);
    return member != object.end() && member->is_string() ? member->get<std::string>() : std::string();
}

RunResult ReadRun(const Json& run) {
    RunResult result;
    result.script_id = Text(run, "scriptid");
    result.succeeded = Text(run, "run_result") == "1";
    result.seconds = Text(run, "run_runningtime");
    result.start_time = Text(run, "run_starttime");
    result.end_time = Text(run, "run_endtime");
    result.timed_out = result.end_time.empty();
    result.file = Text(run, "filepath");
    result.output = Text(run, "run_outdata");
    return result;
}

}  // namespace

ResultCollector::ResultCollector(const Policy& policy) : policy_id_(policy.id) {
    for (const PackedScript& script : policy.scripts)
        script_ids_.push_back(script.id);
}

std::vector<const RunResult*> ResultCollector::Add(const Json& document) {
    std::vector<const RunResult*> added;
    if (Text(document, "ID") != policy_id_)
        return added;
    const std::string type = Text(document, "msg_type");
    if (type == kRefusal)
        refused_ = true;
    if (type != kResult || !document.contains("data") || !document["data"].is_object())
        return added;
    const auto runs = document["data"].find("result");
    if (runs == document["data"].end() || !runs->is_array())
        return added;
    for (const Json& run : *runs) {
        RunResult result = ReadRun(run);
        if (std::find(script_ids_.begin(), script_ids_.end(), result.script_id) == script_ids_.end())
            continue;
        const auto [place, inserted] = results_.try_emplace(result.script_id, std::move(result));
        if (inserted)
            added.push_back(&place->second);
    }
    return added;
}

bool ResultCollector::AllSucceeded() const {
    return Complete() &&
           std::all_of(results_.begin(), results_.end(), [](const auto& entry) { return entry.second.succeeded; });
}

const RunResult* ResultCollector::Find(const std::string& script_id) const {
    const auto found = results_.find(script_id);
    return found == results_.end() ? nullptr : &found->second;
}

}  // namespace qxpctl
