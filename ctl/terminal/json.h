#pragma once

#include <nlohmann/json.hpp>
#include <string>

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

}  // namespace qxpctl
