#pragma once

#include <string>

namespace qxpctl {

/// The directory above that of this program. Throws LocalFailure when the system does not tell.
std::string InstallationRoot();

/// The socket of the agent that belongs to an installation.
std::string SocketOf(const std::string& root);

/// The agent's socket: what --socket says, else the environment variable QXPAGENT_SOCKET, else that of the installation
/// of this program.
std::string FindSocket(const std::string& option);

/// Who may use a socket that this user may not, as advice: names the group that owns the socket, or the directory on
/// the way that cannot be entered.
std::string WhoMayUse(const std::string& socket_path);

}  // namespace qxpctl
