#include "qxhost/file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>

#include "no_cancel.h"
#include "regular_file.h"

namespace {

constexpr size_t kMaxFileSize = 128UL * 1024 * 1024;

}  // namespace

bool QxGetFileAttr(const char* pszPath, unsigned long long* puSize, unsigned long long* puTime) {
    struct stat stInfo = {};
    if (pszPath == nullptr || stat(pszPath, &stInfo) != 0) {
        return false;
    }
    if (puSize != nullptr) {
        *puSize = static_cast<unsigned long long>(stInfo.st_size);
    }
    if (puTime != nullptr) {
        *puTime = static_cast<unsigned long long>(std::max<time_t>(stInfo.st_mtim.tv_sec, 0));
    }
    return true;
}

char* QxReadFileData(const char* pszPath) {
    if (pszPath == nullptr) {
        return nullptr;
    }
    const CNoCancel noCancel;
    return ReadRegularFile(AT_FDCWD, pszPath, kMaxFileSize).pData.release();
}

void QxReleaseFileData(char* pData) {
    std::free(pData);
}
