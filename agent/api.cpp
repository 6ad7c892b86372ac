#include "agent/api.h"

#include <algorithm>
#include <charconv>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/command_document.h"
#include "agent/time_text.h"
#include "qxhost/json.h"

namespace qxpagent {

namespace {

using Json = nlohmann::ordered_json;

constexpr size_t kMaxCommandBytes = size_t{100} << 20;
constexpr size_t kMaxSmallBodyBytes = size_t{64} << 10;
constexpr uint64_t kMaxWaitSeconds = 60;

HttpResponse Answer(int status, const Json& body) {
    HttpResponse response;
    response.status = status;
    response.body = body.dump(-1, ' ', false, Json::error_handler_t::replace);
    return response;
}

HttpResponse NotRunning() {
    return Problem(503, "The agent is stopping, or its plugin is not started.");
}

// Names the first parameter that is unknown or given twice; empty when all is well.
std::string BadParameter(const HttpRequest& request, std::initializer_list<std::string_view> known) {
    std::vector<std::string_view> seen;
    for (const auto& [name, value] : request.query) {
        if (std::find(known.begin(), known.end(), name) == known.end()) {
            return "There is no parameter \"" + name + "\".";
        }
        if (std::find(seen.begin(), seen.end(), name) != seen.end()) {
            return "The parameter \"" + name + "\" is given twice.";
        }
        seen.emplace_back(name);
    }
    return {};
}

std::optional<std::string> Parameter(const HttpRequest& request, std::string_view name) {
    for (const auto& [key, value] : request.query) {
        if (key == name) {
            return value;
        }
    }
    return std::nullopt;
}

// A whole number from 0 to `most`; `otherwise` when the parameter is absent, nothing when it is wrong.
std::optional<uint64_t> NumberParameter(const HttpRequest& request, std::string_view name, uint64_t most,
                                        uint64_t otherwise) {
    const std::optional<std::string> text = Parameter(request, name);
    if (!text.has_value()) {
        return otherwise;
    }
    uint64_t number = 0;
    const char* const end = text->data() + text->size();
    const auto [parsed, error] = std::from_chars(text->data(), end, number);
    if (error != std::errc() || parsed != end || number > most) {
        return std::nullopt;
    }
    return number;
}

Json ReportToJson(const Report& report) {
    Json json;
    json["cursor"] = report.cursor;
    json["id"] = report.id;
    constexpr const char* kSources[] = {"plugin", "file", "agent"};
    json["source"] = kSources[static_cast<size_t>(report.source)];
    json["received"] = LocalTimeText(report.received);
    json["json_data_type"] = report.json_data_type;
    json["value"] = report.value;
    // The host SDK's reader bounds the nesting, so that writing the document out again cannot exhaust the stack.
    qxtools::CPJsonParse bounded;
    Json document = bounded.LoadBuffer(report.text.c_str()) ? Json::parse(report.text, nullptr, false)
                                                            : Json(Json::value_t::discarded);
    if (document.is_discarded()) {
        json["document"] = nullptr;
        json["text"] = report.text;
    } else {
        json["document"] = std::move(document);
    }
    return json;
}

bool IsFileName(const std::string& name) {
    return std::none_of(name.begin(), name.end(), [](unsigned char character) {
        return character == '/' || character < 0x20 || character == 0x7f;
    });
}

}  // namespace

struct Api::Route {
    std::string_view path;
    std::string_view method;
    size_t max_body;
    HttpResponse (Api::*handle)(HttpRequest&);
};

const Api::Route Api::kRoutes[] = {
    {"/v1/commands", "POST", kMaxCommandBytes, &Api::SubmitCommand},
    {"/v1/commands", "GET", kMaxSmallBodyBytes, &Api::ListCommands},
    {"/v1/reports", "GET", kMaxSmallBodyBytes, &Api::FetchReports},
    {"/v1/runonce", "POST", kMaxSmallBodyBytes, &Api::RunOnce},
    {"/v1/status", "GET", kMaxSmallBodyBytes, &Api::ShowStatus},
};

size_t Api::MaxBodyBytes(const HttpRequest& head) const {
    for (const Route& route : kRoutes) {
        if (route.path == head.path && route.method == head.method) {
            return route.max_body;
        }
    }
    return kMaxSmallBodyBytes;
}

HttpResponse Api::Handle(HttpRequest request) {
    std::string allowed;
    for (const Route& route : kRoutes) {
        if (route.path != request.path) {
            continue;
        }
        if (route.method == request.method) {
            return (this->*route.handle)(request);
        }
        allowed.append(allowed.empty() ? "" : ", ").append(route.method);
    }
    if (allowed.empty()) {
        return Problem(404, "There is no path " + request.path + ".");
    }
    HttpResponse response = Problem(405, "The path " + request.path + " takes " + allowed + " only.");
    response.allow = allowed;
    return response;
}

HttpResponse Api::SubmitCommand(HttpRequest& request) {
    if (const std::string bad = BadParameter(request, {}); !bad.empty()) {
        return Problem(400, bad);
    }
    const MemberText id = ReadStringMember(request.body, "ID");
    if (!id.error.empty()) {
        return Problem(400, id.error);
    }
    const SubmitOutcome outcome = agent_.Submit(std::move(request.body), Peer());
    constexpr const char* kStates[] = {"received", "delivered", "refused", "reported", "interrupted"};
    Json body{{"id", id.text}, {"delivered", true}};
    if (outcome.command.has_value()) {
        body["state"] = kStates[static_cast<size_t>(outcome.command->state)];
        body["expected"] = outcome.command->expected;
    }
    switch (outcome.status) {
        case SubmitStatus::kTaken:
            return Answer(202, body);
        case SubmitStatus::kKnown:
            return Answer(200, body);
        case SubmitStatus::kConflict:
            return Problem(409, outcome.detail);
        case SubmitStatus::kUnacceptable:
            return Problem(422, outcome.detail);
        case SubmitStatus::kNotRunning:
            return NotRunning();
        case SubmitStatus::kStorageFull:
            return Problem(507, outcome.detail);
        case SubmitStatus::kNotAcknowledged:
            return Problem(504, outcome.detail);
        case SubmitStatus::kBusy:
        case SubmitStatus::kStorageFailed:
            break;
    }
    return Problem(503, outcome.detail);
}

HttpResponse Api::ListCommands(HttpRequest& request) {
    if (const std::string bad = BadParameter(request, {"after"}); !bad.empty()) {
        return Problem(400, bad);
    }
    const auto after = NumberParameter(request, "after", UINT64_MAX, 0);
    if (!after.has_value()) {
        return Problem(400, "The parameter \"after\" must be a sequence, a whole number from 0.");
    }
    constexpr const char* kStates[] = {"received", "delivered", "refused", "reported", "interrupted"};
    CommandQuery query;
    query.after = *after;
    Json commands = Json::array();
    uint64_t sequence = *after;
    for (const CommandRecord& record : agent_.ListCommands(query)) {
        commands.push_back({{"id", record.id},
                            {"state", kStates[static_cast<size_t>(record.state)]},
                            {"reason", record.reason},
                            {"sequence", record.sequence},
                            {"expected", record.expected},
                            {"unreported", record.unreported}});
        sequence = record.sequence;
    }
    return Answer(200, Json{{"commands", std::move(commands)}, {"sequence", sequence}});
}

HttpResponse Api::FetchReports(HttpRequest& request) {
    if (const std::string bad = BadParameter(request, {"id", "after", "wait"}); !bad.empty()) {
        return Problem(400, bad);
    }
    const auto after = NumberParameter(request, "after", UINT64_MAX, 0);
    if (!after.has_value()) {
        return Problem(400, "The parameter \"after\" must be a cursor, a whole number from 0.");
    }
    const auto wait = NumberParameter(request, "wait", kMaxWaitSeconds, 0);
    if (!wait.has_value()) {
        return Problem(400, "The parameter \"wait\" must be a whole number of seconds from 0 to 60.");
    }
    ReportQuery query;
    query.id = Parameter(request, "id");
    query.after = *after;
    query.wait = std::chrono::seconds(*wait);
    Json reports = Json::array();
    uint64_t cursor = *after;
    for (const auto& report : agent_.ListReports(query)) {
        reports.push_back(ReportToJson(report));
        cursor = report.cursor;
    }
    Json body;
    body["reports"] = std::move(reports);
    body["cursor"] = cursor;
    return Answer(200, body);
}

HttpResponse Api::RunOnce(HttpRequest& request) {
    if (const std::string bad = BadParameter(request, {}); !bad.empty()) {
        return Problem(400, bad);
    }
    const MemberText name = ReadStringMember(request.body, "name");
    if (!name.error.empty()) {
        return Problem(400, name.error);
    }
    if (!IsFileName(name.text)) {
        return Problem(400, "The member \"name\" must be a file name, without '/' and control characters.");
    }
    const std::optional<bool> accepted = agent_.RunOnce(name.text, Peer());
    if (!accepted.has_value()) {
        return NotRunning();
    }
    return Answer(200, Json{{"name", name.text}, {"accepted", *accepted}});
}

HttpResponse Api::ShowStatus(HttpRequest& request) {
    if (const std::string bad = BadParameter(request, {}); !bad.empty()) {
        return Problem(400, bad);
    }
    const AgentStatus status = agent_.Status();
    Json body;
    body["version"] = status.version;
    body["plugin_status"] = status.plugin_status;
    body["plugin_version"] = status.plugin_version;
    body["uptime_seconds"] = status.uptime.count();
    body["reports"] = Json{{"stored", status.store.reports}, {"last_cursor", status.store.last_cursor}};
    body["data_directory"] = status.data_directory.string();
    body["policy_directory"] = status.policy_directory.string();
    body["process_directory"] = status.process_directory.string();
    body["result_directory"] = status.result_directory.string();
    return Answer(200, body);
}

}  // namespace qxpagent
