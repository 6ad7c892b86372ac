#include "agent/service/environment.h"

#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <string_view>
#include <system_error>

#include "agent/log.h"

namespace qxpagent {

namespace {

constexpr std::array<std::string_view, 10> kKept = {"PATH", "HOME",   "USER", "LOGNAME", "SHELL",
                                                    "TERM", "TMPDIR", "TZ",   "LANG",    "LANGUAGE"};

bool IsKept(const std::string& name, const std::vector<std::string>& more) {
    return name.starts_with("LC_") || std::find(kKept.begin(), kKept.end(), name) != kKept.end() ||
           std::find(more.begin(), more.end(), name) != more.end();
}

bool StandardErrorIsJournal() {
    const char* const stream = std::getenv("JOURNAL_STREAM");
    struct stat status {};
    return stream != nullptr && fstat(STDERR_FILENO, &status) == 0 &&
           fmt::format("{}:{}", status.st_dev, status.st_ino) == stream;
}

}  // namespace

void SetUpLog(const Options& options) {
    if (!options.log.empty()) {
        setenv("QXHOST_LOG", options.log.c_str(), 1);
    } else if (StandardErrorIsJournal()) {
        setenv("QXHOST_LOG", "journal", 0);
    }
    if (!options.log_level.empty()) {
        setenv("QXHOST_LOG_LEVEL", options.log_level.c_str(), 1);
    }
    CLogDebug::Instance()->CheckLogLevel(kLogInfo);  // it reads them now
}

std::vector<std::string> ReduceEnvironment(const std::vector<std::string>& more) {
    std::vector<std::string> gone;
    for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
        const std::string_view text = *variable;
        std::string name(text.substr(0, text.find('=')));
        if (!IsKept(name, more)) {
            gone.push_back(std::move(name));
        }
    }
    for (const std::string& name : gone) {
        unsetenv(name.c_str());
    }
    return gone;
}

std::string RaiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= kWantedDescriptors) {
        return {};
    }
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, kWantedDescriptors);
    setrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur >= kWantedDescriptors) {
        return {};
    }
    return fmt::format(
        "This process may have {} open descriptors and should have {}: runs for which none is left fail. Raise its "
        "hard limit.",
        limit.rlim_cur, kWantedDescriptors);
}

size_t DescriptorsLeft() {
    rlimit limit{};
    std::error_code error;
    const std::filesystem::directory_iterator open("/proc/self/fd", error);
    const auto used = error ? 0 : static_cast<size_t>(std::distance(begin(open), end(open)));
    if (error || getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return 0;
    }
    return limit.rlim_cur > used ? limit.rlim_cur - used : 0;
}

}  // namespace qxpagent
