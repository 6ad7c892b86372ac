#include "http/message.h"

#include <nlohmann/json.hpp>

namespace qxphttp {

namespace {

constexpr char kRetryAfterSeconds[] = "2";
constexpr size_t kPieceBytes = size_t{256} << 10;  // what is appended goes into pieces of about this size

// RFC 9110 section 15; 507 is of RFC 4918 section 11.5.
const char* Title(int status) {
    switch (status) {
        case 400:
            return "Bad Request";
        case 404:
            return "Not Found";
        case 405:
            return "Method Not Allowed";
        case 409:
            return "Conflict";
        case 413:
            return "Content Too Large";
        case 422:
            return "Unprocessable Content";
        case 501:
            return "Not Implemented";
        case 503:
            return "Service Unavailable";
        case 504:
            return "Gateway Timeout";
        case 507:
            return "Insufficient Storage";
        default:
            return "Internal Server Error";
    }
}

}  // namespace

void Body::Append(std::string_view text) {
    if (pieces_.empty() || pieces_.back().size() + text.size() > kPieceBytes) {
        pieces_.emplace_back();
    }
    pieces_.back().append(text);
}

void Body::Take(std::string text) {
    pieces_.push_back(std::move(text));
}

Response Problem(int status, const std::string& detail) {
    nlohmann::ordered_json problem;
    problem["type"] = "about:blank";
    problem["title"] = Title(status);
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
