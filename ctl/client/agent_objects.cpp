#include "ctl/client/agent_objects.h"

#include <stdexcept>

namespace qxpctl {

namespace {

[[noreturn]] void Unreadable(const std::string& what) {
    throw std::invalid_argument(what);
}

uint64_t NeededNumber(const Json& object, const char* key, const char* of) {
    const Json* const member = FindMember(object, key);
    if (!member || !member->is_number_unsigned()) {
        Unreadable(std::string(of) + " has no number \"" + key + "\"");
    }
    return member->get<uint64_t>();
}

std::string NeededText(const Json& object, const char* key, const char* of) {
    const Json* const member = FindMember(object, key);
    if (!member || !member->is_string()) {
        Unreadable(std::string(of) + " has no text \"" + key + "\"");
    }
    return member->get<std::string>();
}

CommandState ReadState(const std::string& name) {
    const std::optional<CommandState> state = qxppolicy::ParseState(name);
    if (!state) {
        Unreadable("a command has the unknown state \"" + name + "\"");
    }
    return *state;
}

std::vector<std::string> TextList(const Json& object, const char* key) {
    std::vector<std::string> texts;
    const Json* const list = FindMember(object, key);
    if (!list || !list->is_array()) {
        return texts;
    }
    for (const Json& text : *list) {
        if (text.is_string()) {
            texts.push_back(text.get<std::string>());
        }
    }
    return texts;
}

Json& NeededList(Json& object, const char* key) {
    if (!object.is_object() || !object.contains(key) || !object[key].is_array()) {
        Unreadable(std::string("there is no list \"") + key + "\"");
    }
    return object[key];
}

}  // namespace

const Json* FindMember(const Json& object, const char* key) {
    if (!object.is_object()) {
        return nullptr;
    }
    const auto member = object.find(key);
    return member == object.end() ? nullptr : &*member;
}

std::string TextMember(const Json& object, const char* key, std::string_view otherwise) {
    const Json* const member = FindMember(object, key);
    return member && member->is_string() ? member->get<std::string>() : std::string(otherwise);
}

uint64_t NumberMember(const Json& object, const char* key, uint64_t otherwise) {
    const Json* const member = FindMember(object, key);
    return member && member->is_number_unsigned() ? member->get<uint64_t>() : otherwise;
}

Command ReadCommand(const Json& json) {
    Command command;
    command.id = NeededText(json, "id", "a command");
    command.state = ReadState(NeededText(json, "state", "a command"));
    command.sequence = NeededNumber(json, "sequence", "a command");
    command.command = TextMember(json, "command");
    command.reason = TextMember(json, "reason");
    command.scripts = NumberMember(json, "scripts");
    command.expected = NumberMember(json, "expected", command.scripts);
    command.unreported = TextList(json, "unreported");
    if (const Json* const submitter = FindMember(json, "submitter")) {
        command.submitter = TextMember(*submitter, "user");
    }
    command.received = TextMember(json, "received");
    command.finished = TextMember(json, "finished");
    command.document = json;
    return command;
}

Report ReadReport(Json json) {
    Report report;
    report.cursor = NeededNumber(json, "cursor", "a report");
    report.id = TextMember(json, "id");
    report.source = TextMember(json, "source");
    report.file = TextMember(json, "file");
    report.received = TextMember(json, "received");
    const Json* const acknowledged = FindMember(json, "acknowledged");
    report.acknowledged = acknowledged && acknowledged->is_string();
    report.bytes = NumberMember(json, "bytes");
    if (const Json* const content = FindMember(json, "document")) {
        report.content = *content;
    }
    report.document = std::move(json);
    return report;
}

CommandPage ReadCommandPage(const Json& json) {
    CommandPage page;
    page.sequence = NeededNumber(json, "sequence", "the list of commands");
    Json copy = json;
    for (const Json& command : NeededList(copy, "commands")) {
        page.commands.push_back(ReadCommand(command));
    }
    return page;
}

ReportPage ReadReportPage(Json json) {
    ReportPage page;
    page.cursor = NeededNumber(json, "cursor", "the list of reports");
    for (Json& report : NeededList(json, "reports")) {
        page.reports.push_back(ReadReport(std::move(report)));
    }
    return page;
}

CommandDetail ReadCommandDetail(Json json) {
    CommandDetail detail;
    const Json* const command = FindMember(json, "command");
    if (!command) {
        Unreadable("there is no \"command\"");
    }
    detail.command = ReadCommand(*command);
    for (const Json& report : NeededList(json, "reports")) {
        detail.reports.push_back(ReadReport(report));
    }
    const Json* const more = FindMember(json, "more");
    detail.has_more = more && more->is_boolean() && more->get<bool>();
    detail.document = std::move(json);
    return detail;
}

AgentStatus ReadStatus(Json json) {
    AgentStatus status;
    const Json reports = FindMember(json, "reports") ? json["reports"] : Json();
    status.last_cursor = NeededNumber(reports, "last_cursor", "its status");
    status.last_sequence = NeededNumber(json, "last_sequence", "its status");
    status.version = TextMember(json, "version");
    status.plugin_status = NumberMember(json, "plugin_status");
    status.plugin_version = TextMember(json, "plugin_version");
    status.reports_pending = NumberMember(reports, "pending");
    status.oldest_pending = TextMember(reports, "oldest_pending");
    if (const Json* const store = FindMember(json, "store")) {
        status.store_fault = TextMember(*store, "fault");
    }
    status.policy_directory = TextMember(json, "policy_directory");
    status.process_directory = TextMember(json, "process_directory");
    status.document = std::move(json);
    return status;
}

}  // namespace qxpctl
