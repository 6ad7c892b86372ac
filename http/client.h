#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

namespace qxphttp {

/// Called about ten times a second while a request is under way; false gives the request up.
using Tick = std::function<bool()>;

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

/// Sends a GET, or a POST of JSON when there is a body, to the server on a Unix socket, over a connection of its own.
/// No proxy of the environment has a part in it. Nothing when tick gave up. Throws RequestError. Any thread.
/// @param target   path and query, percent-encoded
/// @param timeout  for the whole request; zero is none
std::optional<Answer> Perform(const std::string& socket_path, const std::string& target, const std::string* body,
                              std::chrono::milliseconds timeout, const Tick& tick);

/// The longest path that a Unix socket can have.
size_t MaxSocketPathBytes();

/// Percent-encodes a text for one path segment or query value (RFC 3986).
std::string EscapeForUrl(const std::string& text);

}  // namespace qxphttp
