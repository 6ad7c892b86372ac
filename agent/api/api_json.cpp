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

Json PeerToJson(const qxpbase::Peer& peer) {
    Json json;
    json["uid"] = peer.uid;
    json["gid"] = peer.gid;
    json["pid"] = peer.pid;
    json["user"] = peer.user;
    return json;
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
    Json json;
    json["cursor"] = report.cursor;
    json["id"] = report.id;
    json["source"] = Word(report.source);
    json["file"] = TextOrNull(report.file);
    json["received"] = qxpbase::LocalTimeText(report.received);
    json["acknowledged"] = TimeOrNull(report.acknowledged);
    json["json_data_type"] = report.json_data_type;
    json["value"] = report.value;
    json["bytes"] = report.bytes;
    return json;
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

std::string_view Word(ReportSource source) {
    switch (source) {
        case ReportSource::kPlugin:
            return "plugin";
        case ReportSource::kFile:
            return "file";
        case ReportSource::kAgent:
            break;
    }
    return "agent";
}

Json CommandToJson(const CommandRecord& command) {
    Json json;
    json["id"] = command.id;
    json["command"] = command.command;
    json["state"] = qxppolicy::StateName(command.state);
    json["reason"] = TextOrNull(command.reason);
    json["sequence"] = command.sequence;
    json["scripts"] = command.scripts;
    json["expected"] = command.expected;
    json["unreported"] = command.unreported;
    json["bytes"] = command.bytes;
    json["sha256"] = command.sha256;
    json["submitter"] = PeerToJson(command.submitter);
    json["received"] = qxpbase::LocalTimeText(command.received);
    json["delivered"] = TimeOrNull(command.delivered);
    json["finished"] = TimeOrNull(command.finished);
    return json;
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
    Json json;
    json["cursor"] = report.cursor;
    json["id"] = report.id;
    json["file"] = report.file;
    json["bytes"] = report.bytes;
    json["received"] = qxpbase::LocalTimeText(report.received);
    json["acknowledged"] = TimeOrNull(report.acknowledged);
    return json;
}

Json StatusToJson(const AgentStatus& status) {
    const StoreFigures& store = status.store;
    Json commands;
    for (const CommandState state : qxppolicy::kCommandStates) {
        const auto count = store.states.find(state);
        commands[qxppolicy::StateName(state)] = count != store.states.end() ? count->second : 0;
    }
    Json json;
    json["version"] = status.version;
    json["plugin_status"] = status.plugin_status;
    json["plugin_version"] = status.plugin_version;
    json["uptime_seconds"] = status.uptime.count();
    json["commands"] = std::move(commands);
    json["last_sequence"] = store.last_sequence;
    json["reports"] = Json{{"stored", store.reports},
                           {"pending", store.reports_pending},
                           {"last_cursor", store.last_cursor},
                           {"oldest_pending", TimeOrNull(store.oldest_pending)}};
    json["scripts_waiting"] = status.scripts_waiting;
    json["store"] = Json{{"bytes", store.bytes}, {"fault", TextOrNull(store.fault)}};
    json["data_directory"] = status.data_directory.string();
    json["policy_directory"] = status.policy_directory.string();
    json["process_directory"] = status.process_directory.string();
    json["result_directory"] = status.result_directory.string();
    return json;
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
