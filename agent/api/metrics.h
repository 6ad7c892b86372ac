#pragma once

#include <string>

#include "agent/api/agent_control.h"

namespace qxpagent {

/// The media type of the Prometheus text exposition format, version 0.0.4.
inline constexpr char kMetricsContentType[] = "text/plain; version=0.0.4; charset=utf-8";

/// The agent's figures in that format. Names and units as Prometheus recommends them: base units, counters end in
/// _total. Nothing is kept between calls: each figure is as it stands in `status`.
std::string MetricsText(const AgentStatus& status);

}  // namespace qxpagent
