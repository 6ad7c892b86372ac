#include "qxhost/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <utility>

#include "c_interface.h"
#include "regular_file.h"

namespace {

constexpr size_t kMaxFileSize = 128UL * 1024 * 1024;

constexpr ssize_t kReadFailed = -1;

/// Owns a descriptor, or -1 for none.
class UniqueFd {
public:
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int Get() const { return fd_; }
    bool IsOpen() const { return fd_ >= 0; }

private:
    const int fd_;
};

/// Reads until `size` bytes or the end of the file; the number of bytes, or kReadFailed.
ssize_t ReadUpTo(int fd, char* buffer, size_t size) {
    size_t filled = 0;
    while (filled < size) {
        const ssize_t count = read(fd, buffer + filled, size - filled);
        if (count == 0) {
            break;
        }
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            return kReadFailed;
        }
        filled += static_cast<size_t>(count);
    }
    return static_cast<ssize_t>(filled);
}

}  // namespace

FileContent ReadRegularFile(int directory, const char* path, size_t limit) {
    // Without O_NONBLOCK a FIFO would hold the open itself up.
    const UniqueFd file(openat(directory, path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status = {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size <= 0 ||
        static_cast<size_t>(status.st_size) > limit) {
        return {};
    }
    const auto size = static_cast<size_t>(status.st_size);
    HeapText data = AllocateHeapText(size + 1);
    if (data == nullptr) {
        return {};
    }
    const ssize_t count = ReadUpTo(file.Get(), data.get(), size);
    if (count <= 0) {
        return {};
    }
    data[static_cast<size_t>(count)] = '\0';
    return {std::move(data), static_cast<size_t>(count)};
}

bool QxGetFileAttr(const char* path, unsigned long long* size, unsigned long long* time) {
    struct stat status = {};
    if (path == nullptr || stat(path, &status) != 0) {
        return false;
    }
    if (size != nullptr) {
        *size = static_cast<unsigned long long>(status.st_size);
    }
    if (time != nullptr) {
        *time = static_cast<unsigned long long>(std::max<time_t>(status.st_mtim.tv_sec, 0));
    }
    return true;
}

char* QxReadFileData(const char* path) {
    if (path == nullptr) {
        return nullptr;
    }
    const CancellationOff cancellation_off;
    return ReadRegularFile(AT_FDCWD, path, kMaxFileSize).data.release();
}

void QxReleaseFileData(char* data) {
    std::free(data);
}
