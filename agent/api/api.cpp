#include "agent/api/api.h"

#include <algorithm>
#include <string>

#include <fmt/core.h>

#include "agent/api/api_request.h"
#include "agent/log.h"

namespace qxpagent {

namespace {

// What stands for the "{…}" of a route's path, the path itself for a route without one; empty when it does not match.
std::string_view Match(std::string_view route, std::string_view path) {
    const size_t open = route.find('{');
    if (open == std::string_view::npos) {
        return route == path ? path : std::string_view();
    }
    return path.starts_with(route.substr(0, open)) ? path.substr(open) : std::string_view();
}

// Names the first parameter that is unknown or given twice; empty when all is well.
std::string BadParameter(const qxphttp::Request& request, const Api::Route& route) {
    std::vector<std::string_view> seen;
    for (const auto& [name, value] : request.query) {
        if (std::find(route.parameters.begin(), route.parameters.end(), name) == route.parameters.end()) {
            return fmt::format("There is no parameter \"{}\".", name);
        }
        if (std::find(seen.begin(), seen.end(), name) != seen.end()) {
            return fmt::format("The parameter \"{}\" is given twice.", name);
        }
        seen.emplace_back(name);
    }
    return {};
}

}  // namespace

std::span<const Api::Route> Api::Routes() {
    // clang-format off
    static const std::vector<Route> kRoutes = {
        {"/v1/commands",            "POST", kMaxCommandBytes,   {}, &Api::SubmitCommand},
        {"/v1/commands",            "GET",  kMaxSmallBodyBytes, {"state", "after", "limit", "wait"}, &Api::ListCommands},
        {"/v1/commands/{id}",       "GET",  kMaxSmallBodyBytes, {}, &Api::ShowCommand},
        {"/v1/reports",             "GET",  kMaxSmallBodyBytes,
         {"id", "source", "acknowledged", "documents", "after", "limit", "wait"}, &Api::ListReports},
        {"/v1/reports/acknowledge", "POST", kMaxSmallBodyBytes, {}, &Api::AcknowledgeReports},
        {"/v1/results",             "GET",  kMaxSmallBodyBytes, {"id", "after", "limit", "wait"}, &Api::ListResults},
        {"/v1/results/{cursor}",    "GET",  kMaxSmallBodyBytes, {}, &Api::ShowResult},
        {"/v1/runonce",             "POST", kMaxSmallBodyBytes, {}, &Api::RunOnce},
        {"/v1/status",              "GET",  kMaxSmallBodyBytes, {}, &Api::ShowStatus},
        {"/v1/health",              "GET",  kMaxSmallBodyBytes, {}, &Api::ShowHealth},
        {"/metrics",                "GET",  kMaxSmallBodyBytes, {}, &Api::ShowMetrics},
    };
    // clang-format on
    return kRoutes;
}

size_t Api::MaxBodyBytes(const qxphttp::Request& head) const {
    for (const Route& route : Routes()) {
        if (route.method == head.method && !Match(route.path, head.path).empty()) {
            return route.max_body;
        }
    }
    return kMaxSmallBodyBytes;
}

qxphttp::Response Api::Handle(qxphttp::Request request) {
    std::string allowed;
    for (const Route& route : Routes()) {
        const std::string name(Match(route.path, request.path));
        if (name.empty()) {
            continue;
        }
        if (route.method != request.method) {
            allowed.append(allowed.empty() ? "" : ", ").append(route.method);
            continue;
        }
        if (const std::string bad = BadParameter(request, route); !bad.empty()) {
            return qxphttp::Problem(400, bad);
        }
        try {
            return (this->*route.handle)(request, name);
        } catch (const BadRequest& error) {
            return qxphttp::Problem(400, error.what());
        } catch (const StoreError& error) {
            QXPAGENT_LOG(kLogError, "%s %s: %s", request.method.c_str(), request.path.c_str(), error.what());
            return qxphttp::Problem(503, fmt::format("The agent's store cannot be used: {}", error.what()));
        }
    }
    if (allowed.empty()) {
        return qxphttp::Problem(404, fmt::format("There is no path {}.", request.path));
    }
    qxphttp::Response response =
        qxphttp::Problem(405, fmt::format("The path {} takes {} only.", request.path, allowed));
    response.headers.emplace_back("Allow", allowed);
    return response;
}

}  // namespace qxpagent
