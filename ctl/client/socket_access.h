#pragma once

#include <string>

namespace qxpctl {

/// Who may use a socket that this user may not, as advice: names the group that owns the socket, or the directory on
/// the way that cannot be entered.
std::string WhoMayUse(const std::string& socket_path);

}  // namespace qxpctl
