#include "agent/access/peer.h"

#include <pwd.h>
#include <sys/socket.h>

#include <cerrno>
#include <system_error>
#include <vector>

namespace qxpagent {

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

std::string UserName(uid_t uid) {
    constexpr size_t kMostBytes = size_t{1} << 20;
    std::vector<char> buffer(1024);
    passwd entry{};
    passwd* found = nullptr;
    while (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) == ERANGE && buffer.size() < kMostBytes) {
        buffer.resize(buffer.size() * 2);
    }
    return found != nullptr ? found->pw_name : std::to_string(uid);
}

uid_t UserOf(int socket) {
    return CredentialsOf(socket).uid;
}

Peer PeerOf(int socket) {
    const ucred credentials = CredentialsOf(socket);
    return {credentials.uid, credentials.gid, credentials.pid, UserName(credentials.uid)};
}

}  // namespace qxpagent
