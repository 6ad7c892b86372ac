#include "maint/proc_table.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

struct CDirectoryClose {
    void operator()(DIR* pDirectory) const { closedir(pDirectory); }
};
using CDirectory = std::unique_ptr<DIR, CDirectoryClose>;

std::string ReadSmallFile(const std::string& strPath) {
    std::string strContent;
    const int iDescriptor = open(strPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (iDescriptor < 0)
        return strContent;
    char szBuffer[4096];
    ssize_t iRead = 0;
    while ((iRead = read(iDescriptor, szBuffer, sizeof szBuffer)) > 0)
        strContent.append(szBuffer, static_cast<size_t>(iRead));
    close(iDescriptor);
    return strContent;
}

std::string ReadLink(const std::string& strPath) {
    char szTarget[256];
    const ssize_t iLength = readlink(strPath.c_str(), szTarget, sizeof szTarget);
    return iLength > 0 ? std::string(szTarget, static_cast<size_t>(iLength)) : std::string();
}

std::string ProcPath(pid_t iPid, const char* pszRest) {
    return "/proc/" + std::to_string(iPid) + pszRest;
}

pid_t ToPid(const char* pszName) {
    pid_t iPid = 0;
    const char* pEnd = pszName + strlen(pszName);
    const auto result = std::from_chars(pszName, pEnd, iPid);
    return result.ec == std::errc() && result.ptr == pEnd ? iPid : 0;
}

bool IsOpenForWriting(pid_t iPid, const char* pszDescriptor) {
    const std::string strInfo = ReadSmallFile(ProcPath(iPid, "/fdinfo/") + pszDescriptor);
    const size_t uFlags = strInfo.find("flags:");
    if (uFlags == std::string::npos)
        return false;
    const unsigned long uMode = strtoul(strInfo.c_str() + uFlags + 6, nullptr, 8) & O_ACCMODE;
    return uMode == O_WRONLY || uMode == O_RDWR;
}

}  // namespace

std::optional<_ProcessStat> ReadProcessStat(pid_t iPid) {
    const std::string strStat = ReadSmallFile(ProcPath(iPid, "/stat"));
    // The name stands in parentheses and may hold anything, parentheses included.
    const size_t uName = strStat.rfind(')');
    if (uName == std::string::npos)
        return std::nullopt;
    _ProcessStat stat;
    stat.stIdentity.iPid = iPid;
    // NOLINTNEXTLINE(cert-err34-c): the kernel's own numbers, which fit
    if (sscanf(strStat.c_str() + uName + 1,
               " %c %d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %ld %*d %llu", &stat.cState,
               &stat.iParent, &stat.lThreads, &stat.stIdentity.u64StartTime) != 4)
        return std::nullopt;
    return stat;
}

std::map<pid_t, _ProcessStat> ReadProcessTable() {
    std::map<pid_t, _ProcessStat> table;
    const CDirectory spDirectory(opendir("/proc"));
    while (const dirent* pEntry = spDirectory ? readdir(spDirectory.get()) : nullptr) {
        const pid_t iPid = ToPid(pEntry->d_name);
        if (iPid <= 0)
            continue;
        if (const auto stat = ReadProcessStat(iPid))
            table.emplace(iPid, *stat);
    }
    return table;
}

std::vector<pid_t> ReadThreadChildren() {
    std::vector<pid_t> children;
    const std::string strList = ReadSmallFile("/proc/thread-self/children");
    const char* pNext = strList.c_str();
    char* pEnd = nullptr;
    for (long iPid = strtol(pNext, &pEnd, 10); pEnd != pNext; iPid = strtol(pNext, &pEnd, 10)) {
        children.push_back(static_cast<pid_t>(iPid));
        pNext = pEnd;
    }
    return children;
}

std::string ReadPipeName(int iDescriptor) {
    std::string strName = ReadLink("/proc/self/fd/" + std::to_string(iDescriptor));
    return strName.starts_with("pipe:[") ? strName : std::string();
}

bool HasPipeAt(pid_t iPid, int iDescriptor, const std::string& strPipe) {
    return !strPipe.empty() && ReadLink(ProcPath(iPid, "/fd/") + std::to_string(iDescriptor)) == strPipe;
}

bool HoldsWriteEnd(pid_t iPid, const std::string& strPipe) {
    if (strPipe.empty())
        return false;
    const std::string strDirectory = ProcPath(iPid, "/fd");
    const CDirectory spDirectory(opendir(strDirectory.c_str()));
    bool bWrites = false;
    while (const dirent* pEntry = spDirectory ? readdir(spDirectory.get()) : nullptr) {
        if (ReadLink(strDirectory + "/" + pEntry->d_name) != strPipe)
            continue;
        if (!IsOpenForWriting(iPid, pEntry->d_name))
            return false;
        bWrites = true;
    }
    return bWrites;
}
