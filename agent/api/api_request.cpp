#include "agent/api/api_request.h"

#include <algorithm>
#include <set>

#include <fmt/format.h>

#include "base/whole_number.h"

namespace qxpagent {

namespace {

constexpr uint64_t kMostInOneAnswer = 1000;
constexpr uint64_t kMaxWaitSeconds = 60;

}  // namespace

std::optional<std::string> QueryParameters::Text(std::string_view name) const {
    for (const auto& [key, value] : request_.query) {
        if (key == name) {
            return value;
        }
    }
    return std::nullopt;
}

uint64_t QueryParameters::Number(std::string_view name, uint64_t least, uint64_t most, uint64_t otherwise) const {
    const std::optional<std::string> text = Text(name);
    if (!text.has_value()) {
        return otherwise;
    }
    const std::optional<uint64_t> number = qxpbase::WholeNumber(*text);
    if (!number.has_value() || *number < least || *number > most) {
        throw BadRequest(fmt::format("The parameter \"{}\" must be a whole number from {} to {}.", name, least, most));
    }
    return *number;
}

std::optional<size_t> QueryParameters::OneOf(std::string_view name, std::span<const std::string_view> words) const {
    const std::optional<std::string> text = Text(name);
    if (!text.has_value()) {
        return std::nullopt;
    }
    const auto found = std::find(words.begin(), words.end(), *text);
    if (found == words.end()) {
        throw BadRequest(fmt::format("The parameter \"{}\" must be one of {}.", name, fmt::join(words, ", ")));
    }
    return static_cast<size_t>(found - words.begin());
}

uint64_t QueryParameters::After() const {
    return Number("after", 0, INT64_MAX, 0);
}

size_t QueryParameters::Limit(size_t otherwise) const {
    return Number("limit", 1, kMostInOneAnswer, otherwise);
}

std::chrono::seconds QueryParameters::Wait() const {
    return std::chrono::seconds(Number("wait", 0, kMaxWaitSeconds, 0));
}

nlohmann::json ReadObject(const std::string& body, std::initializer_list<std::string_view> members) {
    using Event = nlohmann::json::parse_event_t;
    std::set<std::string> names;
    std::string twice;
    const auto note_name = [&](int depth, Event event, const nlohmann::json& name) {
        if (event == Event::key && depth == 1 && !names.insert(name.get<std::string>()).second) {
            twice = name.get<std::string>();
        }
        return true;
    };
    nlohmann::json object = nlohmann::json::parse(body, note_name, false);
    if (!object.is_object()) {
        throw BadRequest("The body must be one JSON object.");
    }
    if (!twice.empty()) {
        throw BadRequest(fmt::format("The member \"{}\" is given twice.", twice));
    }
    for (const std::string& name : names) {
        if (std::find(members.begin(), members.end(), name) == members.end()) {
            throw BadRequest(fmt::format("There is no member \"{}\".", name));
        }
    }
    return object;
}

}  // namespace qxpagent
