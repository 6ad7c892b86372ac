#include "agent/housekeeping.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <string_view>
#include <vector>

#include "agent/entry_names.h"
#include "agent/log.h"
#include "agent/unique_fd.h"

namespace qxpagent {

namespace {

constexpr std::string_view kDigits = "0123456789";
constexpr std::string_view kHexDigits = "0123456789abcdef";
constexpr size_t kTimeDigits = 14;
constexpr size_t kLeastSequenceDigits = 4;

int64_t Nanoseconds(const timespec& time) {
    return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

UniqueFd OpenDirectory(const std::filesystem::path& path) {
    return UniqueFd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// Removes the files that `may_go` names, if they are regular and old.
template <typename MayGo>
uint64_t RemoveFiles(int directory, const std::vector<std::string>& names, WallTime before, const MayGo& may_go) {
    const int64_t limit = std::chrono::duration_cast<std::chrono::nanoseconds>(before.time_since_epoch()).count();
    uint64_t removed = 0;
    for (const std::string& name : names) {
        struct stat status {};
        if (fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(status.st_mode) &&
            Nanoseconds(status.st_mtim) < limit && may_go(name, status) && unlinkat(directory, name.c_str(), 0) == 0) {
            ++removed;
        }
    }
    return removed;
}

}  // namespace

bool IsScriptFileName(const std::string& name) {
    const size_t digits = std::min(name.find_first_not_of(kDigits), name.size());
    const size_t end = std::min(name.find_first_not_of(kHexDigits), name.size());
    if (digits < kTimeDigits || end < kTimeDigits + kLeastSequenceDigits) {
        return false;
    }
    const std::string_view extension = std::string_view(name).substr(end);
    return extension.empty() || (extension.size() > 1 && extension[0] == '.' &&
                                 std::all_of(extension.begin() + 1, extension.end(),
                                             [](unsigned char character) { return std::isalnum(character) != 0; }));
}

bool IsResultFileName(const std::string& name) {
    constexpr std::string_view kEnding = ".json";
    const size_t stem = name.size() - std::min(name.size(), kEnding.size());
    return name.ends_with(kEnding) && stem > 1 && kDigits.find(name[stem - 1]) != std::string_view::npos;
}

Tidied RemoveLeftovers(Store& store, const std::filesystem::path& data_directory,
                       const std::filesystem::path& result_directory, WallTime before) {
    Tidied tidied;
    if (const UniqueFd directory = OpenDirectory(data_directory); directory.IsOpen()) {
        tidied.scripts =
            RemoveFiles(directory.Get(), EntryNames(directory.Get()), before,
                        [](const std::string& name, const struct stat&) { return IsScriptFileName(name); });
    }
    if (const UniqueFd directory = OpenDirectory(result_directory); directory.IsOpen()) {
        tidied.results =
            RemoveFiles(directory.Get(), EntryNames(directory.Get()), before,
                        [&](const std::string& name, const struct stat& status) {
                            return IsResultFileName(name) && store.HasFile(name, Nanoseconds(status.st_mtim),
                                                                           static_cast<uint64_t>(status.st_size));
                        });
        store.ForgetFiles(before, EntryNames(directory.Get()));
    }
    if (tidied.scripts + tidied.results > 0) {
        QXPAGENT_LOG(kLogInfo, "%llu script files and %llu result files were left over and have been removed",
                     static_cast<unsigned long long>(tidied.scripts), static_cast<unsigned long long>(tidied.results));
    }
    return tidied;
}

}  // namespace qxpagent
