#pragma once

#include "agent/agent_control.h"

namespace qxpagent {

/// Who is at the other end of a connected Unix socket, as the kernel noted when it connected. Throws std::system_error
/// when the socket does not tell.
Peer PeerOf(int socket);
/// Its user alone, without a look at the names of users. Throws std::system_error.
uid_t UserOf(int socket);

}  // namespace qxpagent
