#include "http/unix_listener.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "base/errno_text.h"
#include "base/lock_file.h"
#include "base/names.h"
#include "base/startup_error.h"

namespace qxphttp {

namespace {

constexpr int kBacklog = 64;

// `form`: the text, with a place for the path and one for what errno says.
[[noreturn]] void ThrowErrno(const char* form, const std::filesystem::path& path) {
    const int error = errno;
    throw qxpbase::StartupError(fmt::format(fmt::runtime(form), path.string(), qxpbase::ErrnoText(error)));
}

qxpbase::UniqueFd AcquireLock(const std::filesystem::path& socket_path, const std::string& server) {
    const std::string path = socket_path.string() + ".lock";
    try {
        std::optional<qxpbase::UniqueFd> lock = qxpbase::AcquireLockFile(path);
        if (lock.has_value()) {
            return std::move(*lock);
        }
    } catch (const std::system_error& error) {
        throw qxpbase::StartupError(fmt::format(
            "The lock file {} cannot be opened: {}. Create its directory, or name another socket with --socket.", path,
            qxpbase::ErrnoText(error.code().value())));
    }
    throw qxpbase::StartupError(
        fmt::format("Another {} is running, or still stopping, on {}: stop it, or name another socket with --socket.",
                    server, socket_path.string()));
}

qxpbase::UniqueFd NewSocket() {
    qxpbase::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.IsOpen()) {
        throw qxpbase::StartupError(fmt::format("No socket can be made: {}.", qxpbase::ErrnoText(errno)));
    }
    return fd;
}

sockaddr_un AddressOf(const std::filesystem::path& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.native().size() >= sizeof(address.sun_path)) {
        throw qxpbase::StartupError(
            fmt::format("The socket path {} is longer than {} bytes: name a shorter one with --socket.", path.string(),
                        sizeof(address.sun_path) - 1));
    }
    std::memcpy(address.sun_path, path.c_str(), path.native().size() + 1);
    return address;
}

// Makes the path free for a new socket: removes what a dead server has left, and nothing else.
void RemoveStaleSocket(const std::filesystem::path& path, const sockaddr_un& address) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
        if (errno == ENOENT) {
            return;
        }
        ThrowErrno("The socket {} cannot be examined: {}.", path);
    }
    if (!S_ISSOCK(status.st_mode)) {
        throw qxpbase::StartupError(
            fmt::format("{} exists and is not a socket: remove it, or name another with --socket.", path.string()));
    }
    const qxpbase::UniqueFd probe = NewSocket();
    if (connect(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 ||
        errno != ECONNREFUSED) {
        throw qxpbase::StartupError(fmt::format(
            "Another process is serving {}: stop it, or name another socket with --socket.", path.string()));
    }
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        ThrowErrno("The stale socket {} cannot be removed: {}.", path);
    }
}

}  // namespace

UnixListener::UnixListener(const std::filesystem::path& path, const std::string& server, const std::string& group)
    : path_(path) {
    const sockaddr_un address = AddressOf(path_);
    const gid_t group_number = group.empty() ? getegid() : qxpbase::FindGroup(group);
    lock_ = AcquireLock(path_, server);
    RemoveStaleSocket(path_, address);
    socket_ = NewSocket();
    // On Linux the name that bind makes takes the mode of the socket's own inode, less the umask.
    struct stat status {};
    if (fchmod(socket_.Get(), 0600) != 0 ||
        bind(socket_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        lstat(path_.c_str(), &status) != 0) {
        ThrowErrno("The socket {} cannot be made: {}.", path_);
    }
    device_ = status.st_dev;
    inode_ = status.st_ino;
    try {
        SetAccess(group_number);
    } catch (...) {
        RemoveName();
        throw;
    }
}

// Nobody can connect before listen. The name is changed through a descriptor of itself, so that nothing else is changed
// that may have taken its place.
void UnixListener::SetAccess(gid_t group) {
    const qxpbase::UniqueFd name(open(path_.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    const std::string name_path = fmt::format("/proc/self/fd/{}", name.Get());
    struct stat status {};
    const bool is_ours =
        name.IsOpen() && fstat(name.Get(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_;
    if (!is_ours ||
        (status.st_gid != group && fchownat(name.Get(), "", static_cast<uid_t>(-1), group, AT_EMPTY_PATH) != 0) ||
        chmod(name_path.c_str(), 0660) != 0 || listen(socket_.Get(), kBacklog) != 0) {
        ThrowErrno(
            "The socket {} cannot be given to its group: {}. Start as root, or name a group of its user with "
            "--socket-group.",
            path_);
    }
}

UnixListener::~UnixListener() {
    RemoveName();
}

void UnixListener::RemoveName() {
    struct stat status {};
    if (inode_ != 0 && lstat(path_.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_) {
        unlink(path_.c_str());
    }
    inode_ = 0;
}

}  // namespace qxphttp
