#include "ctl/client/agent_client.h"

#include <algorithm>
#include <stdexcept>

namespace qxpctl {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds kDefaultTimeout{120000};
// A policy file runs for as long as its scripts do.
constexpr milliseconds kNoTimeout{0};

constexpr long kConflict = 409;
constexpr long kRefusedAtAdmission = 422;
constexpr long kUnavailable = 503;
constexpr long kNotAcknowledged = 504;
constexpr long kStorageFull = 507;

bool Succeeded(const Answer& answer) {
    return answer.status >= 200 && answer.status < 300;
}

// The agent's own words for what went wrong.
std::string DetailOf(const Answer& answer) {
    const Json body = Json::parse(answer.body, nullptr, false);
    return TextMember(body, "detail", TextMember(body, "title", "status " + std::to_string(answer.status)));
}

// Without a full stop, so that the sentence can go on.
std::string Clause(std::string text) {
    while (!text.empty() && (text.back() == '.' || text.back() == ' ')) {
        text.pop_back();
    }
    return text;
}

std::string WhenToTryAgain(const Answer& answer) {
    if (!answer.retry_after) {
        return "see its log and try again";
    }
    return "try again in " + std::to_string(answer.retry_after->count()) + " s";
}

seconds BoundedWait(seconds wait) {
    return std::clamp(wait, seconds(0), AgentClient::kMaxPoll);
}

}  // namespace

AgentClient::AgentClient(std::string socket_path) : http_(std::move(socket_path)), timeout_(kDefaultTimeout) {
}

// Runs a reader of agent_objects.h over an answer.
template <typename Reader>
static auto Interpret(const AgentHttp& http, Json json, Reader reader) {
    try {
        return reader(std::move(json));
    } catch (const std::invalid_argument& error) {
        http.FailForeign(error.what());
    }
}

AgentStatus AgentClient::GetStatus(const Tick& tick) {
    std::optional<Json> json = Get("/v1/status", timeout_, tick);
    if (!json) {
        throw Error(ExitCode::kInterrupted, "interrupted");
    }
    return Interpret(http_, std::move(*json), ReadStatus);
}

Health AgentClient::GetHealth() {
    const Answer answer = http_.Perform("/v1/health", nullptr, timeout_, {}).value();
    const Json body = Json::parse(answer.body, nullptr, false);
    if (TextMember(body, "status").empty()) {
        FailRefused(answer);
    }
    Health health{Succeeded(answer), {}};
    if (const Json* const problems = FindMember(body, "problems"); problems && problems->is_array()) {
        for (const Json& problem : *problems) {
            health.problems.push_back(problem.is_string() ? problem.get<std::string>() : problem.dump());
        }
    }
    return health;
}

std::optional<Submission> AgentClient::Submit(const std::string& document, const Tick& tick) {
    const std::optional<Answer> answer = http_.Perform("/v1/commands", &document, timeout_, tick);
    if (!answer) {
        return std::nullopt;
    }
    if (answer->status == kRefusedAtAdmission) {
        throw CommandRefused(DetailOf(*answer));
    }
    if (answer->status == kConflict) {
        throw BadInput("the agent refuses: " + Clause(DetailOf(*answer)) +
                       "; pack it with another ID (qxpctl pack --id, or none for a random one)");
    }
    if (answer->status == kNotAcknowledged) {
        throw NotAcknowledged("the agent has the policy, but: " + Clause(DetailOf(*answer)) +
                              "; look later with 'qxpctl show'");
    }
    return Submission{answer->status == 202, Interpret(http_, Read(*answer), ReadCommand)};
}

std::optional<CommandPage> AgentClient::ListCommands(const CommandFilter& filter, const Tick& tick) {
    const seconds wait = BoundedWait(filter.wait);
    std::optional<Json> json =
        Get("/v1/commands?after=" + std::to_string(filter.after) + "&limit=" + std::to_string(filter.limit) +
                "&wait=" + std::to_string(wait.count()),
            wait + timeout_, tick);
    if (!json) {
        return std::nullopt;
    }
    return Interpret(http_, std::move(*json), ReadCommandPage);
}

CommandDetail AgentClient::GetCommand(const std::string& id) {
    return Interpret(http_, Get("/v1/commands/" + qxphttp::EscapeForUrl(id), timeout_, {}).value(), ReadCommandDetail);
}

std::optional<ReportPage> AgentClient::GetReports(const ReportFilter& filter, const Tick& tick) {
    const seconds wait = BoundedWait(filter.wait);
    std::string target = "/v1/reports?after=" + std::to_string(filter.after) +
                         "&limit=" + std::to_string(filter.limit) + "&wait=" + std::to_string(wait.count());
    if (!filter.id.empty()) {
        target += "&id=" + qxphttp::EscapeForUrl(filter.id);
    }
    if (!filter.source.empty()) {
        target += "&source=" + qxphttp::EscapeForUrl(filter.source);
    }
    if (filter.acknowledged) {
        target += *filter.acknowledged ? "&acknowledged=true" : "&acknowledged=false";
    }
    if (!filter.documents) {
        target += "&documents=false";
    }
    std::optional<Json> json = Get(target, wait + timeout_, tick);
    if (!json) {
        return std::nullopt;
    }
    return Interpret(http_, std::move(*json), ReadReportPage);
}

uint64_t AgentClient::Acknowledge(const std::vector<uint64_t>& cursors) {
    // Its bodies are small: 64 KiB hold more than 3000 of the longest numbers.
    constexpr size_t kBatch = 1000;
    uint64_t acknowledged = 0;
    for (size_t at = 0; at < cursors.size(); at += kBatch) {
        const auto first = cursors.begin() + static_cast<std::ptrdiff_t>(at);
        const auto last = cursors.begin() + static_cast<std::ptrdiff_t>(std::min(at + kBatch, cursors.size()));
        const Json body = {{"cursors", std::vector<uint64_t>(first, last)}};
        const Json answer = Post("/v1/reports/acknowledge", body.dump(), timeout_, {}).value();
        acknowledged += NumberMember(answer, "acknowledged");
    }
    return acknowledged;
}

std::string AgentClient::GetResultFile(uint64_t cursor) {
    Answer answer = http_.Perform("/v1/results/" + std::to_string(cursor), nullptr, timeout_, {}).value();
    if (!Succeeded(answer)) {
        FailRefused(answer);
    }
    return std::move(answer.body);
}

std::optional<bool> AgentClient::RunOnce(const std::string& name, const Tick& tick) {
    const Json body = {{"name", name}};
    const std::optional<Json> answer = Post("/v1/runonce", body.dump(), kNoTimeout, tick);
    if (!answer) {
        return std::nullopt;
    }
    const Json* const accepted = FindMember(*answer, "accepted");
    if (!accepted || !accepted->is_boolean()) {
        http_.FailForeign("it did not say whether it accepted the policy");
    }
    return accepted->get<bool>();
}

std::optional<Json> AgentClient::Get(const std::string& target, milliseconds timeout, const Tick& tick) const {
    const std::optional<Answer> answer = http_.Perform(target, nullptr, timeout, tick);
    return answer ? std::optional(Read(*answer)) : std::nullopt;
}

std::optional<Json> AgentClient::Post(const std::string& target, const std::string& body, milliseconds timeout,
                                      const Tick& tick) const {
    const std::optional<Answer> answer = http_.Perform(target, &body, timeout, tick);
    return answer ? std::optional(Read(*answer)) : std::nullopt;
}

Json AgentClient::Read(const Answer& answer) const {
    if (!Succeeded(answer)) {
        FailRefused(answer);
    }
    Json body = Json::parse(answer.body, nullptr, false);
    if (!body.is_object()) {
        http_.FailForeign("its answer is not a JSON object");
    }
    return body;
}

void AgentClient::FailRefused(const Answer& answer) const {
    const std::string detail = DetailOf(answer);
    // 4xx: this request cannot succeed as it is. Anything else is the agent's own trouble.
    if (answer.status >= 400 && answer.status < 500) {
        throw BadInput("the agent refuses: " + detail);
    }
    const std::string text = "the agent on " + SocketPath() + " cannot do this now: " + Clause(detail) + "; ";
    if (answer.status == kUnavailable) {
        throw AgentAway(AgentAway::Cause::kBusy, text + WhenToTryAgain(answer));
    }
    if (answer.status == kStorageFull) {
        throw AgentUnavailable(text + "make room on its disk, and try again");
    }
    throw AgentUnavailable(text + WhenToTryAgain(answer));
}

}  // namespace qxpctl
