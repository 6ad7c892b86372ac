#include "ctl/client/agent_http.h"

#include <fmt/core.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "ctl/client/socket_access.h"
#include "qxhost/module.h"

namespace qxpctl {

AgentHttp::AgentHttp(std::string socket_path) : socket_path_(std::move(socket_path)) {
    if (socket_path_.size() > qxphttp::MaxSocketPathBytes()) {
        throw BadInput(fmt::format("the socket path {} is longer than the {} bytes that a Unix socket may have",
                                   socket_path_, qxphttp::MaxSocketPathBytes()));
    }
}

std::optional<Answer> AgentHttp::Perform(const std::string& target, const std::string* body,
                                         std::chrono::milliseconds timeout, const Tick& tick) const {
    using Cause = qxphttp::RequestError::Cause;
    try {
        return qxphttp::Perform(socket_path_, target, body, timeout, tick);
    } catch (const qxphttp::RequestError& error) {
        switch (error.GetCause()) {
            case Cause::kNoClient:
                throw LocalFailure(error.what());
            case Cause::kTooLarge:
                FailForeign(fmt::format("its answer is larger than {} bytes", qxphttp::kMaxAnswerBytes));
            case Cause::kUnreachable:
                FailUnreachable(AgentAway::Cause::kUnreachable, "nothing answers on " + socket_path_);
            case Cause::kTimedOut:
                FailUnreachable(AgentAway::Cause::kBroken, "the agent on " + socket_path_ + " does not answer in time");
            case Cause::kBroken:
                break;
        }
        FailUnreachable(AgentAway::Cause::kBroken,
                        fmt::format("the connection to the agent on {} broke ({})", socket_path_, error.what()));
    }
}

void AgentHttp::FailUnreachable(AgentAway::Cause cause, const std::string& reason) const {
    const int failure = access(socket_path_.c_str(), R_OK | W_OK) == 0 ? 0 : errno;
    if (failure == ENOENT || failure == ENOTDIR) {
        throw AgentAway(
            cause,
            "there is no agent socket " + socket_path_ +
                "; start qxpagent (systemctl start qxpagent), or name its socket with --socket or QXPAGENT_SOCKET");
    }
    if (failure == EACCES) {
        throw AgentUnavailable("no permission to use the agent socket " + socket_path_ + "; " +
                               WhoMayUse(socket_path_));
    }
    throw AgentAway(cause, reason + "; is qxpagent running, and is this its socket (--socket, QXPAGENT_SOCKET)?");
}

void AgentHttp::FailForeign(const std::string& what) const {
    throw AgentUnavailable("what answers on " + socket_path_ + " does not speak like qxpagent: " + what +
                           "; check --socket");
}

std::string InstallationRoot() {
    // Any address in this program tells where it lies.
    static const char kHere = 0;
    constexpr unsigned int kMaxPath = 4096;
    std::string directory(kMaxPath + 1, '\0');
    if (!QxGetModuleFilePath(&kHere, directory.data(), kMaxPath)) {
        throw LocalFailure("cannot tell where this program lies; name the agent's socket with --socket");
    }
    return std::filesystem::path(directory.c_str()).parent_path().string();
}

std::string FindSocket(const std::string& option) {
    if (!option.empty()) {
        return option;
    }
    const char* const environment = std::getenv("QXPAGENT_SOCKET");
    if (environment && *environment) {
        return environment;
    }
    return (std::filesystem::path(InstallationRoot()) / "data/qxpagent/agent.sock").string();
}

}  // namespace qxpctl
