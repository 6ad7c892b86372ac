#include "base/peer.h"

#include <sys/socket.h>

#include <cerrno>
#include <system_error>

#include "base/names.h"

namespace qxpbase {

namespace {

ucred CredentialsOf(int socket) {
    ucred credentials{};
    socklen_t size = sizeof(credentials);
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
        throw std::system_error(errno, std::generic_category(), "the peer of a connection is not known");
    }
    return credentials;
}

}  // namespace

uid_t UserOf(int socket) {
    return CredentialsOf(socket).uid;
}

Peer PeerOf(int socket) {
    const ucred credentials = CredentialsOf(socket);
    return {credentials.uid, credentials.gid, credentials.pid, UserName(credentials.uid)};
}

}  // namespace qxpbase
