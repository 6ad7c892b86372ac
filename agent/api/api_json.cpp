#include "agent/api/api_json.h"

#include <algorithm>
#include <utility>

#include "agent/records/report_document.h"
#include "base/time_text.h"

namespace qxpagent {

namespace {

Json TimeOrNull(const std::optional<WallTime>& time) {
    return time.has_value() ? Json(qxpbase::LocalTimeText(*time)) : Json(nullptr);
}

Json TextOrNull(const std::string& text) {
    return text.empty() ? Json(nullptr) : Json(text);
}

// A number that is none of a source's, as in a store that others have written to, gets the last word.
std::string_view Word(ReportSource source) {
    return kSourceWords[std::min(static_cast<size_t>(source), kSourceWords.size() - 1)];
}

constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";
constexpr size_t kSliceBytes = size_t{64} << 10;

bool ContinuesCharacter(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

// A text as a JSON string, slice by slice, so that it is not in memory a third time.
void AppendQuoted(qxphttp::Body& body, std::string_view text) {
    body.Append("\"");
    while (!text.empty()) {
        size_t size = std::min(text.size(), kSliceBytes);
        for (int moved = 0; moved < 3 && size < text.size() && ContinuesCharacter(text[size]); ++moved) {
            --size;  // a character stays whole
        }
        const std::string quoted = ToText(Json(text.substr(0, size)));
        body.Append(std::string_view(quoted).substr(1, quoted.size() - 2));
        text.remove_prefix(size);
    }
    body.Append("\"");
}

// What a report has beside its text.
Json ReportHead(const Report& report) {
    return {{"cursor", report.cursor},
            {"id", report.id},
            {"source", Word(report.source)},
            {"file", TextOrNull(report.file)},
            {"received", qxpbase::LocalTimeText(report.received)},
            {"acknowledged", TimeOrNull(report.acknowledged)},
            {"json_data_type", report.json_data_type},
            {"value", report.value},
            {"bytes", report.bytes}};
}

void AppendReport(qxphttp::Body& body, Report report) {
    std::string head = ToText(ReportHead(report));
    head.pop_back();  // its '}' comes last
    body.Append(head);
    // Checked again, since one damaged text would make the whole answer unreadable.
    if (ReadReport(report.text).readable) {
        if (report.text.starts_with(kByteOrderMark)) {
            report.text.erase(0, kByteOrderMark.size());  // a reader passes it over, but only at the very beginning
        }
        body.Append(",\"document\":");
        body.Adopt(std::move(report.text));
    } else {
        body.Append(",\"document\":null,\"text\":");
        AppendQuoted(body, report.text);
    }
    body.Append("}");
}

}  // namespace

std::vector<std::pair<std::string, uint64_t>> CommandsByState(const StoreFigures& store) {
    std::vector<std::pair<std::string, uint64_t>> counts;
    for (const CommandState state : qxppolicy::kCommandStates) {
        const auto count = store.states.find(state);
        counts.emplace_back(qxppolicy::StateName(state), count != store.states.end() ? count->second : 0);
    }
    return counts;
}

Json CommandToJson(const CommandRecord& command) {
    const qxpbase::Peer& peer = command.submitter;
    return {{"id", command.id},
            {"command", command.command},
            {"state", qxppolicy::StateName(command.state)},
            {"reason", TextOrNull(command.reason)},
            {"sequence", command.sequence},
            {"scripts", command.scripts},
            {"expected", command.expected},
            {"unreported", command.unreported},
            {"bytes", command.bytes},
            {"sha256", command.sha256},
            {"submitter", {{"uid", peer.uid}, {"gid", peer.gid}, {"pid", peer.pid}, {"user", peer.user}}},
            {"received", qxpbase::LocalTimeText(command.received)},
            {"delivered", TimeOrNull(command.delivered)},
            {"finished", TimeOrNull(command.finished)}};
}

void AppendReports(qxphttp::Body& body, std::vector<Report> reports, bool with_text) {
    body.Append("[");
    for (Report& report : reports) {
        body.Append(&report == reports.data() ? "" : ",");
        if (with_text) {
            AppendReport(body, std::move(report));
        } else {
            body.Append(ToText(ReportHead(report)));
        }
    }
    body.Append("]");
}

Json ResultToJson(const Report& report) {
    return {{"cursor", report.cursor},
            {"id", report.id},
            {"file", report.file},
            {"bytes", report.bytes},
            {"received", qxpbase::LocalTimeText(report.received)},
            {"acknowledged", TimeOrNull(report.acknowledged)}};
}

Json StatusToJson(const AgentStatus& status) {
    const StoreFigures& store = status.store;
    Json commands;
    for (const auto& [state, count] : CommandsByState(store)) {
        commands[state] = count;
    }
    return {{"version", status.version},
            {"plugin_status", status.plugin_status},
            {"plugin_version", status.plugin_version},
            {"uptime_seconds", status.uptime.count()},
            {"commands", std::move(commands)},
            {"last_sequence", store.last_sequence},
            {"reports",
             {{"stored", store.reports},
              {"pending", store.reports_pending},
              {"last_cursor", store.last_cursor},
              {"oldest_pending", TimeOrNull(store.oldest_pending)}}},
            {"scripts_waiting", status.scripts_waiting},
            {"store", {{"bytes", store.bytes}, {"fault", TextOrNull(store.fault)}}},
            {"data_directory", status.data_directory.string()},
            {"policy_directory", status.policy_directory.string()},
            {"process_directory", status.process_directory.string()},
            {"result_directory", status.result_directory.string()}};
}

std::string ToText(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

qxphttp::Response JsonResponse(int status, const Json& body) {
    qxphttp::Response response;
    response.status = status;
    response.body = ToText(body);
    return response;
}

}  // namespace qxpagent
