#include "ctl/client/agent_client.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

#include "ctl/client/agent_socket.h"

namespace qxpctl {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds kDefaultTimeout{120000};
// A policy file runs for as long as its scripts do.
constexpr milliseconds kNoTimeout{0};
// The most that the agent puts on one page.
constexpr unsigned kPageLimit = 1000;

constexpr long kAccepted = 202;
constexpr long kConflict = 409;
constexpr long kRefusedAtAdmission = 422;
constexpr long kUnavailable = 503;
constexpr long kNotAcknowledged = 504;
constexpr long kStorageFull = 507;

bool Succeeded(const qxphttp::Answer& answer) {
    return answer.status >= 200 && answer.status < 300;
}

// The agent's own words for what went wrong.
std::string DetailOf(const qxphttp::Answer& answer) {
    const Json body = Json::parse(answer.body, nullptr, false);
    return TextMember(body, "detail", TextMember(body, "title", fmt::format("status {}", answer.status)));
}

// The same without a full stop, so that the sentence can go on.
std::string ClauseOf(const qxphttp::Answer& answer) {
    const std::string text = DetailOf(answer);
    return text.substr(0, text.find_last_not_of(". ") + 1);
}

seconds BoundedWait(seconds wait) {
    return std::clamp(wait, seconds(0), AgentClient::kMaxPoll);
}

}  // namespace

AgentClient::AgentClient(std::string socket_path) : socket_path_(std::move(socket_path)), timeout_(kDefaultTimeout) {
    if (socket_path_.size() > qxphttp::MaxSocketPathBytes()) {
        throw BadInput("the socket path {} is longer than the {} bytes that a Unix socket may have", socket_path_,
                       qxphttp::MaxSocketPathBytes());
    }
}

// Runs a reader of agent_objects.h over an answer.
template <typename Reader>
auto AgentClient::Interpret(const Answer& answer, Reader reader) const {
    try {
        return reader(ReadObject(answer));
    } catch (const std::invalid_argument& error) {
        FailForeign(error.what());
    }
}

// Asks for a JSON object and has it read. Nothing when tick gave up.
template <typename Reader>
auto AgentClient::Get(const std::string& target, seconds wait, const Tick& tick, Reader reader) const {
    const std::optional<Answer> answer = Perform(target, nullptr, wait + timeout_, tick);
    return answer ? std::optional(Interpret(*answer, reader)) : std::nullopt;
}

AgentStatus AgentClient::GetStatus() const {
    return Get("/v1/status", seconds(0), {}, ReadStatus).value();
}

Health AgentClient::GetHealth() const {
    const Answer answer = Perform("/v1/health", nullptr, timeout_, {}).value();
    const Json body = Json::parse(answer.body, nullptr, false);
    if (TextMember(body, "status").empty()) {
        FailRefused(answer);
    }
    Health health{Succeeded(answer), {}};
    for (const Json& problem : MemberOr<Json::array_t>(body, "problems")) {
        health.problems.push_back(problem.is_string() ? problem.get<std::string>() : problem.dump());
    }
    return health;
}

std::optional<Submission> AgentClient::Submit(const std::string& document, const Tick& tick) const {
    const std::optional<Answer> answer = Perform("/v1/commands", &document, timeout_, tick);
    if (!answer) {
        return std::nullopt;
    }
    switch (answer->status) {
        case kRefusedAtAdmission:
            throw CommandRefused(DetailOf(*answer));
        case kConflict:
            throw BadInput(
                "the agent refuses: {}; pack it with another ID (qxpctl pack --id, or none for a random one)",
                ClauseOf(*answer));
        case kNotAcknowledged:
            throw NotAcknowledged("the agent has the policy, but: {}; look later with 'qxpctl show'",
                                  ClauseOf(*answer));
        default:
            return Submission{answer->status == kAccepted, Interpret(*answer, ReadCommand)};
    }
}

std::optional<CommandPage> AgentClient::ListCommands(const CommandFilter& filter, const Tick& tick) const {
    const seconds wait = BoundedWait(filter.wait);
    return Get(fmt::format("/v1/commands?after={}&limit={}&wait={}", filter.after, kPageLimit, wait.count()), wait,
               tick, ReadCommandPage);
}

CommandDetail AgentClient::GetCommand(const std::string& id) const {
    return Get("/v1/commands/" + qxphttp::EscapeForUrl(id), seconds(0), {}, ReadCommandDetail).value();
}

std::optional<ReportPage> AgentClient::GetReports(const ReportFilter& filter, const Tick& tick) const {
    const seconds wait = BoundedWait(filter.wait);
    std::string target = fmt::format("/v1/reports?after={}&limit={}&wait={}", filter.after, kPageLimit, wait.count());
    if (!filter.id.empty()) {
        target += "&id=" + qxphttp::EscapeForUrl(filter.id);
    }
    if (filter.acknowledged) {
        target += fmt::format("&acknowledged={}", *filter.acknowledged);
    }
    if (!filter.documents) {
        target += "&documents=false";
    }
    return Get(target, wait, tick, ReadReportPage);
}

uint64_t AgentClient::Acknowledge(const std::vector<uint64_t>& cursors) const {
    // Its bodies are small: 64 KiB hold more than 3000 of the longest numbers.
    constexpr size_t kBatch = 1000;
    uint64_t acknowledged = 0;
    for (size_t at = 0; at < cursors.size(); at += kBatch) {
        const auto first = cursors.begin() + static_cast<std::ptrdiff_t>(at);
        const auto last = first + static_cast<std::ptrdiff_t>(std::min(kBatch, cursors.size() - at));
        const Json body = {{"cursors", std::vector<uint64_t>(first, last)}};
        acknowledged += NumberMember(Post("/v1/reports/acknowledge", body, timeout_, {}).value(), "acknowledged");
    }
    return acknowledged;
}

std::string AgentClient::GetResultFile(uint64_t cursor) const {
    Answer answer = Perform(fmt::format("/v1/results/{}", cursor), nullptr, timeout_, {}).value();
    if (!Succeeded(answer)) {
        FailRefused(answer);
    }
    return std::move(answer.body);
}

std::optional<bool> AgentClient::RunOnce(const std::string& name, const Tick& tick) const {
    const std::optional<Json> answer = Post("/v1/runonce", {{"name", name}}, kNoTimeout, tick);
    if (!answer) {
        return std::nullopt;
    }
    const Json& accepted = Member(*answer, "accepted");
    if (!accepted.is_boolean()) {
        FailForeign("it did not say whether it accepted the policy");
    }
    return accepted.get<bool>();
}

// Sends a GET, or a POST when there is a body. Nothing when tick gave up.
std::optional<qxphttp::Answer> AgentClient::Perform(const std::string& target, const std::string* body,
                                                    milliseconds timeout, const Tick& tick) const {
    using HttpCause = qxphttp::RequestError::Cause;
    AgentAway::Cause cause = AgentAway::Cause::kBroken;
    std::string reason;
    try {
        return qxphttp::Perform(socket_path_, target, body, timeout, tick);
    } catch (const qxphttp::RequestError& error) {
        switch (error.GetCause()) {
            case HttpCause::kNoClient:
                throw LocalFailure(error.what());
            case HttpCause::kTooLarge:
                FailForeign(fmt::format("its answer is larger than {} bytes", qxphttp::kMaxAnswerBytes));
            case HttpCause::kUnreachable:
                cause = AgentAway::Cause::kUnreachable;
                reason = "nothing answers on " + socket_path_;
                break;
            case HttpCause::kTimedOut:
                reason = fmt::format("the agent on {} does not answer in time", socket_path_);
                break;
            case HttpCause::kBroken:
                reason = fmt::format("the connection to the agent on {} broke ({})", socket_path_, error.what());
                break;
        }
    }
    const int failure = access(socket_path_.c_str(), R_OK | W_OK) == 0 ? 0 : errno;
    if (failure == ENOENT || failure == ENOTDIR) {
        throw AgentAway(cause, fmt::format("there is no agent socket {}; start qxpagent (systemctl start qxpagent), or "
                                           "name its socket with --socket or QXPAGENT_SOCKET",
                                           socket_path_));
    }
    if (failure == EACCES) {
        throw AgentUnavailable("no permission to use the agent socket {}; {}", socket_path_, WhoMayUse(socket_path_));
    }
    throw AgentAway(cause, reason + "; is qxpagent running, and is this its socket (--socket, QXPAGENT_SOCKET)?");
}

std::optional<Json> AgentClient::Post(const std::string& target, const Json& body, milliseconds timeout,
                                      const Tick& tick) const {
    const std::string text = body.dump();
    const std::optional<Answer> answer = Perform(target, &text, timeout, tick);
    return answer ? std::optional(ReadObject(*answer)) : std::nullopt;
}

Json AgentClient::ReadObject(const Answer& answer) const {
    if (!Succeeded(answer)) {
        FailRefused(answer);
    }
    Json body = Json::parse(answer.body, nullptr, false);
    if (!body.is_object()) {
        FailForeign("its answer is not a JSON object");
    }
    return body;
}

void AgentClient::FailRefused(const Answer& answer) const {
    // 4xx: this request cannot succeed as it is. Anything else is the agent's own trouble.
    if (answer.status >= 400 && answer.status < 500) {
        throw BadInput("the agent refuses: {}", DetailOf(answer));
    }
    const std::string advice = answer.status == kStorageFull ? "make room on its disk, and try again"
                               : answer.retry_after ? fmt::format("try again in {} s", answer.retry_after->count())
                                                    : "see its log and try again";
    const std::string text =
        fmt::format("the agent on {} cannot do this now: {}; {}", socket_path_, ClauseOf(answer), advice);
    if (answer.status == kUnavailable) {
        throw AgentAway(AgentAway::Cause::kBusy, text);
    }
    throw AgentUnavailable(text);
}

// What answers does not speak like the agent.
void AgentClient::FailForeign(const std::string& what) const {
    throw AgentUnavailable("what answers on {} does not speak like qxpagent: {}; check --socket", socket_path_, what);
}

}  // namespace qxpctl
