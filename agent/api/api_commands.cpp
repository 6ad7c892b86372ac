// The requests about commands: submit, list, show, run once.
#include <algorithm>
#include <array>
#include <string>
#include <utility>

#include <fmt/core.h>

#include "agent/api/api.h"
#include "agent/api/api_json.h"
#include "agent/api/api_request.h"
#include "policy/rules.h"

namespace qxpagent {

namespace {

constexpr size_t kDefaultCommands = 100;

// RFC 3986 section 2.1: everything but the unreserved characters as %XX.
std::string PercentEncoded(std::string_view text) {
    constexpr std::string_view kUnreserved = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";
    std::string encoded;
    for (const char character : text) {
        const bool is_plain = kUnreserved.find(character) != std::string_view::npos;
        encoded += is_plain ? std::string(1, character) : fmt::format("%{:02X}", static_cast<unsigned char>(character));
    }
    return encoded;
}

qxphttp::Response CommandResponse(int status, const CommandRecord& command) {
    qxphttp::Response response = JsonResponse(status, CommandToJson(command));
    response.headers.emplace_back("Location", "/v1/commands/" + PercentEncoded(command.id));
    return response;
}

int ProblemStatus(SubmitStatus status) {
    switch (status) {
        case SubmitStatus::kConflict:
            return 409;
        case SubmitStatus::kUnacceptable:
            return 422;
        case SubmitStatus::kNotAcknowledged:
            return 504;
        case SubmitStatus::kStorageFull:
            return 507;
        default:
            return 503;
    }
}

}  // namespace

qxphttp::Response Api::SubmitCommand(qxphttp::Request& request, const std::string& /*name*/) {
    const SubmitOutcome outcome = agent_.Submit(std::move(request.body), request.peer);
    const bool taken = outcome.status == SubmitStatus::kTaken;
    if ((taken || outcome.status == SubmitStatus::kKnown) && outcome.command.has_value()) {
        return CommandResponse(taken ? 202 : 200, *outcome.command);
    }
    return qxphttp::Problem(ProblemStatus(outcome.status), outcome.detail);
}

qxphttp::Response Api::ListCommands(qxphttp::Request& request, const std::string& /*name*/) {
    static constexpr auto& kStates = qxppolicy::kCommandStates;
    std::array<std::string_view, kStates.size()> words;
    std::transform(kStates.begin(), kStates.end(), words.begin(), qxppolicy::StateName);
    const QueryParameters parameters(request);
    CommandQuery query;
    if (const auto state = parameters.OneOf("state", words)) {
        query.state = kStates[*state];
    }
    query.after = parameters.After();
    query.limit = parameters.Limit(kDefaultCommands);
    query.wait = parameters.Wait();
    Json commands = Json::array();
    uint64_t sequence = query.after;
    for (const CommandRecord& command : agent_.ListCommands(query)) {
        commands.push_back(CommandToJson(command));
        sequence = command.sequence;
    }
    return JsonResponse(200, {{"commands", std::move(commands)}, {"sequence", sequence}});
}

qxphttp::Response Api::ShowCommand(qxphttp::Request& /*request*/, const std::string& name) {
    const std::optional<CommandRecord> command = agent_.FindCommand(name);
    if (!command.has_value()) {
        return qxphttp::Problem(404, fmt::format("There is no command \"{}\".", name));
    }
    ReportQuery query;
    query.id = name;
    std::vector<Report> reports = agent_.ListReports(query);
    bool has_more = false;
    if (!reports.empty()) {
        query.after = reports.back().cursor;
        query.limit = 1;
        query.with_text = false;
        has_more = !agent_.ListReports(query).empty();
    }
    qxphttp::Response response;
    response.body.Append(fmt::format(R"({{"command":{},"reports":)", ToText(CommandToJson(*command))));
    AppendReports(response.body, std::move(reports));
    response.body.Append(has_more ? ",\"more\":true}" : "}");
    return response;
}

qxphttp::Response Api::RunOnce(qxphttp::Request& request, const std::string& /*name*/) {
    const nlohmann::json body = ReadObject(request.body, {"name"});
    const auto name = body.find("name");
    if (name == body.end() || !name->is_string()) {
        throw BadRequest("The member \"name\" must be a string, the name of a file.");
    }
    const auto& file = name->get_ref<const std::string&>();
    if (const qxppolicy::Fault fault = qxppolicy::ValidateRunOnceName(file)) {
        throw BadRequest(fmt::format("The member \"name\" {}.", *fault));
    }
    const std::optional<bool> accepted = agent_.RunOnce(file, request.peer);
    if (!accepted.has_value()) {
        return qxphttp::Problem(503, "The agent is stopping, or its plugin is not started.");
    }
    return JsonResponse(200, {{"name", file}, {"accepted", *accepted}});
}

}  // namespace qxpagent
