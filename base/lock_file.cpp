#include "base/lock_file.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <system_error>
#include <thread>

namespace qxpbase {

std::optional<UniqueFd> AcquireLockFile(const std::string& path, std::chrono::milliseconds wait) {
    UniqueFd lock(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY, 0600));
    if (!lock.IsOpen()) {
        throw std::system_error(errno, std::generic_category());
    }
    const auto deadline = std::chrono::steady_clock::now() + wait;
    while (flock(lock.Get(), LOCK_EX | LOCK_NB) != 0) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return std::nullopt;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // the system offers no wait with a deadline
    }
    return lock;
}

}  // namespace qxpbase
