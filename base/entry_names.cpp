#include "base/entry_names.h"

#include <dirent.h>
#include <fcntl.h>

#include <memory>

#include "base/unique_fd.h"

namespace qxpbase {

namespace {

struct CloseDirectory {
    void operator()(DIR* directory) const { closedir(directory); }
};

}  // namespace

std::vector<std::string> EntryNames(int directory) {
    std::vector<std::string> names;
    UniqueFd copy(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::unique_ptr<DIR, CloseDirectory> stream(copy.IsOpen() ? fdopendir(copy.Get()) : nullptr);
    if (stream != nullptr) {
        copy.Release();
    }
    while (const dirent* const entry = stream != nullptr ? readdir(stream.get()) : nullptr) {
        names.emplace_back(entry->d_name);
    }
    return names;
}

}  // namespace qxpbase
