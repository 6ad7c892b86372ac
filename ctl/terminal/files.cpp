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

#include "base/errno_text.h"
#include "base/unique_fd.h"
#include "ctl/terminal/error.h"
#include "ctl/terminal/text.h"

namespace qxpctl {

namespace {

namespace fs = std::filesystem;

struct stat Examine(int descriptor, const std::string& path) {
    struct stat status {};
    if (fstat(descriptor, &status) != 0) {
        throw BadInput("cannot examine " + path + ": " + qxpbase::ErrnoText(errno));
    }
    if (S_ISDIR(status.st_mode)) {
        throw BadInput(path + " is a directory; name a file");
    }
    return status;
}

int OpenForReading(const std::string& path, int flags) {
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | flags);
    if (descriptor < 0) {
        throw BadInput("cannot read " + path + ": " + qxpbase::ErrnoText(errno));
    }
    return descriptor;
}

// Reads to the end, but no more than limit + 1 bytes.
std::string ReadAll(int descriptor, size_t limit, size_t expected, const std::string& path) {
    std::string bytes;
    bytes.reserve(std::min(expected, limit) + 1);
    std::array<char, 65536> buffer{};
    while (bytes.size() <= limit) {
        const ssize_t count = read(descriptor, buffer.data(), std::min(buffer.size(), limit + 1 - bytes.size()));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            throw BadInput("cannot read " + path + ": " + qxpbase::ErrnoText(errno));
        }
        if (count == 0) {
            break;
        }
        bytes.append(buffer.data(), static_cast<size_t>(count));
    }
    return bytes;
}

int WriteAll(int descriptor, std::string_view content) {
    while (!content.empty()) {
        const ssize_t written = write(descriptor, content.data(), content.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            return errno;
        }
        content.remove_prefix(static_cast<size_t>(written));
    }
    return 0;
}

std::string RandomSuffix() {
    std::array<unsigned char, 6> bytes{};
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
        throw LocalFailure("the system gives no random numbers");
    }
    return HexEncode(bytes);
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
    const int descriptor = open(parent.empty() ? "." : parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0) {
        return;
    }
    static_cast<void>(fsync(descriptor));
    close(descriptor);
}

}  // namespace

ScriptFile ReadScriptFile(const std::string& path, size_t limit) {
    // Not blocking: a FIFO without a writer would hang the open.
    const qxpbase::UniqueFd file(OpenForReading(path, O_NONBLOCK));
    const struct stat status = Examine(file.Get(), path);
    if (!S_ISREG(status.st_mode)) {
        throw BadInput(path + " is not a regular file; save the script in one");
    }
    ScriptFile script{ReadAll(file.Get(), limit, static_cast<size_t>(status.st_size), path),
                      (status.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) != 0};
    if (script.bytes.empty()) {
        throw BadInput(path + " is empty; there is nothing to run in it");
    }
    if (script.bytes.size() > limit) {
        throw BadInput(path + " is larger than " + std::to_string(limit) + " bytes, the most that a script may have");
    }
    return script;
}

std::string ReadDocument(const std::string& path, size_t limit, std::string_view what) {
    const bool standard_input = path == "-";
    const std::string name = standard_input ? "the standard input" : path;
    const qxpbase::UniqueFd opened(standard_input ? -1 : OpenForReading(path, 0));
    const int file = standard_input ? STDIN_FILENO : opened.Get();
    const struct stat status = Examine(file, name);
    std::string text = ReadAll(file, limit, static_cast<size_t>(status.st_size), name);
    if (text.empty()) {
        throw BadInput(name + " is empty; a " + std::string(what) + " is expected");
    }
    if (text.size() > limit) {
        throw BadInput(name + " is larger than " + std::to_string(limit) + " bytes, too large for a " +
                       std::string(what));
    }
    return text;
}

StagedFile::StagedFile(const std::string& destination, mode_t mode) : destination_(destination) {
    std::error_code none;
    if (fs::is_symlink(destination, none)) {
        const fs::path target = fs::weakly_canonical(destination, none);
        if (!none) {
            destination_ = target.string();
        }
    }
    if (destination_.empty() || destination_.back() == '/' || fs::is_directory(destination_, none)) {
        throw BadInput("cannot write '" + destination + "': it names a directory, not a file");
    }
    const fs::path path(destination_);
    temporary_ = (path.parent_path() / ("." + path.filename().string() + "." + RandomSuffix())).string();
    descriptor_ = open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode);
    if (descriptor_ < 0) {
        throw BadInput("cannot write " + destination + ": " + qxpbase::ErrnoText(errno));
    }
}

StagedFile::~StagedFile() {
    if (descriptor_ >= 0) {
        close(descriptor_);
    }
    if (!temporary_.empty()) {
        unlink(temporary_.c_str());
    }
}

void StagedFile::Write(std::string_view content) {
    int failure = WriteAll(descriptor_, content);
    if (failure == 0 && fsync(descriptor_) != 0) {
        failure = errno;
    }
    if (close(descriptor_) != 0 && failure == 0) {
        failure = errno;
    }
    descriptor_ = -1;
    if (failure != 0) {
        throw LocalFailure("cannot write " + destination_ + ": " + qxpbase::ErrnoText(failure));
    }
}

void StagedFile::Commit(bool overwrite) {
    int failure = 0;
    if (!overwrite) {
        failure = RenameNoReplace(temporary_, destination_);
    } else if (rename(temporary_.c_str(), destination_.c_str()) != 0) {
        failure = errno;
    }
    if (failure == EEXIST) {
        throw BadInput(destination_ + " exists already; name another file, or use --force to replace it");
    }
    if (failure != 0) {
        throw LocalFailure("cannot write " + destination_ + ": " + qxpbase::ErrnoText(failure));
    }
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

void WriteOutputFile(const std::string& path, std::string_view content) {
    struct stat status {};
    if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) {
        const qxpbase::UniqueFd special(open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY));
        const int failure = special.Get() < 0 ? errno : WriteAll(special.Get(), content);
        if (failure != 0) {
            throw LocalFailure("cannot write " + path + ": " + qxpbase::ErrnoText(failure));
        }
        return;
    }
    StagedFile file(path, 0666);
    file.Write(content);
    file.Commit(true);
}

}  // namespace qxpctl
