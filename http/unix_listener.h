#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>

#include "base/unique_fd.h"

namespace qxphttp {

/// A listening Unix stream socket of mode 0660, for its owner and one group, guarded by a lock file beside it
/// (PATH.lock, which stays in place), so that no two servers ever share a path. The socket of a server that has died is
/// replaced; the socket of a living one, and a file that is no socket, never is. One thread at a time.
class UnixListener {
public:
    /// Nobody can connect before owner, group and mode are right: docs/decisions/010-access-and-configuration.md.
    /// Throws qxpbase::StartupError, and leaves no socket behind then.
    /// @param server  what serves here, in a word, for the texts of errors
    /// @param group   a name or a number; empty: the process's own
    UnixListener(const std::filesystem::path& path, const std::string& server, const std::string& group = {});
    /// Removes the socket, then gives up the lock.
    ~UnixListener();
    UnixListener(const UnixListener&) = delete;
    UnixListener& operator=(const UnixListener&) = delete;

    /// The listening descriptor, close-on-exec; the caller's from now on.
    int Release() { return socket_.Release(); }

    /// Removes the socket's name, unless something else stands there by now. The lock is kept.
    void RemoveName();

    const std::filesystem::path& Path() const { return path_; }

private:
    void SetAccess(gid_t group);

    // Constant after construction, but for what Release and RemoveName take away.
    const std::filesystem::path path_;
    qxpbase::UniqueFd lock_;
    qxpbase::UniqueFd socket_;
    dev_t device_ = 0;
    ino_t inode_ = 0;  // 0: no name of ours is left
};

}  // namespace qxphttp
