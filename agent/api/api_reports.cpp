// The requests about reports and result files: list, show, acknowledge.
#include <algorithm>
#include <array>
#include <string>
#include <utility>
#include <vector>

#include <fmt/core.h>

#include "agent/api/api.h"
#include "agent/api/api_json.h"
#include "agent/api/api_request.h"
#include "agent/log.h"
#include "base/whole_number.h"

namespace qxpagent {

namespace {

constexpr size_t kDefaultReports = 1000;
constexpr std::array<std::string_view, 2> kFalseTrue = {"false", "true"};
constexpr std::array<std::string_view, 2> kTrueFalse = {"true", "false"};

uint64_t LastCursor(const std::vector<Report>& reports, uint64_t after) {
    return reports.empty() ? after : reports.back().cursor;
}

ReportQuery CommonQuery(const QueryParameters& parameters) {
    ReportQuery query;
    query.id = parameters.Text("id");
    query.after = parameters.After();
    query.limit = parameters.Limit(kDefaultReports);
    query.wait = parameters.Wait();
    return query;
}

bool IsCursor(const nlohmann::json& value) {
    return value.is_number_unsigned() && value.get<uint64_t>() <= INT64_MAX;
}

uint64_t AcknowledgeThose(AgentControl& agent, const nlohmann::json& list) {
    if (!list.is_array() || !std::all_of(list.begin(), list.end(), IsCursor)) {
        throw BadRequest("The member \"cursors\" must be a list of cursors, whole numbers.");
    }
    return agent.Acknowledge(list.get<std::vector<uint64_t>>());
}

uint64_t AcknowledgeUpTo(AgentControl& agent, const nlohmann::json& cursor) {
    if (!IsCursor(cursor)) {
        throw BadRequest("The member \"up_to\" must be a cursor, a whole number.");
    }
    return agent.AcknowledgeUpTo(cursor.get<uint64_t>());
}

}  // namespace

qxphttp::Response Api::ListReports(qxphttp::Request& request, const std::string& /*name*/) {
    const QueryParameters parameters(request);
    ReportQuery query = CommonQuery(parameters);
    if (const auto source = parameters.OneOf("source", kSourceWords)) {
        query.source = static_cast<ReportSource>(*source);
    }
    if (const auto acknowledged = parameters.OneOf("acknowledged", kFalseTrue)) {
        query.acknowledged = *acknowledged == 1;
    }
    query.with_text = parameters.OneOf("documents", kTrueFalse) != 1;
    std::vector<Report> reports = agent_.ListReports(query);
    const uint64_t cursor = LastCursor(reports, query.after);
    qxphttp::Response response;
    response.body.Append("{\"reports\":");
    AppendReports(response.body, std::move(reports), query.with_text);
    response.body.Append(fmt::format(",\"cursor\":{}}}", cursor));
    return response;
}

qxphttp::Response Api::AcknowledgeReports(qxphttp::Request& request, const std::string& /*name*/) {
    const nlohmann::json body = ReadObject(request.body, {"cursors", "up_to"});
    if (body.size() != 1) {
        throw BadRequest("The body must have either the member \"cursors\" or the member \"up_to\".");
    }
    const uint64_t acknowledged =
        body.contains("up_to") ? AcknowledgeUpTo(agent_, body["up_to"]) : AcknowledgeThose(agent_, body["cursors"]);
    const qxpbase::Peer& peer = request.peer;
    QXPAGENT_LOG(kLogInfo, "%llu reports acknowledged by %s (uid %u, pid %d): %.200s",
                 static_cast<unsigned long long>(acknowledged), peer.user.c_str(), peer.uid, peer.pid,
                 body.dump().c_str());
    return JsonResponse(200, {{"acknowledged", acknowledged}});
}

qxphttp::Response Api::ListResults(qxphttp::Request& request, const std::string& /*name*/) {
    ReportQuery query = CommonQuery(QueryParameters(request));
    query.source = ReportSource::kFile;
    query.with_text = false;
    const std::vector<Report> reports = agent_.ListReports(query);
    Json list = Json::array();
    for (const Report& report : reports) {
        list.push_back(ResultToJson(report));
    }
    return JsonResponse(200, {{"results", std::move(list)}, {"cursor", LastCursor(reports, query.after)}});
}

qxphttp::Response Api::ShowResult(qxphttp::Request& /*request*/, const std::string& name) {
    const std::optional<uint64_t> cursor = qxpbase::WholeNumber(name);
    std::optional<Report> report = cursor.has_value() ? agent_.FindReport(*cursor) : std::nullopt;
    if (!report.has_value() || report->source != ReportSource::kFile) {
        return qxphttp::Problem(404, fmt::format("There is no result file with the cursor \"{}\".", name));
    }
    qxphttp::Response response;
    response.body = std::move(report->text);
    return response;
}

}  // namespace qxpagent
