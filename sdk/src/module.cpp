#include "qxhost/module.h"

#include <dlfcn.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "c_interface.h"

namespace {

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

/// The lines of a text file, one at a time.
class LineReader {
public:
    explicit LineReader(const char* path) : file_(std::fopen(path, "re")) {}
    ~LineReader() { std::free(line_); }
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;

    /// The next line without its end, valid until the next call; null at the end.
    const char* Next() {
        const ssize_t length = file_ != nullptr ? getline(&line_, &capacity_, file_.get()) : -1;
        if (length <= 0) {
            return nullptr;
        }
        if (line_[length - 1] == '\n') {
            line_[length - 1] = '\0';
        }
        return line_;
    }

private:
    std::unique_ptr<std::FILE, FileCloser> file_;
    char* line_ = nullptr;
    size_t capacity_ = 0;
};

/// The file behind a line of /proc/self/maps (proc_pid_maps(5): begin-end permissions offset device inode path), or
/// nothing when the line is not about the address. Empty for memory that is not of a file.
std::optional<std::string_view> FileMappedAt(std::string_view line, uintptr_t address) {
    uintptr_t begin = 0;
    uintptr_t end = 0;
    const char* const line_end = line.data() + line.size();
    const auto first = std::from_chars(line.data(), line_end, begin, 16);
    if (first.ec != std::errc() || first.ptr == line_end || *first.ptr != '-' ||
        std::from_chars(first.ptr + 1, line_end, end, 16).ec != std::errc() || address < begin || address >= end) {
        return std::nullopt;
    }
    const size_t path = line.find('/');  // no field before the path holds one
    return path == std::string_view::npos ? std::string_view() : line.substr(path);
}

/// The kernel writes a new-line in a path as \012, and leaves everything else as it is.
std::string ResolveNewLines(std::string_view mapped) {
    constexpr std::string_view kNewLine = "\\012";
    std::string path(mapped);
    for (size_t at = path.find(kNewLine); at != std::string::npos; at = path.find(kNewLine, at + 1)) {
        path.replace(at, kNewLine.size(), 1, '\n');
    }
    return path;
}

/// The directory part of a mapped path. What the kernel appends to the name of a file that has been replaced or removed
/// goes away with the name.
std::optional<std::string> DirectoryOf(std::string_view path) {
    if (path.empty()) {
        return std::nullopt;
    }
    return ResolveNewLines(path.substr(0, std::max<size_t>(path.rfind('/'), 1)));
}

std::optional<std::string> ModuleDirectory(const void* address) {
    // The loader knows a module by the name it was opened with, which may be relative to a working directory that was
    // left since, and knows a program by what its starter called it. The kernel knows the file. It is asked about the
    // module's first byte, because the page of a zero-initialised variable is not mapped from the file.
    Dl_info module = {};
    if (address == nullptr || dladdr(address, &module) == 0) {
        return std::nullopt;
    }
    const auto base = reinterpret_cast<uintptr_t>(module.dli_fbase);
    LineReader maps("/proc/self/maps");
    while (const char* line = maps.Next()) {
        if (const auto file = FileMappedAt(line, base)) {
            return DirectoryOf(*file);
        }
    }
    return std::nullopt;
}

}  // namespace

bool QxGetModuleFilePath(const void* address_in_module, char* buffer, unsigned int limit) {
    const CancellationOff cancellation_off;
    try {
        const std::optional<std::string> directory = ModuleDirectory(address_in_module);
        if (buffer == nullptr || !directory.has_value() || directory->size() > limit) {
            return false;
        }
        std::memcpy(buffer, directory->c_str(), directory->size() + 1);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}
