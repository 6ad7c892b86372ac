#include "agent/service/leftovers.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <optional>
#include <string_view>
#include <vector>

#include "agent/log.h"
#include "agent/reports/result_collector.h"
#include "base/entry_names.h"
#include "base/unique_fd.h"
#include "policy/forecast.h"

namespace qxpagent {

namespace {

constexpr std::string_view kDigits = "0123456789";
constexpr std::string_view kHexDigits = "0123456789abcdef";
constexpr size_t kTimeDigits = 14;
constexpr size_t kLeastSequenceDigits = 4;
constexpr uint64_t kMostPolicyBytes = uint64_t{16} << 20;
constexpr std::chrono::seconds kSettleTime{2};
constexpr std::chrono::seconds kMoveTime{3};

int64_t Nanoseconds(const timespec& time) {
    return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

int64_t Nanoseconds(WallTime time) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch()).count();
}

qxpbase::UniqueFd OpenDirectory(const std::filesystem::path& path) {
    return qxpbase::UniqueFd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// Removes the files that `may_go` names, if they are regular and old.
template <typename MayGo>
uint64_t RemoveFiles(int directory, const std::vector<std::string>& names, WallTime before, const MayGo& may_go) {
    const int64_t limit = Nanoseconds(before);
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

// Reason why the plugin will never accept a policy file; nothing when it may, or when nobody can tell now.
qxppolicy::Fault ValidatePolicyFile(int directory, const std::string& name, const qxppolicy::TrustedKeys& keys) {
    const std::optional<ResultFile> file = ReadResultFile(directory, name);
    if (!file.has_value() || file->mark.size > kMostPolicyBytes ||
        file->mark.modified_ns > Nanoseconds(std::chrono::system_clock::now() - kSettleTime)) {
        return std::nullopt;
    }
    const qxppolicy::PolicyDocument document(file->text);
    if (!document.IsReadable()) {
        return "it is no JSON document";
    }
    const qxppolicy::PolicyForecast forecast = qxppolicy::Forecast(document, keys);
    return forecast.faults.empty() ? std::nullopt : qxppolicy::Fault(forecast.faults.front());
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

Tidied RemoveLeftovers(Store& store, const Places& places, WallTime before) {
    Tidied tidied;
    if (const qxpbase::UniqueFd directory = OpenDirectory(places.scripts); directory.IsOpen()) {
        tidied.scripts =
            RemoveFiles(directory.Get(), qxpbase::EntryNames(directory.Get()), before,
                        [](const std::string& name, const struct stat&) { return IsScriptFileName(name); });
    }
    if (const qxpbase::UniqueFd directory = OpenDirectory(places.results); directory.IsOpen()) {
        tidied.results =
            RemoveFiles(directory.Get(), qxpbase::EntryNames(directory.Get()), before,
                        [&](const std::string& name, const struct stat& status) {
                            return IsResultFileName(name) && store.HasFile(name, Nanoseconds(status.st_mtim),
                                                                           static_cast<uint64_t>(status.st_size));
                        });
        store.ForgetFiles(before, qxpbase::EntryNames(directory.Get()));
    }
    if (const qxpbase::UniqueFd directory = OpenDirectory(places.aside); directory.IsOpen()) {
        tidied.policies = RemoveFiles(directory.Get(), qxpbase::EntryNames(directory.Get()), before,
                                      [](const std::string&, const struct stat&) { return true; });
    }
    if (tidied.scripts + tidied.results + tidied.policies > 0) {
        QXPAGENT_LOG(kLogInfo,
                     "%llu script files, %llu result files and %llu policy files were left over and have been removed",
                     static_cast<unsigned long long>(tidied.scripts), static_cast<unsigned long long>(tidied.results),
                     static_cast<unsigned long long>(tidied.policies));
    }
    return tidied;
}

uint64_t MoveUnusablePolicies(const Places& places, const qxppolicy::TrustedKeys& keys) {
    const auto deadline = std::chrono::steady_clock::now() + kMoveTime;
    const qxpbase::UniqueFd directory = OpenDirectory(places.policies);
    std::vector<std::string> names = qxpbase::EntryNames(directory.Get());
    std::erase_if(names, [](const std::string& name) { return !name.ends_with(".json"); });
    if (names.size() <= kFewPolicies) {
        return 0;
    }
    mkdir(places.aside.c_str(), 0700);
    const qxpbase::UniqueFd aside = OpenDirectory(places.aside);
    uint64_t moved = 0;
    std::string example;
    for (const std::string& name : names) {
        if (std::chrono::steady_clock::now() > deadline) {
            break;
        }
        const qxppolicy::Fault fault = ValidatePolicyFile(directory.Get(), name, keys);
        if (fault && renameat(directory.Get(), name.c_str(), aside.Get(), name.c_str()) == 0) {
            ++moved;
            example.assign(name).append(": ").append(*fault);
        }
    }
    if (moved > 0) {
        QXPAGENT_LOG(kLogWarn, "%llu policy files are of no use and were moved to %s; one of them, %s",
                     static_cast<unsigned long long>(moved), places.aside.c_str(), example.c_str());
    }
    return moved;
}

}  // namespace qxpagent
