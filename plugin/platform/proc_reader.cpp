#include "plugin/platform/proc_reader.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>
#include <cstring>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

CUniqueDescriptor OpenReserve() {
    return CUniqueDescriptor(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

}  // namespace

/// A file of /proc for as long as it is read. One that was opened in place of the reserve becomes the reserve
/// afterwards, so that nobody else can take the number in between.
class CProcReader::COpened {
public:
    explicit COpened(CUniqueDescriptor descriptor) : m_Descriptor(std::move(descriptor)), m_iError(errno) {}
    COpened(CUniqueDescriptor descriptor, CUniqueDescriptor& reserve, std::unique_lock<std::mutex> lock)
        : m_Descriptor(std::move(descriptor)), m_iError(errno), m_pReserve(&reserve), m_Lock(std::move(lock)) {}
    ~COpened() {
        if (m_pReserve) {
            *m_pReserve = m_Descriptor ? std::move(m_Descriptor) : OpenReserve();
        }
    }
    COpened(const COpened&) = delete;
    COpened& operator=(const COpened&) = delete;

    int Get() const { return m_Descriptor.Get(); }
    explicit operator bool() const { return static_cast<bool>(m_Descriptor); }
    ERead Failure() const { return FailureOf(m_iError); }

    static ERead FailureOf(int iError) {
        const bool bGone = iError == ENOENT || iError == ESRCH || iError == EACCES || iError == EPERM;
        return bGone ? ERead::GONE : ERead::FAILED;
    }

private:
    CUniqueDescriptor m_Descriptor;
    int m_iError;
    CUniqueDescriptor* m_pReserve = nullptr;
    std::unique_lock<std::mutex> m_Lock;
};

namespace {

using ERead = CProcReader::ERead;

/// "/proc/PID/fdinfo/FD" and shorter.
class CProcPath {
public:
    CProcPath(pid_t iPid, const char* pszRest) { snprintf(m_szPath, sizeof m_szPath, "/proc/%d/%s", iPid, pszRest); }
    CProcPath(pid_t iPid, const char* pszDirectory, int iDescriptor) {
        snprintf(m_szPath, sizeof m_szPath, "/proc/%d/%s/%d", iPid, pszDirectory, iDescriptor);
    }
    const char* Text() const { return m_szPath; }

private:
    char m_szPath[64];
};

template <size_t uSize>
std::string_view ReadLink(const char* pszPath, char (&szTarget)[uSize]) {
    const ssize_t iLength = readlink(pszPath, szTarget, uSize);
    return iLength > 0 ? std::string_view(szTarget, static_cast<size_t>(iLength)) : std::string_view();
}

/// Longer than "pipe:[18446744073709551615]".
constexpr size_t PIPE_NAME_ROOM = 32;

// Up to the buffer's size less one, NUL-terminated; negative on an error.
template <size_t uSize>
ssize_t ReadStart(int iDescriptor, char (&szBuffer)[uSize]) {
    ssize_t iRead = 0;
    do {
        iRead = read(iDescriptor, szBuffer, uSize - 1);
    } while (iRead < 0 && errno == EINTR);
    szBuffer[std::max<ssize_t>(iRead, 0)] = '\0';
    return iRead;
}

// The entries of a directory that are numbers. Without opendir, which needs memory of its own.
bool ReadNumbers(int iDirectory, std::vector<int>& numbers) {
    alignas(dirent64) char szEntries[8192];
    ssize_t iRead = 0;
    while ((iRead = getdents64(iDirectory, szEntries, sizeof szEntries)) > 0) {
        for (ssize_t iAt = 0; iAt < iRead;) {
            const auto* pEntry = reinterpret_cast<const dirent64*>(szEntries + iAt);
            iAt += pEntry->d_reclen;
            int iNumber = 0;
            const char* pEnd = pEntry->d_name + strlen(pEntry->d_name);
            const auto result = std::from_chars(pEntry->d_name, pEnd, iNumber);
            if (result.ec == std::errc() && result.ptr == pEnd) {
                numbers.push_back(iNumber);
            }
        }
    }
    return iRead == 0;
}

bool ParseStat(const char* pszStat, ProcessStat& stat) {
    // The name stands in parentheses and may hold anything, parentheses included.
    const char* pszName = strrchr(pszStat, ')');
    if (!pszName) {
        return false;
    }
    constexpr char FORMAT[] = " %c %d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %ld %*d %llu";
    // NOLINTNEXTLINE(cert-err34-c): the kernel's own numbers, which fit
    return sscanf(pszName + 1, FORMAT, &stat.cState, &stat.iParent, &stat.lThreads, &stat.stIdentity.u64StartTime) == 4;
}

}  // namespace

CProcReader::CProcReader() {
    Replenish();
}

void CProcReader::Replenish() {
    const std::lock_guard lock(m_ReserveLock);
    if (!m_Reserve) {
        m_Reserve = OpenReserve();
    }
}

CProcReader::COpened CProcReader::Open(const char* pszPath, int iFlags) {
    CUniqueDescriptor descriptor(open(pszPath, O_RDONLY | O_CLOEXEC | iFlags));
    if (descriptor || (errno != EMFILE && errno != ENFILE)) {
        return COpened(std::move(descriptor));
    }
    std::unique_lock lock(m_ReserveLock);
    m_Reserve.Close();
    descriptor = CUniqueDescriptor(open(pszPath, O_RDONLY | O_CLOEXEC | iFlags));
    return {std::move(descriptor), m_Reserve, std::move(lock)};
}

CProcReader::ERead CProcReader::ReadStat(pid_t iPid, ProcessStat& stat) {
    const COpened file = Open(CProcPath(iPid, "stat").Text(), 0);
    if (!file) {
        return file.Failure();
    }
    char szStat[1024];
    const ssize_t iRead = ReadStart(file.Get(), szStat);
    if (iRead < 0) {
        return COpened::FailureOf(errno);
    }
    stat.stIdentity.iPid = iPid;
    return iRead > 0 && ParseStat(szStat, stat) ? ERead::DONE : ERead::GONE;
}

bool CProcReader::ListProcesses(std::vector<pid_t>& pids) {
    const COpened directory = Open("/proc", O_DIRECTORY);
    return directory && ReadNumbers(directory.Get(), pids) && !pids.empty();
}

std::optional<std::vector<pid_t>> CProcReader::ThreadChildren() {
    const COpened file = Open("/proc/thread-self/children", 0);
    if (!file) {
        return std::nullopt;
    }
    std::string strList;
    char szPart[4096];
    ssize_t iRead = 0;
    while ((iRead = ReadStart(file.Get(), szPart)) > 0) {
        strList.append(szPart, static_cast<size_t>(iRead));
    }
    if (iRead < 0) {
        return std::nullopt;
    }
    std::vector<pid_t> children;
    const char* pNext = strList.c_str();
    char* pEnd = nullptr;
    for (long iPid = strtol(pNext, &pEnd, 10); pEnd != pNext; iPid = strtol(pNext, &pEnd, 10)) {
        children.push_back(static_cast<pid_t>(iPid));
        pNext = pEnd;
    }
    return children;
}

CProcReader::ERead CProcReader::IsOpenForWriting(pid_t iPid, int iDescriptor, bool& bWriting) {
    const COpened file = Open(CProcPath(iPid, "fdinfo", iDescriptor).Text(), 0);
    if (!file) {
        return file.Failure();
    }
    char szInfo[1024];
    if (ReadStart(file.Get(), szInfo) < 0) {
        return COpened::FailureOf(errno);
    }
    const char* pszFlags = strstr(szInfo, "flags:");
    if (!pszFlags) {
        return ERead::GONE;
    }
    const unsigned long uMode = strtoul(pszFlags + strlen("flags:"), nullptr, 8) & O_ACCMODE;
    bWriting = uMode == O_WRONLY || uMode == O_RDWR;
    return ERead::DONE;
}

CProcReader::ERead CProcReader::FindWrittenPipes(pid_t iPid, const std::vector<std::string>& sortedPipes,
                                                 std::vector<std::string>& found) {
    std::vector<int> descriptors;
    {
        const COpened directory = Open(CProcPath(iPid, "fd").Text(), O_DIRECTORY);
        if (!directory) {
            return directory.Failure();
        }
        if (!ReadNumbers(directory.Get(), descriptors)) {
            return COpened::FailureOf(errno);
        }
    }
    std::vector<std::string> alsoRead;
    for (const int iDescriptor : descriptors) {
        char szTarget[PIPE_NAME_ROOM];
        const std::string_view target = ReadLink(CProcPath(iPid, "fd", iDescriptor).Text(), szTarget);
        const auto pipe = std::lower_bound(sortedPipes.begin(), sortedPipes.end(), target);
        if (target.empty() || pipe == sortedPipes.end() || *pipe != target) {
            continue;
        }
        bool bWriting = false;
        const ERead eRead = IsOpenForWriting(iPid, iDescriptor, bWriting);
        if (eRead == ERead::FAILED) {
            return eRead;
        }
        if (eRead == ERead::DONE) {
            (bWriting ? found : alsoRead).push_back(*pipe);
        }
    }
    std::erase_if(found, [&](const std::string& strPipe) {
        return std::find(alsoRead.begin(), alsoRead.end(), strPipe) != alsoRead.end();
    });
    return ERead::DONE;
}

std::string CProcReader::PipeName(int iDescriptor) {
    char szTarget[PIPE_NAME_ROOM];
    const std::string_view target = ReadLink(CProcPath(getpid(), "fd", iDescriptor).Text(), szTarget);
    return target.starts_with("pipe:[") ? std::string(target) : std::string();
}

bool CProcReader::HasPipeAt(pid_t iPid, int iDescriptor, const std::string& strPipe) {
    char szTarget[PIPE_NAME_ROOM];
    return !strPipe.empty() && ReadLink(CProcPath(iPid, "fd", iDescriptor).Text(), szTarget) == strPipe;
}
