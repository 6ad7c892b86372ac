#pragma once

#include <array>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/api/agent_control.h"
#include "http/message.h"

namespace qxpagent {

/// JSON whose members stay in the order in which they were added.
using Json = nlohmann::ordered_json;

/// The words of the API for the values of ReportSource, in their order.
inline constexpr std::array<std::string_view, 3> kSourceWords = {"plugin", "file", "agent"};

/// How many commands of the journal are in each state, by its word.
std::vector<std::pair<std::string, uint64_t>> CommandsByState(const StoreFigures& store);

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

/// The media type of the Prometheus text exposition format, version 0.0.4.
inline constexpr char kMetricsContentType[] = "text/plain; version=0.0.4; charset=utf-8";

/// The agent's figures in that format. Names and units as Prometheus recommends them: base units, counters end in
/// _total. Nothing is kept between calls: each figure is as it stands in `status`.
std::string MetricsText(const AgentStatus& status);

}  // namespace qxpagent
