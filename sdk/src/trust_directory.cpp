#include "trust_directory.h"

#include <mutex>
#include <new>
#include <optional>

#include "module_directory.h"
#include "qxhost/signature.h"

namespace {

struct SSetting {
    std::mutex mutex;
    std::string strDirectory;  // guarded by mutex; empty: the default
};

/// Never destroyed: a thread may check a signature while the process exits.
SSetting& Setting() {
    static SSetting& setting = *new SSetting();
    return setting;
}

std::string DefaultDirectory() {
    static const char cInThisLibrary = 0;
    const std::optional<std::string> directory = ModuleDirectory(&cInThisLibrary);
    return directory ? *directory + "/../etc/trusted-keys" : std::string();
}

}  // namespace

std::string TrustDirectory() {
    {
        const std::lock_guard lock(Setting().mutex);
        if (!Setting().strDirectory.empty()) {
            return Setting().strDirectory;
        }
    }
    return DefaultDirectory();
}

void QxSetTrustDirectory(const char* pszDirectory) {
    try {
        std::string strDirectory(pszDirectory == nullptr ? "" : pszDirectory);
        const std::lock_guard lock(Setting().mutex);
        Setting().strDirectory.swap(strDirectory);
    } catch (const std::bad_alloc&) {
        // The directory stays as it was.
    }
}
