#include "agent/config/server_address.h"

#include <charconv>
#include <cstdint>
#include <system_error>

namespace qxpagent {

std::optional<ServerAddress> ParseServerAddress(std::string_view text) {
    const size_t colon = text.rfind(':');
    if (colon == std::string_view::npos) {
        return std::nullopt;
    }
    std::string_view ip = text.substr(0, colon);
    const std::string_view port = text.substr(colon + 1);
    const bool bracketed = ip.size() > 2 && ip.front() == '[' && ip.back() == ']';
    if (bracketed) {
        ip = ip.substr(1, ip.size() - 2);
    }
    const char* const allowed =
        bracketed ? "0123456789abcdefABCDEF:." : "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ.-_";
    uint16_t number = 0;
    const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), number);
    if (ip.empty() || ip.find_first_not_of(allowed) != std::string_view::npos || error != std::errc() ||
        end != port.data() + port.size() || number == 0) {
        return std::nullopt;
    }
    return ServerAddress{std::string(ip), std::to_string(number)};
}

}  // namespace qxpagent
