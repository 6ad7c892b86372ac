#include "agent/service/leftovers.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <optional>
#include <regex>
#include <vector>

#include "agent/log.h"
#include "agent/reports/result_collector.h"
#include "base/entry_names.h"
#include "base/unique_fd.h"
#include "policy/forecast.h"

namespace qxpagent {

namespace {

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

// Removes the files that `may_go` allows, if they are regular and old.
template <typename MayGo>
uint64_t RemoveFiles(const qxpbase::UniqueFd& directory, WallTime before, const MayGo& may_go) {
    uint64_t removed = 0;
    for (const std::string& name : qxpbase::EntryNames(directory.Get())) {
        struct stat status {};
        if (fstatat(directory.Get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(status.st_mode) &&
            Nanoseconds(status.st_mtim) < Nanoseconds(before) && may_go(name, status) &&
            unlinkat(directory.Get(), name.c_str(), 0) == 0) {
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
    static const std::regex kName(R"([0-9]{14}[0-9a-f]{4,}(\.[0-9A-Za-z]+)?)");
    return std::regex_match(name, kName);
}

bool IsResultFileName(const std::string& name) {
    static const std::regex kName(R"([^/]+[0-9]\.json)");
    return std::regex_match(name, kName);
}

Tidied RemoveLeftovers(Store& store, const Places& places, WallTime before) {
    Tidied tidied;
    tidied.scripts = RemoveFiles(OpenDirectory(places.scripts), before,
                                 [](const std::string& name, const struct stat&) { return IsScriptFileName(name); });
    if (const qxpbase::UniqueFd directory = OpenDirectory(places.results); directory.IsOpen()) {
        tidied.results = RemoveFiles(directory, before, [&](const std::string& name, const struct stat& status) {
            return IsResultFileName(name) &&
                   store.HasFile(name, Nanoseconds(status.st_mtim), static_cast<uint64_t>(status.st_size));
        });
        store.ForgetFiles(before, qxpbase::EntryNames(directory.Get()));
    }
    tidied.policies =
        RemoveFiles(OpenDirectory(places.aside), before, [](const std::string&, const struct stat&) { return true; });
    if (tidied.scripts + tidied.results + tidied.policies > 0) {
        QXPAGENT_LOG(kLogInfo,
                     "%" PRIu64 " script files, %" PRIu64 " result files and %" PRIu64
                     " policy files were left over and have been removed",
                     tidied.scripts, tidied.results, tidied.policies);
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
            example = fmt::format("{}: {}", name, *fault);
        }
    }
    if (moved > 0) {
        QXPAGENT_LOG(kLogWarn, "%" PRIu64 " policy files are of no use and were moved to %s; one of them, %s", moved,
                     places.aside.c_str(), example.c_str());
    }
    return moved;
}

}  // namespace qxpagent
