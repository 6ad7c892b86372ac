#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "ctl/terminal/error.h"
#include "http/client.h"

namespace qxpctl {

using qxphttp::Answer;
using qxphttp::Tick;

/// The agent cannot be reached, or says that it cannot serve right now: the same request may succeed later.
class AgentAway : public AgentUnavailable {
public:
    enum class Cause {
        kUnreachable,  // the request was not delivered
        kBroken,  // the connection ended, or took too long, before the answer was there: it may have been delivered
        kBusy,    // the agent answered that it takes nothing now
    };
    AgentAway(Cause cause, const std::string& text) : AgentUnavailable(text), cause_(cause) {}

    Cause Why() const { return cause_; }

private:
    Cause cause_;
};

/// HTTP over the agent's Unix socket, one connection a request. Belongs to one thread.
class AgentHttp {
public:
    /// Throws BadInput for a path that is too long for a socket.
    explicit AgentHttp(std::string socket_path);

    const std::string& SocketPath() const { return socket_path_; }

    /// Sends a GET, or a POST when there is a body. Nothing when tick gave up. Throws AgentAway when there is no
    /// answer, and AgentUnavailable when there never can be one (no permission, an answer that is too large).
    /// @param timeout  for the whole request; zero is none.
    std::optional<Answer> Perform(const std::string& target, const std::string* body, std::chrono::milliseconds timeout,
                                  const Tick& tick) const;

    /// What answers does not speak like the agent.
    [[noreturn]] void FailForeign(const std::string& what) const;

private:
    [[noreturn]] void FailUnreachable(AgentAway::Cause cause, const std::string& reason) const;

    const std::string socket_path_;
};

/// The agent's socket: what --socket says, else the environment variable QXPAGENT_SOCKET, else
/// ../data/qxpagent/agent.sock beside the directory of this program.
std::string FindSocket(const std::string& option);

/// The directory above that of this program. Throws LocalFailure when the system does not tell.
std::string InstallationRoot();

}  // namespace qxpctl
