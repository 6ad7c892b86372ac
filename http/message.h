#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/peer.h"

namespace qxphttp {

/// A request as it was received, whole.
struct Request {
    std::string method;
    std::string path;                                        // percent-decoded, without the query
    std::vector<std::pair<std::string, std::string>> query;  // in order, percent-decoded
    std::string body;
    qxpbase::Peer peer;  // who sent it
};

/// The body of an answer: pieces that are sent one after the other and never joined, so that a large text in it costs
/// no copy.
class Body {
public:
    Body() = default;
    Body(std::string text) { Adopt(std::move(text)); }  // NOLINT(google-explicit-constructor): a text is a body

    /// Adds a copy of the text.
    void Append(std::string_view text);
    /// Adds the text itself as a piece of its own.
    void Adopt(std::string text);

    /// Valid until the next change. Of any size each, and perhaps none.
    std::span<const std::string> Pieces() const { return pieces_; }

private:
    std::vector<std::string> pieces_;
};

/// An answer, to be given to the server whole.
struct Response {
    int status = 200;
    std::string content_type = "application/json";
    Body body;
    std::vector<std::pair<std::string, std::string>> headers;  // beside Content-Type and Content-Length
};

/// An error as RFC 9457 wants it, application/problem+json. `detail` names the member or parameter that is wrong. A 503
/// says when to come again (Retry-After).
Response Problem(int status, const std::string& detail);

/// What a Server serves. Both functions are called on the server's threads, several at once. An exception of Handle is
/// logged and answered with 500, one of MaxBodyBytes is logged and closes the connection.
class Handler {
public:
    virtual ~Handler() = default;

    /// How large a body of this request may be; a larger one is answered with 413. Of `head`, all but the body is set.
    virtual size_t MaxBodyBytes(const Request& head) const = 0;

    /// May block for as long as the answer takes: its connection has a thread of its own. `request` is the handler's.
    virtual Response Handle(Request request) = 0;
};

}  // namespace qxphttp
