#pragma once

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

namespace qxpctl {

/// A document whose members keep their order.
using Json = nlohmann::ordered_json;

/// Plain ASCII without a line break: safe in any terminal and any pipe. Bytes that are not UTF-8 become U+FFFD.
inline std::string ToText(const Json& document) {
    return document.dump(-1, ' ', true, Json::error_handler_t::replace);
}

/// The same, as a line.
inline std::string ToLine(const Json& document) {
    return ToText(document) + "\n";
}

/// A member of any JSON value; null when there is none.
inline const Json& Member(const Json& object, const char* key) {
    static const Json kNull;
    const auto member = object.find(key);
    return member == object.end() ? kNull : *member;
}

/// The value of a member, or what stands for one that is missing or of another type. T: as the library stores it, which
/// is std::string, uint64_t, bool or Json::array_t.
template <typename T>
T MemberOr(const Json& object, const char* key, const T& otherwise = {}) {
    const T* const value = Member(object, key).template get_ptr<const T*>();
    return value != nullptr ? *value : otherwise;
}

inline std::string TextMember(const Json& object, const char* key, const std::string& otherwise = {}) {
    return MemberOr(object, key, otherwise);
}

inline uint64_t NumberMember(const Json& object, const char* key, uint64_t otherwise = 0) {
    return MemberOr(object, key, otherwise);
}

}  // namespace qxpctl
