#include "agent/reports/result_collector.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <exception>
#include <system_error>
#include <utility>

#include <fmt/core.h>

#include "agent/log.h"
#include "base/entry_names.h"
#include "base/errno_text.h"
#include "base/sha256.h"
#include "base/startup_error.h"

namespace qxpagent {

namespace {

constexpr off_t kMaxFileBytes = off_t{256} << 20;
constexpr uint64_t kMostWarnings = 20;  // about files of one scan
constexpr uint32_t kWatched = IN_CLOSE_WRITE | IN_MOVED_TO | IN_ONLYDIR | IN_DELETE_SELF | IN_MOVE_SELF;

// Opened for each use: while it is open, inotify does not tell that the directory was removed.
qxpbase::UniqueFd OpenDirectory(const std::filesystem::path& path) {
    return qxpbase::UniqueFd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

bool IsResultName(const std::string& name) {
    return name.ends_with(".json");
}

int64_t Nanoseconds(const timespec& time) {
    return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

bool ReadAll(int file, std::string& text, size_t size) {
    text.resize(size);
    size_t done = 0;
    while (done < size) {
        const ssize_t count = read(file, text.data() + done, size - done);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        done += static_cast<size_t>(count);
    }
    return true;
}

}  // namespace

std::optional<ResultFile> ReadResultFile(int directory, const std::string& name) {
    const qxpbase::UniqueFd file(
        openat(directory, name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    struct stat before {};
    struct stat after {};
    if (!file.IsOpen() || fstat(file.Get(), &before) != 0 || !S_ISREG(before.st_mode) ||
        before.st_size > kMaxFileBytes) {
        return std::nullopt;
    }
    ResultFile result;
    if (!ReadAll(file.Get(), result.text, static_cast<size_t>(before.st_size)) || fstat(file.Get(), &after) != 0 ||
        after.st_size != before.st_size || Nanoseconds(after.st_mtim) != Nanoseconds(before.st_mtim)) {
        return std::nullopt;
    }
    result.mark = {name, Nanoseconds(after.st_mtim), result.text.size(), qxpbase::Sha256Hex(result.text)};
    return result;
}

ResultCollector::ResultCollector(const std::filesystem::path& directory, ReportIntake& intake,
                                 const CollectorTimes& times)
    : directory_(directory),
      intake_(intake),
      times_(times),
      stop_event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      watch_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    std::error_code ignored;
    std::filesystem::create_directories(directory_, ignored);
    if (stop_event_.IsOpen() && watch_.IsOpen()) {
        Watch();
    }
    if (!watching_) {
        throw qxpbase::StartupError(fmt::format("The result directory {} cannot be watched: {}.", directory_.string(),
                                                qxpbase::ErrnoText(errno)));
    }
    Scan();
    StoreBacklog(times_.start);
    thread_ = std::thread([this] { Loop(); });
    pthread_setname_np(thread_.native_handle(), "qxpresults");
}

ResultCollector::~ResultCollector() {
    Stop();
}

void ResultCollector::Stop() {
    if (!thread_.joinable()) {
        return;
    }
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(stop_event_.Get(), &one, sizeof(one));
    thread_.join();
    try {
        if (watching_ && ReadEvents()) {
            StorePending();
        } else {
            Scan();
            StoreBacklog(times_.start);
        }
    } catch (const std::exception& error) {
        QXPAGENT_LOG(kLogError, "the last result files are left for the next start: %s", error.what());
    }
}

void ResultCollector::Watch() {
    watching_ = inotify_add_watch(watch_.Get(), directory_.c_str(), kWatched) >= 0;
}

// Lists everything that is there: at the start, and whenever events may have been lost. The newest are stored first,
// since they may be the results that commands still lack. Throws StoreError.
void ResultCollector::Scan() {
    const qxpbase::UniqueFd directory = OpenDirectory(directory_);
    std::vector<std::pair<int64_t, std::string>> found;
    for (std::string& name : qxpbase::EntryNames(directory.Get())) {
        struct stat status {};
        if (IsResultName(name) && fstatat(directory.Get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            !IsStored(name, status)) {
            found.emplace_back(Nanoseconds(status.st_mtim), std::move(name));
        }
    }
    std::sort(found.begin(), found.end());
    left_alone_ = 0;
    backlog_.clear();
    for (auto& [modified, name] : found) {
        backlog_.push_back(std::move(name));
    }
}

// By its time and size. A file that was written just now may have been written twice within one tick of the clock, so
// it is read again, and its SHA-256 tells.
bool ResultCollector::IsStored(const std::string& name, const struct stat& status) {
    constexpr time_t kSettled = 10;  // seconds
    return status.st_mtim.tv_sec < time(nullptr) - kSettled &&
           intake_.HasFile(name, Nanoseconds(status.st_mtim), static_cast<uint64_t>(status.st_size));
}

void ResultCollector::Loop() {
    bool taken = true;
    for (;;) {
        pollfd events[] = {{stop_event_.Get(), POLLIN, 0}, {watch_.Get(), POLLIN, 0}};
        const bool idle = watching_ && pending_.empty() && backlog_.empty();
        const bool busy = taken && !backlog_.empty();
        poll(events, 2, idle ? -1 : busy ? 0 : static_cast<int>(times_.retry.count()));
        if ((events[0].revents & POLLIN) != 0) {
            return;
        }
        try {
            taken = Round();
        } catch (const std::exception& error) {  // no memory, or a store that cannot be read
            QXPAGENT_LOG(kLogError, "result files are left for later: %s", error.what());
            taken = false;
        }
    }
}

// Stores the files that events named, then a part of the backlog. False when the store refuses one.
bool ResultCollector::Round() {
    constexpr std::chrono::milliseconds kSlice{100};
    bool complete = ReadEvents();
    if (!watching_) {
        Watch();
        complete = !watching_;
    }
    if (!complete) {
        Scan();
    }
    return StorePending() && StoreBacklog(kSlice);
}

// False when the kernel dropped events.
bool ResultCollector::ReadEvents() {
    alignas(inotify_event) std::array<char, 65536> buffer;
    bool complete = true;
    for (;;) {
        const ssize_t size = read(watch_.Get(), buffer.data(), buffer.size());
        if (size <= 0) {
            return complete;
        }
        for (ssize_t at = 0; at < size;) {
            const auto* const event = reinterpret_cast<const inotify_event*>(buffer.data() + at);
            if ((event->mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF)) != 0 && watching_) {
                watching_ = false;
                QXPAGENT_LOG(kLogError, "the result directory %s is gone: waiting for it", directory_.c_str());
            }
            complete = complete && (event->mask & IN_Q_OVERFLOW) == 0;
            if (event->len > 0 && IsResultName(event->name)) {
                pending_.insert(event->name);
            }
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    }
}

bool ResultCollector::StorePending() {
    const qxpbase::UniqueFd directory = OpenDirectory(directory_);
    while (!pending_.empty()) {
        if (!StoreOne(directory.Get(), *pending_.begin())) {
            return false;
        }
        pending_.erase(pending_.begin());
    }
    return true;
}

bool ResultCollector::StoreBacklog(std::chrono::milliseconds time) {
    const auto deadline = std::chrono::steady_clock::now() + time;
    const qxpbase::UniqueFd directory = OpenDirectory(directory_);
    while (!backlog_.empty() && std::chrono::steady_clock::now() < deadline) {
        if (!StoreOne(directory.Get(), backlog_.back())) {
            return false;
        }
        backlog_.pop_back();
        if (backlog_.empty() && left_alone_ > kMostWarnings) {
            QXPAGENT_LOG(kLogWarn, "%llu result files were left alone in all: remove them",
                         static_cast<unsigned long long>(left_alone_));
        }
    }
    return true;
}

void ResultCollector::LeaveAlone(const std::string& name, const char* reason) {
    if (++left_alone_ <= kMostWarnings || backlog_.empty()) {
        QXPAGENT_LOG(kLogWarn, "the result file [%s] was left alone: %s", name.c_str(), reason);
    }
}

// False when the store refused it. A file that is of no use is passed over.
bool ResultCollector::StoreOne(int directory, const std::string& name) {
    std::optional<ResultFile> file = ReadResultFile(directory, name);
    if (!file.has_value()) {
        LeaveAlone(name, "it is gone, changing or no regular file");
        return true;
    }
    const ReportContent content = ReadReport(file->text);
    if (!content.readable) {
        LeaveAlone(name, "it is no complete JSON document");
        return true;
    }
    try {
        intake_.AcceptFile(file->mark, file->text, content);
        return true;
    } catch (const StoreError& error) {
        QXPAGENT_LOG(kLogError, "the result file [%s] is not stored yet: %s", name.c_str(), error.what());
        return false;
    }
}

}  // namespace qxpagent
