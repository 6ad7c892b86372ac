#include "regular_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "unique_fd.h"

namespace {

constexpr ssize_t kReadFailed = -1;

/// Reads until uSize bytes or the end of the file; the number of bytes, or kReadFailed.
ssize_t ReadUpTo(int iFd, char* pBuffer, size_t uSize) {
    size_t uFilled = 0;
    while (uFilled < uSize) {
        const ssize_t iRead = read(iFd, pBuffer + uFilled, uSize - uFilled);
        if (iRead == 0) {
            break;
        }
        if (iRead < 0) {
            if (errno == EINTR) {
                continue;
            }
            return kReadFailed;
        }
        uFilled += static_cast<size_t>(iRead);
    }
    return static_cast<ssize_t>(uFilled);
}

}  // namespace

SFileContent ReadRegularFile(int iDirectory, const char* pszPath, size_t uLimit) {
    const CUniqueFd file(openat(iDirectory, pszPath, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat stInfo = {};
    if (!file.IsOpen() || fstat(file.Get(), &stInfo) != 0 || !S_ISREG(stInfo.st_mode) || stInfo.st_size <= 0 ||
        static_cast<size_t>(stInfo.st_size) > uLimit) {
        return {};
    }
    const auto uSize = static_cast<size_t>(stInfo.st_size);
    CHeapText pData = AllocateHeapText(uSize + 1);
    if (!pData) {
        return {};
    }
    const ssize_t iRead = ReadUpTo(file.Get(), pData.get(), uSize);
    if (iRead <= 0) {
        return {};
    }
    pData[static_cast<size_t>(iRead)] = '\0';
    return {std::move(pData), static_cast<size_t>(iRead)};
}
