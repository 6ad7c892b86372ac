#include "plugin/platform/main_t_tool.h"

#include <pthread.h>
#include <signal.h>  // NOLINT(modernize-deprecated-headers): pthread_sigmask is POSIX's, not <csignal>'s
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "qxhost/base64.h"
#include "qxhost/event.h"
#include "qxhost/file.h"
#include "qxhost/module.h"
#include "qxhost/tick.h"

namespace {

struct CFileCloser {
    void operator()(FILE* pFile) const { fclose(pFile); }
};
using CFilePtr = std::unique_ptr<FILE, CFileCloser>;

struct CFree {
    void operator()(void* pMemory) const { free(pMemory); }
};

bool IsEmpty(const char* pszText) {
    return !pszText || !*pszText;
}

// popen hands the calling thread's signal mask to the child, and a script that starts with signals blocked cannot be
// interrupted by its own tools. So the mask is emptied for the call, and only when it is not empty already.
//
// In these microseconds a signal that the host keeps blocked may be delivered to this thread, where the host's handler
// or the default action then meets it. There is no way around this window with popen; a host that keeps a signal for
// sigwait or a signalfd must block it in every thread anyway, so such signals are the ones concerned.
class CEmptySignalMask {
public:
    CEmptySignalMask() {
        sigset_t stCurrent;
        if (pthread_sigmask(SIG_SETMASK, nullptr, &stCurrent) != 0 || sigisemptyset(&stCurrent)) {
            return;
        }
        sigset_t stEmpty;
        sigemptyset(&stEmpty);
        m_bChanged = pthread_sigmask(SIG_SETMASK, &stEmpty, &m_stSaved) == 0;
    }
    ~CEmptySignalMask() {
        if (m_bChanged) {
            pthread_sigmask(SIG_SETMASK, &m_stSaved, nullptr);
        }
    }
    CEmptySignalMask(const CEmptySignalMask&) = delete;
    CEmptySignalMask& operator=(const CEmptySignalMask&) = delete;

private:
    sigset_t m_stSaved;
    bool m_bChanged = false;
};

// False when there is no size to be taken: a directory opens and seeks like a file, but to an arbitrary end.
bool ReadFileSize(FILE* pFile, uint32_t& uSize) {
    struct stat stAttributes;
    if (fstat(fileno(pFile), &stAttributes) != 0 || S_ISDIR(stAttributes.st_mode)) {
        return false;
    }
    if (fseek(pFile, 0, SEEK_END) != 0) {
        return false;
    }
    uSize = static_cast<uint32_t>(ftell(pFile));
    return uSize > 0 && fseek(pFile, 0, SEEK_SET) == 0;
}

}  // namespace

void _CreateProcessInfo::CleanFurtherHandles() {
    for (void** phHandle : {&hThread, &hReadPipe, &hWritePipe}) {
        CMainTTool::CleanHandle(*phHandle);
        *phHandle = nullptr;
    }
}

bool CMainTTool::GetFileSizeTime(const char* pszPath, unsigned long long& u64Size, unsigned long long& u64Time) {
    return !IsEmpty(pszPath) && QxGetFileAttr(pszPath, &u64Size, &u64Time);
}

bool CMainTTool::MaintDeleteFile(const char* pszPath) {
    return !IsEmpty(pszPath) && remove(pszPath) == 0;
}

bool CMainTTool::CreateProcessLinux(const char* pszCommand, _CreateProcessInfo& stProcessInfo, unsigned int* pdwError) {
    if (IsEmpty(pszCommand)) {
        return false;
    }
    int iError = 0;
    {
        const CEmptySignalMask emptyMask;
        // "e": the parent's end of the pipe is close-on-exec, so no other child of the process inherits it.
        stProcessInfo.hProcess = popen(pszCommand, "re");  // NOLINT(cert-env33-c): running commands is the purpose
        iError = errno;
    }
    if (stProcessInfo.hProcess) {
        return true;
    }
    if (pdwError) {
        *pdwError = static_cast<unsigned int>(iError);
    }
    return false;
}

bool CMainTTool::MaintCreateProcess(const char* pszCommand, const char* /*pszParam*/, int /*iFlag*/,
                                    _CreateProcessInfo& stProcessInfo, unsigned int* pdwError) {
    return CreateProcessLinux(pszCommand, stProcessInfo, pdwError);
}

void CMainTTool::CleanHandle(void* hProcess) {
    if (hProcess) {
        pclose(static_cast<FILE*>(hProcess));
    }
}

unsigned long CMainTTool::MaintGetTickCount() {
    return QxGetTickCount();
}

unsigned long CMainTTool::GetDiffCount(unsigned long ulStart, unsigned long ulEnd) {
    constexpr unsigned long TICK_RANGE = 4294967296UL;
    return ulEnd >= ulStart ? ulEnd - ulStart : ulEnd - ulStart + TICK_RANGE;
}

void* CMainTTool::MaintCreateEvent(void* pAttributes, int iManualReset, int iInitiallySet, const char* pszName) {
    return QxCreateEvent(pAttributes, iManualReset != 0, iInitiallySet != 0, pszName);
}

bool CMainTTool::MaintSetEvent(void* hEvent) {
    return hEvent && QxSetEvent(hEvent);
}

unsigned int CMainTTool::MaintWaitEvent(void* hEvent, long lMilliseconds) {
    return hEvent ? QxWaitEventTimeout(hEvent, lMilliseconds) : static_cast<unsigned int>(-1);
}

void CMainTTool::MaintDestroyEvent(void* hEvent) {
    if (hEvent) {
        QxDestroyEvent(hEvent);
    }
}

int CMainTTool::MaintCreateThread(void* (*pfnRoutine)(void*), void* pArgument, unsigned long long& u64ThreadId) {
    pthread_t threadId{};
    const int iRet = pthread_create(&threadId, nullptr, pfnRoutine, pArgument);
    if (iRet == 0) {
        u64ThreadId = threadId;
    }
    return iRet;
}

void CMainTTool::MaintLock(void* pLock) {
    if (pLock) {
        pthread_mutex_lock(static_cast<pthread_mutex_t*>(pLock));
    }
}

void CMainTTool::MaintUnLock(void* pLock) {
    if (pLock) {
        pthread_mutex_unlock(static_cast<pthread_mutex_t*>(pLock));
    }
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): by value in its interface
bool CMainTTool::SaveFileDataA(CPString strPath, const char* pszText) {
    if (!pszText || strPath.empty()) {
        return false;
    }
    CFilePtr pFile(fopen(strPath.c_str(), "we"));
    if (!pFile) {
        return false;
    }
    const size_t uLength = strlen(pszText);
    const bool bWritten = fwrite(pszText, 1, uLength, pFile.get()) == uLength;
    // A full disk may show only when the stream's buffer is flushed.
    return fclose(pFile.release()) == 0 && bWritten;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): by value in its interface
bool CMainTTool::ReadFileDataA(CPString strPath, std::string& strContent) {
    const CFilePtr pFile(fopen(strPath.c_str(), "rbe"));
    if (!pFile) {
        return false;
    }
    strContent.clear();
    uint32_t uSize = 0;
    if (!ReadFileSize(pFile.get(), uSize)) {
        return false;
    }
    strContent.assign(uSize, '\0');
    size_t uOffset = 0;
    while (uOffset < uSize) {
        const size_t uRead = fread(strContent.data() + uOffset, 1, uSize - uOffset, pFile.get());
        if (uRead < 1) {
            break;
        }
        uOffset += uRead;
    }
    if (uOffset == uSize) {
        return true;
    }
    strContent.clear();
    return false;
}

unsigned char* CMainTTool::DecodeBase64(const CPString& strText, int& iLength) {
    return base64Decode2(strText.c_str(), strText.size(), &iLength);
}

bool CMainTTool::DecodeBase64(const CPString& strText, CPString& strResult) {
    const std::unique_ptr<char, CFree> pszDecoded(base64Decode(strText.c_str(), strText.size()));
    if (!pszDecoded) {
        return false;
    }
    strResult = CPString(pszDecoded.get());
    return true;
}

CPString CMainTTool::MaintGetCltPath() {
    static const char s_cInThisModule = 0;
    char szDirectory[512] = {};
    if (!QxGetModuleFilePath(&s_cInThisModule, szDirectory, sizeof(szDirectory) - 1)) {
        return {};
    }
    return CPString(szDirectory) + "/";
}

bool CMainTTool::RecursiveCreateDir(const char* pszPath) {
    // The path may come from a sender. A longer one cannot be created in any case, and each level is a stack frame.
    if (IsEmpty(pszPath) || strnlen(pszPath, PATH_MAX) == PATH_MAX) {
        return false;
    }
    if (access(pszPath, F_OK) == 0) {
        return true;
    }
    const char* pszLastSlash = strrchr(pszPath, '/');
    if (!pszLastSlash) {
        return false;
    }
    const CPString strParent(pszPath, static_cast<size_t>(pszLastSlash - pszPath));
    if (!RecursiveCreateDir(strParent.c_str())) {
        return false;
    }
    constexpr mode_t DIRECTORY_MODE = 0755;
    if (mkdir(pszPath, DIRECTORY_MODE) != 0) {
        return false;
    }
    // mkdir leaves out what the umask masks; the umask is the host's and stays as it is.
    chmod(pszPath, DIRECTORY_MODE);
    return true;
}

void MaintPause(std::chrono::milliseconds time) {
    timespec stDeadline{};
    clock_gettime(CLOCK_MONOTONIC, &stDeadline);
    const long lNanoseconds = stDeadline.tv_nsec + time.count() % 1000 * 1'000'000;
    stDeadline.tv_sec += time.count() / 1000 + lNanoseconds / 1'000'000'000;
    stDeadline.tv_nsec = lNanoseconds % 1'000'000'000;
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &stDeadline, nullptr) == EINTR) {
    }
}
