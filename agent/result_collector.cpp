#include "agent/result_collector.h"

#include <dirent.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>
#include <system_error>

#include "agent/log.h"
#include "agent/startup_error.h"
#include "policy/hex.h"

namespace qxpagent {

namespace {

constexpr off_t kMaxFileBytes = off_t{256} << 20;
constexpr uint32_t kWatched = IN_CLOSE_WRITE | IN_MOVED_TO | IN_ONLYDIR | IN_DELETE_SELF | IN_MOVE_SELF;

std::string Reason(int error) {
    return std::generic_category().message(error);
}

// Not kept open: a directory that somebody has open is never told to be gone.
UniqueFd OpenDirectory(const std::filesystem::path& path) {
    return UniqueFd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
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

std::string Sha256(const std::string& text) {
    std::array<unsigned char, 32> digest{};
    size_t size = 0;
    EVP_Q_digest(nullptr, "SHA256", nullptr, text.data(), text.size(), digest.data(), &size);
    return qxppolicy::HexEncode(digest);
}

std::set<std::string> Names(int directory) {
    std::set<std::string> names;
    const int copy = openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* const stream = copy >= 0 ? fdopendir(copy) : nullptr;
    if (stream == nullptr) {
        QXPAGENT_LOG(kLogError, "the result directory cannot be read: %s", Reason(errno).c_str());
        if (copy >= 0) {
            close(copy);
        }
        return names;
    }
    while (const dirent* const entry = readdir(stream)) {
        if (IsResultName(entry->d_name)) {
            names.insert(entry->d_name);
        }
    }
    closedir(stream);
    return names;
}

}  // namespace

std::optional<ResultFile> ReadResultFile(int directory, const std::string& name) {
    const UniqueFd file(openat(directory, name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
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
    result.mark = {name, Nanoseconds(after.st_mtim), result.text.size(), Sha256(result.text)};
    return result;
}

ResultCollector::ResultCollector(const std::filesystem::path& directory, ReportIntake& intake,
                                 std::chrono::milliseconds retry)
    : directory_(directory),
      intake_(intake),
      retry_(retry),
      stop_event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      watch_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    std::error_code ignored;
    std::filesystem::create_directories(directory_, ignored);
    if (stop_event_.IsOpen() && watch_.IsOpen()) {
        Watch();
    }
    if (!watching_) {
        throw StartupError("The result directory " + directory_.string() + " cannot be watched: " + Reason(errno) +
                           ".");
    }
    Scan();
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
    Scan();
}

void ResultCollector::Watch() {
    watching_ = inotify_add_watch(watch_.Get(), directory_.c_str(), kWatched) >= 0;
}

// Everything that is there: at the start, and whenever events may have been lost.
void ResultCollector::Scan() {
    pending_.merge(Names(OpenDirectory(directory_).Get()));
    TakePending();
}

void ResultCollector::Loop() {
    for (;;) {
        pollfd events[] = {{stop_event_.Get(), POLLIN, 0}, {watch_.Get(), POLLIN, 0}};
        const bool idle = watching_ && pending_.empty();
        poll(events, 2, idle ? -1 : static_cast<int>(retry_.count()));
        if ((events[0].revents & POLLIN) != 0) {
            return;
        }
        bool complete = TakeEvents();
        if (!watching_) {
            Watch();
            complete = !watching_;
        }
        if (!complete) {
            Scan();
        }
        TakePending();
    }
}

// False when events were lost, or the directory was.
bool ResultCollector::TakeEvents() {
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

void ResultCollector::TakePending() {
    const UniqueFd directory = OpenDirectory(directory_);
    for (auto name = pending_.begin(); name != pending_.end();) {
        name = TakeOne(directory.Get(), *name) ? pending_.erase(name) : std::next(name);
    }
}

// False when the store did not take it.
bool ResultCollector::TakeOne(int directory, const std::string& name) {
    std::optional<ResultFile> file = ReadResultFile(directory, name);
    if (!file.has_value()) {
        QXPAGENT_LOG(kLogWarn, "the result file [%s] was left alone: it is gone, changing or no regular file",
                     name.c_str());
        return true;
    }
    const ReportContent content = ReadReport(file->text);
    if (!content.readable) {
        QXPAGENT_LOG(kLogWarn, "the result file [%s] was left alone: it is no complete JSON document", name.c_str());
        return true;
    }
    try {
        intake_.TakeFile(file->mark, file->text, content);
        return true;
    } catch (const StoreError& error) {
        QXPAGENT_LOG(kLogError, "the result file [%s] is not stored yet: %s", name.c_str(), error.what());
        return false;
    }
}

}  // namespace qxpagent
