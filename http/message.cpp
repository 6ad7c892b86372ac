#include "http/message.h"

#include <microhttpd.h>

#include <nlohmann/json.hpp>

namespace qxphttp {

namespace {

constexpr char kRetryAfterSeconds[] = "2";
constexpr size_t kPieceBytes = size_t{256} << 10;  // what is appended goes into pieces of about this size

}  // namespace

void Body::Append(std::string_view text) {
    if (pieces_.empty() || pieces_.back().size() + text.size() > kPieceBytes) {
        pieces_.emplace_back();
    }
    pieces_.back().append(text);
}

void Body::Adopt(std::string text) {
    pieces_.push_back(std::move(text));
}

Response Problem(int status, const std::string& detail) {
    nlohmann::ordered_json problem;
    problem["type"] = "about:blank";
    problem["title"] = MHD_get_reason_phrase_for(static_cast<unsigned int>(status));
    problem["status"] = status;
    problem["detail"] = detail;
    Response response;
    response.status = status;
    response.content_type = "application/problem+json";
    response.body = problem.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
    if (status == 503) {
        response.headers.emplace_back("Retry-After", kRetryAfterSeconds);
    }
    return response;
}

}  // namespace qxphttp
