#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/peer.h"

namespace qxphttp {

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
    Body(std::string text) { Take(std::move(text)); }  // NOLINT(google-explicit-constructor): a text is a body

    /// Adds a copy.
    void Append(std::string_view text);
    /// Adds the text itself.
    void Take(std::string text);

    std::span<const std::string> Pieces() const { return pieces_; }

private:
    std::vector<std::string> pieces_;
};

struct Response {
    int status = 200;
    std::string content_type = "application/json";
    Body body;
    std::vector<std::pair<std::string, std::string>> headers;  // beside Content-Type and Content-Length
};

/// An error as RFC 9457 wants it, application/problem+json. `detail` names the member or parameter that is wrong. A 503
/// says when to come again (Retry-After).
Response Problem(int status, const std::string& detail);

/// What an Server serves. Both functions are called on the server's threads, several at once.
class Handler {
public:
    virtual ~Handler() = default;

    /// How large a body may be that comes with this request, of which method and path are known so far.
    virtual size_t MaxBodyBytes(const Request& head) const = 0;

    /// May block for as long as the answer takes.
    virtual Response Handle(Request request) = 0;
};

}  // namespace qxphttp
