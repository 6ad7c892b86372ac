#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "agent/agent_control.h"
#include "agent/http_message.h"

namespace qxpagent {

/// JSON whose members stay in the order in which they were added.
using Json = nlohmann::ordered_json;

/// AgentStatus::plugin_status of a plugin that is started.
inline constexpr unsigned int kPluginStarted = 2;

/// The words of the API for these values.
std::string_view Word(CommandState state);
std::string_view Word(ReportSource source);

/// The objects of the API.
Json CommandToJson(const CommandRecord& command);
/// With the text as "document", or as "text" when it is no JSON.
Json ReportToJson(const Report& report);
/// A result file without its text.
Json ResultToJson(const Report& report);
Json StatusToJson(const AgentStatus& status);

/// Bytes that are no UTF-8 are replaced by U+FFFD.
HttpResponse JsonResponse(int status, const Json& body);

}  // namespace qxpagent
