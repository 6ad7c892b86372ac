#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "agent/api/agent_control.h"
#include "http/message.h"

namespace qxpagent {

/// JSON whose members stay in the order in which they were added.
using Json = nlohmann::ordered_json;

/// The word of the API for a source.
std::string_view Word(ReportSource source);

/// The objects of the API.
Json CommandToJson(const CommandRecord& command);
/// A result file without its text.
Json ResultToJson(const Report& report);
Json StatusToJson(const AgentStatus& status);

/// Adds a list of reports, each with its text: as "document" just as it is stored, or as "text" when it is no JSON that
/// ReadReport reads. A document is not copied.
void AppendReports(qxphttp::Body& body, std::vector<Report> reports, bool with_text = true);

/// Bytes that are no UTF-8 are replaced by U+FFFD.
std::string ToText(const Json& json);
qxphttp::Response JsonResponse(int status, const Json& body);

}  // namespace qxpagent
