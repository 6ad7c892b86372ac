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

#include "module_directory.h"
#include "no_cancel.h"

namespace {

struct CFileCloser {
    void operator()(std::FILE* pFile) const { std::fclose(pFile); }
};

/// The lines of a text file, one at a time.
class CLineReader {
public:
    explicit CLineReader(const char* pszPath) : m_pFile(std::fopen(pszPath, "re")) {}
    ~CLineReader() { std::free(m_pLine); }
    CLineReader(const CLineReader&) = delete;
    CLineReader& operator=(const CLineReader&) = delete;

    /// The next line without its end, valid until the next call; null at the end.
    const char* Next() {
        const ssize_t iLength = m_pFile ? getline(&m_pLine, &m_uCapacity, m_pFile.get()) : -1;
        if (iLength <= 0) {
            return nullptr;
        }
        if (m_pLine[iLength - 1] == '\n') {
            m_pLine[iLength - 1] = '\0';
        }
        return m_pLine;
    }

private:
    std::unique_ptr<std::FILE, CFileCloser> m_pFile;
    char* m_pLine = nullptr;
    size_t m_uCapacity = 0;
};

/// The file behind a line of /proc/self/maps (proc_pid_maps(5): begin-end permissions offset device inode path), or
/// nothing when the line is not about the address. Empty for memory that is not of a file.
std::optional<std::string_view> FileMappedAt(std::string_view line, uintptr_t uAddress) {
    uintptr_t uBegin = 0;
    uintptr_t uEnd = 0;
    const char* const pLineEnd = line.data() + line.size();
    const auto begin = std::from_chars(line.data(), pLineEnd, uBegin, 16);
    if (begin.ec != std::errc() || begin.ptr == pLineEnd || *begin.ptr != '-' ||
        std::from_chars(begin.ptr + 1, pLineEnd, uEnd, 16).ec != std::errc() || uAddress < uBegin || uAddress >= uEnd) {
        return std::nullopt;
    }
    const size_t uPath = line.find('/');  // no field before the path holds one
    return uPath == std::string_view::npos ? std::string_view() : line.substr(uPath);
}

/// The kernel writes a new-line in a path as \012, and leaves everything else as it is.
std::string ResolveNewLines(std::string_view path) {
    constexpr std::string_view kNewLine = "\\012";
    std::string strPath(path);
    for (size_t u = strPath.find(kNewLine); u != std::string::npos; u = strPath.find(kNewLine, u + 1)) {
        strPath.replace(u, kNewLine.size(), 1, '\n');
    }
    return strPath;
}

/// The directory part of a mapped path. What the kernel appends to the name of a file that has been replaced or removed
/// goes away with the name.
std::optional<std::string> DirectoryOf(std::string_view path) {
    if (path.empty()) {
        return std::nullopt;
    }
    return ResolveNewLines(path.substr(0, std::max<size_t>(path.rfind('/'), 1)));
}

}  // namespace

std::optional<std::string> ModuleDirectory(const void* pAddress) {
    // The loader knows a module by the name it was opened with, which may be relative to a working directory that was
    // left since, and knows a program by what its starter called it. The kernel knows the file. It is asked about the
    // module's first byte, because the page of a zero-initialised variable is not mapped from the file.
    Dl_info stInfo = {};
    if (pAddress == nullptr || dladdr(pAddress, &stInfo) == 0) {
        return std::nullopt;
    }
    const auto uBase = reinterpret_cast<uintptr_t>(stInfo.dli_fbase);
    CLineReader maps("/proc/self/maps");
    while (const char* pszLine = maps.Next()) {
        if (const auto file = FileMappedAt(pszLine, uBase)) {
            return DirectoryOf(*file);
        }
    }
    return std::nullopt;
}

bool QxGetModuleFilePath(const void* pAddressInModule, char* szBuffer, unsigned int uLimit) {
    const CNoCancel noCancel;
    try {
        const std::optional<std::string> directory = ModuleDirectory(pAddressInModule);
        if (szBuffer == nullptr || !directory || directory->size() > uLimit) {
            return false;
        }
        std::memcpy(szBuffer, directory->c_str(), directory->size() + 1);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}
