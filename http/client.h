#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

namespace qxphttp {

/// Called on the thread of the request, about ten times a second while it is under way; false gives it up.
using Tick = std::function<bool()>;

/// The answer to a request, whatever its status says.
struct Answer {
    long status = 0;
    /// What Retry-After asks for; not set when the answer has none.
    std::optional<std::chrono::seconds> retry_after;
    std::string body;
};

/// There is no answer to a request.
class RequestError : public std::runtime_error {
public:
    enum class Cause {
        kUnreachable,  // nobody accepts connections: the request was not delivered
        kTimedOut,     // it took too long; like kBroken, it may have been delivered
        kBroken,       // the connection ended before the answer was there; the text tells how
        kTooLarge,     // the answer is larger than kMaxAnswerBytes
        kNoClient,     // no request can be made in this process
    };
    RequestError(Cause cause, const std::string& text) : std::runtime_error(text), cause_(cause) {}

    Cause GetCause() const { return cause_; }

private:
    Cause cause_;
};

/// Room for a page of the largest reports that a policy can make; beyond it something is wrong at the other end.
inline constexpr size_t kMaxAnswerBytes = size_t{1} << 30;

/// Sends a GET, or a POST of JSON when there is a body, to the server on a Unix socket, over a connection of its own,
/// and waits for the whole answer. No proxy of the environment has a part in it. Any thread.
/// @param target   path and query, percent-encoded
/// @param body     null: a GET; else it must live until the call returns, and is not copied
/// @param timeout  for the whole request; zero is none
/// @param tick     may be empty
/// @return nothing when tick gave up; the request may then have been delivered
/// @throws RequestError when there is no answer
std::optional<Answer> Perform(const std::string& socket_path, const std::string& target, const std::string* body,
                              std::chrono::milliseconds timeout, const Tick& tick);

/// The longest path that a Unix socket can have, in bytes, without the NUL at its end.
size_t MaxSocketPathBytes();

/// Percent-encodes a text for one path segment or query value (RFC 3986). Any thread.
std::string EscapeForUrl(const std::string& text);

}  // namespace qxphttp
