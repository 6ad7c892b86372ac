#pragma once

#include <sys/types.h>

#include <string>

namespace qxpbase {

/// Who sent a request, as the kernel says.
struct Peer {
    uid_t uid = 0;
    gid_t gid = 0;
    pid_t pid = 0;
    std::string user;  // the name of uid, or its number when it has none
};

/// Who is at the other end of a connected Unix socket, as the kernel noted when it connected. Throws std::system_error
/// when the socket does not tell.
Peer PeerOf(int socket);
/// Its user alone, without a look at the names of users. Throws std::system_error.
uid_t UserOf(int socket);

}  // namespace qxpbase
