#include "ctl/client/agent_objects.h"

#include <optional>
#include <stdexcept>

#include <fmt/core.h>

namespace qxpctl {

namespace {

// A member that this tool depends on. The complaint says what is missing, up to the name of the member.
template <typename T>
T& Needed(Json& object, const char* key, const char* complaint) {
    const auto member = object.find(key);
    T* const value = member == object.end() ? nullptr : member->template get_ptr<T*>();
    if (value == nullptr) {
        throw std::invalid_argument(fmt::format("{} \"{}\"", complaint, key));
    }
    return *value;
}

CommandState ReadState(const std::string& name) {
    const std::optional<CommandState> state = qxppolicy::ParseState(name);
    if (!state) {
        throw std::invalid_argument(fmt::format("a command has the unknown state \"{}\"", name));
    }
    return *state;
}

std::vector<Report> ReadReports(Json& json) {
    std::vector<Report> reports;
    for (Json& report : Needed<Json::array_t>(json, "reports", "there is no list")) {
        reports.push_back(ReadReport(std::move(report)));
    }
    return reports;
}

}  // namespace

Command ReadCommand(Json json) {
    Command command;
    command.id = Needed<std::string>(json, "id", "a command has no text");
    command.state = ReadState(Needed<std::string>(json, "state", "a command has no text"));
    command.sequence = Needed<uint64_t>(json, "sequence", "a command has no number");
    command.command = TextMember(json, "command");
    command.reason = TextMember(json, "reason");
    command.scripts = NumberMember(json, "scripts");
    command.expected = NumberMember(json, "expected", command.scripts);
    for (const Json& script : MemberOr<Json::array_t>(json, "unreported")) {
        if (script.is_string()) {
            command.unreported.push_back(script.get<std::string>());
        }
    }
    command.submitter = TextMember(Member(json, "submitter"), "user");
    command.received = TextMember(json, "received");
    command.finished = TextMember(json, "finished");
    command.document = std::move(json);
    return command;
}

Report ReadReport(Json json) {
    Report report;
    report.cursor = Needed<uint64_t>(json, "cursor", "a report has no number");
    report.id = TextMember(json, "id");
    report.source = TextMember(json, "source");
    report.file = TextMember(json, "file");
    report.received = TextMember(json, "received");
    report.acknowledged = Member(json, "acknowledged").is_string();
    report.bytes = NumberMember(json, "bytes");
    report.content = Member(json, "document");
    report.document = std::move(json);
    return report;
}

CommandPage ReadCommandPage(Json json) {
    CommandPage page;
    page.sequence = Needed<uint64_t>(json, "sequence", "the list of commands has no number");
    for (Json& command : Needed<Json::array_t>(json, "commands", "there is no list")) {
        page.commands.push_back(ReadCommand(std::move(command)));
    }
    return page;
}

ReportPage ReadReportPage(Json json) {
    const uint64_t cursor = Needed<uint64_t>(json, "cursor", "the list of reports has no number");
    return {ReadReports(json), cursor};
}

CommandDetail ReadCommandDetail(Json json) {
    CommandDetail detail;
    if (!json.contains("command")) {
        throw std::invalid_argument("there is no \"command\"");
    }
    detail.document = json;
    detail.command = ReadCommand(std::move(json["command"]));
    detail.reports = ReadReports(json);
    detail.has_more = MemberOr<bool>(json, "more");
    return detail;
}

AgentStatus ReadStatus(Json json) {
    AgentStatus status;
    Json reports = Member(json, "reports");
    status.last_cursor = Needed<uint64_t>(reports, "last_cursor", "its status has no number");
    status.last_sequence = Needed<uint64_t>(json, "last_sequence", "its status has no number");
    status.version = TextMember(json, "version");
    status.plugin_status = NumberMember(json, "plugin_status");
    status.plugin_version = TextMember(json, "plugin_version");
    status.reports_pending = NumberMember(reports, "pending");
    status.oldest_pending = TextMember(reports, "oldest_pending");
    status.store_fault = TextMember(Member(json, "store"), "fault");
    status.policy_directory = TextMember(json, "policy_directory");
    status.process_directory = TextMember(json, "process_directory");
    status.document = std::move(json);
    return status;
}

}  // namespace qxpctl
