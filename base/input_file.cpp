#include "base/input_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "base/errno_text.h"
#include "base/error.h"
#include "base/unique_fd.h"

namespace qxpbase {

namespace {

struct stat Examine(int descriptor, const std::string& path) {
    struct stat status {};
    if (fstat(descriptor, &status) != 0) {
        throw InputError(fmt::format("cannot examine {}: {}", path, ErrnoText(errno)));
    }
    if (S_ISDIR(status.st_mode)) {
        throw InputError(path + " is a directory; name a file");
    }
    return status;
}

int OpenForReading(const std::string& path, int flags) {
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | flags);
    if (descriptor < 0) {
        throw InputError(fmt::format("cannot read {}: {}", path, ErrnoText(errno)));
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
            throw InputError(fmt::format("cannot read {}: {}", path, ErrnoText(errno)));
        }
        if (count == 0) {
            break;
        }
        bytes.append(buffer.data(), static_cast<size_t>(count));
    }
    return bytes;
}

}  // namespace

ScriptFile ReadScriptFile(const std::string& path, size_t limit) {
    // Not blocking: a FIFO without a writer would hang the open.
    const UniqueFd file(OpenForReading(path, O_NONBLOCK));
    const struct stat status = Examine(file.Get(), path);
    if (!S_ISREG(status.st_mode)) {
        throw InputError(path + " is not a regular file; save the script in one");
    }
    ScriptFile script{ReadAll(file.Get(), limit, static_cast<size_t>(status.st_size), path),
                      (status.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) != 0};
    if (script.bytes.empty()) {
        throw InputError(path + " is empty; there is nothing to run in it");
    }
    if (script.bytes.size() > limit) {
        throw InputError(fmt::format("{} is larger than {} bytes, the most that a script may have", path, limit));
    }
    return script;
}

std::string ReadDocument(const std::string& path, size_t limit, std::string_view what) {
    const bool standard_input = path == "-";
    const std::string name = standard_input ? "the standard input" : path;
    const UniqueFd opened(standard_input ? -1 : OpenForReading(path, 0));
    const int file = standard_input ? STDIN_FILENO : opened.Get();
    const struct stat status = Examine(file, name);
    std::string text = ReadAll(file, limit, static_cast<size_t>(status.st_size), name);
    if (text.empty()) {
        throw InputError(fmt::format("{} is empty; a {} is expected", name, what));
    }
    if (text.size() > limit) {
        throw InputError(fmt::format("{} is larger than {} bytes, too large for a {}", name, limit, what));
    }
    return text;
}

}  // namespace qxpbase
