#include "ctl/client/results.h"

#include <algorithm>

#include "policy/vocabulary.h"

namespace qxpctl {

namespace {

RunResult ReadRun(const Json& run) {
    RunResult result;
    result.script_id = TextMember(run, "scriptid");
    result.succeeded = TextMember(run, "run_result") == "1";
    result.seconds = TextMember(run, "run_runningtime");
    result.start_time = TextMember(run, "run_starttime");
    result.end_time = TextMember(run, "run_endtime");
    result.timed_out = result.end_time.empty();
    result.file = TextMember(run, "filepath");
    result.output = TextMember(run, "run_outdata");
    return result;
}

}  // namespace

ReportContent ReadReportContent(const Json& document) {
    ReportContent content;
    content.id = TextMember(document, "ID");
    const std::string type = TextMember(document, "msg_type");
    const Json& data = Member(document, "data");
    const Json& runs = Member(data, "result");
    if (type == qxppolicy::kRefusalMessage) {
        content.kind = ReportContent::Kind::kRefusal;
    } else if (type == qxppolicy::kInterruptionMessage) {
        content.kind = ReportContent::Kind::kInterruption;
        content.reason = TextMember(data, "reason");
    } else if (type == qxppolicy::kResultMessage && runs.is_array()) {
        content.kind = ReportContent::Kind::kResults;
        for (const Json& run : runs) {
            if (Member(run, "scriptid").is_string()) {
                content.runs.push_back(ReadRun(run));
            }
        }
    }
    return content;
}

ResultCollector::ResultCollector(std::string policy_id, std::vector<std::string> script_ids)
    : policy_id_(std::move(policy_id)), script_ids_(std::move(script_ids)) {
}

std::vector<const RunResult*> ResultCollector::Add(const Report& report) {
    std::vector<const RunResult*> added;
    if (report.cursor <= last_cursor_) {
        return added;
    }
    last_cursor_ = report.cursor;
    ReportContent content = ReadReportContent(report.content);
    if (content.id != policy_id_ || content.kind == ReportContent::Kind::kUnknown) {
        return added;
    }
    cursors_.push_back(report.cursor);
    refused_ = refused_ || content.kind == ReportContent::Kind::kRefusal;
    if (content.kind == ReportContent::Kind::kInterruption) {
        interrupted_ = true;
        reason_ = content.reason;
    }
    for (RunResult& result : content.runs) {
        const std::string id = result.script_id;
        const bool known = std::find(script_ids_.begin(), script_ids_.end(), id) != script_ids_.end();
        if (known && results_.try_emplace(id, std::move(result)).second) {
            added.push_back(&results_.at(id));
        }
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
