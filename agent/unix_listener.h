#pragma once

#include <sys/types.h>

#include <filesystem>

#include "agent/unique_fd.h"

namespace qxpagent {

/// A listening Unix stream socket of this process alone: mode 0600 from birth, and guarded by a lock file beside it
/// (PATH.lock, which stays in place), so that no two agents ever share a path. The socket of an agent that has died is
/// replaced; the socket of a living one, and a file that is no socket, never is.
class UnixListener {
public:
    /// Throws StartupError.
    explicit UnixListener(const std::filesystem::path& path);
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
    // Constant after construction, but for what Release and RemoveName take away.
    const std::filesystem::path path_;
    UniqueFd lock_;
    UniqueFd socket_;
    dev_t device_ = 0;
    ino_t inode_ = 0;  // 0: no name of ours is left
};

}  // namespace qxpagent
