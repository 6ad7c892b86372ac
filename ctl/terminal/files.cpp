#include "ctl/terminal/files.h"

#include <fcntl.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "base/encoding.h"
#include "base/errno_text.h"
#include "ctl/terminal/error.h"

namespace qxpctl {

namespace {

namespace fs = std::filesystem;
using qxpbase::ErrnoText;
using qxpbase::UniqueFd;

void ThrowUnlessWritten(int failure, const std::string& path) {
    if (failure != 0) {
        throw LocalFailure("cannot write {}: {}", path, ErrnoText(failure));
    }
}

std::string RandomSuffix() {
    std::array<unsigned char, 6> bytes{};
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
        throw LocalFailure("the system gives no random numbers");
    }
    return qxpbase::HexEncode(bytes);
}

int RenameNoReplace(const std::string& from, const std::string& to) {
    if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
        return 0;
    }
    if (errno != EINVAL && errno != ENOSYS) {
        return errno;
    }
    // A file system without that flag: a hard link never replaces a file either.
    if (link(from.c_str(), to.c_str()) != 0) {
        return errno;
    }
    unlink(from.c_str());
    return 0;
}

// The rename itself must survive a crash too. A directory that cannot be synced is as durable as it gets.
void SyncDirectoryOf(const std::string& path) {
    const fs::path parent = fs::path(path).parent_path();
    const UniqueFd directory(open(parent.empty() ? "." : parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    static_cast<void>(fsync(directory.Get()));
}

}  // namespace

StagedFile::StagedFile(const std::string& destination, mode_t mode) : destination_(destination) {
    std::error_code none;
    if (fs::is_symlink(destination, none)) {
        const fs::path target = fs::weakly_canonical(destination, none);
        if (!none) {
            destination_ = target.string();
        }
    }
    if (destination_.empty() || destination_.back() == '/' || fs::is_directory(destination_, none)) {
        throw BadInput("cannot write '{}': it names a directory, not a file", destination);
    }
    const fs::path path(destination_);
    temporary_ = path.parent_path() / fmt::format(".{}.{}", path.filename().string(), RandomSuffix());
    descriptor_.Reset(open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode));
    if (!descriptor_.IsOpen()) {
        throw BadInput("cannot write {}: {}", destination, ErrnoText(errno));
    }
}

StagedFile::~StagedFile() {
    if (!temporary_.empty()) {
        unlink(temporary_.c_str());
    }
}

void StagedFile::Write(std::string_view content) {
    int failure = WriteAll(descriptor_.Get(), content);
    if (failure == 0 && fsync(descriptor_.Get()) != 0) {
        failure = errno;
    }
    if (close(descriptor_.Release()) != 0 && failure == 0) {
        failure = errno;
    }
    ThrowUnlessWritten(failure, destination_);
}

void StagedFile::Commit(bool overwrite) {
    int failure = 0;
    if (!overwrite) {
        failure = RenameNoReplace(temporary_, destination_);
    } else if (rename(temporary_.c_str(), destination_.c_str()) != 0) {
        failure = errno;
    }
    if (failure == EEXIST) {
        throw BadInput("{} exists already; name another file, or use --force to replace it", destination_);
    }
    ThrowUnlessWritten(failure, destination_);
    temporary_.clear();
    SyncDirectoryOf(destination_);
}

void StagedFile::CommitBoth(StagedFile& first, StagedFile& second, bool overwrite) {
    first.Commit(overwrite);
    try {
        second.Commit(overwrite);
    } catch (...) {
        if (!overwrite) {
            unlink(first.destination_.c_str());
        }
        throw;
    }
}

int WriteAll(int descriptor, std::string_view content) {
    while (!content.empty()) {
        const ssize_t written = write(descriptor, content.data(), content.size());
        if (written >= 0) {
            content.remove_prefix(static_cast<size_t>(written));
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

void WriteOutputFile(const std::string& path, std::string_view content) {
    struct stat status {};
    if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) {
        const UniqueFd special(open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY));
        ThrowUnlessWritten(special.IsOpen() ? WriteAll(special.Get(), content) : errno, path);
        return;
    }
    StagedFile file(path, 0666);
    file.Write(content);
    file.Commit(true);
}

}  // namespace qxpctl
