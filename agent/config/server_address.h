#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace qxpagent {

/// Where the management server is.
struct ServerAddress {
    std::string ip;
    std::string port;  // decimal, 1 to 65535
};

/// Reads "ADDRESS:PORT" or, for an IPv6 address, "[ADDRESS]:PORT". Nothing when it is neither.
std::optional<ServerAddress> ParseServerAddress(std::string_view text);

}  // namespace qxpagent
