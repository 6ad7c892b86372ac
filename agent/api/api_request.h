#pragma once

#include <cstdint>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

#include "http/message.h"

namespace qxpagent {

/// What is wrong with a request, in one sentence that names the parameter or the member.
class BadRequest : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The query parameters of a request, each known and given at most once. All but Text throw BadRequest for a value that
/// is wrong.
class QueryParameters {
public:
    /// The request must outlive it.
    explicit QueryParameters(const qxphttp::Request& request) : request_(request) {}

    std::optional<std::string> Text(std::string_view name) const;
    uint64_t Number(std::string_view name, uint64_t least, uint64_t most, uint64_t otherwise) const;
    /// Which of the words the value is, by its place among them.
    std::optional<size_t> OneOf(std::string_view name, std::span<const std::string_view> words) const;

    uint64_t After() const;                // 0 when absent
    size_t Limit(size_t otherwise) const;  // 1 to 1000
    std::chrono::seconds Wait() const;     // 0 to 60

private:
    const qxphttp::Request& request_;
};

/// Reads a body that is to be one JSON object with no other members than these, each at most once. Throws BadRequest.
nlohmann::json ReadObject(const std::string& body, std::initializer_list<std::string_view> members);

}  // namespace qxpagent
