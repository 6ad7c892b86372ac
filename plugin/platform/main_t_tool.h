#pragma once

#include <pthread.h>

#include <chrono>
#include <cstdint>
#include <string>

#include "qxhost/cpstring.h"

/// The process record of a run. The fields are guarded by whoever owns the record.
struct _CreateProcessInfo {
    /// The popen stream: the read end of the child's standard output. Null when there is none.
    void* hProcess = nullptr;
    /// Further handles, never set on Linux.
    void* hThread = nullptr;
    void* hReadPipe = nullptr;
    void* hWritePipe = nullptr;

    /// Closes those of the further handles that are set.
    void CleanFurtherHandles();
};

/// The operating-system services of the plugin: thin wrappers that tolerate null, report through their result alone and
/// log nothing. "Empty" means null or an empty text. All are re-entrant and keep no state.
class CMainTTool {
public:
    /// False for an empty path or when the host cannot tell.
    static bool GetFileSizeTime(const char* pszPath, unsigned long long& u64Size, unsigned long long& u64Time);
    /// False for an empty path or when the file cannot be removed.
    static bool MaintDeleteFile(const char* pszPath);

    /// Starts pszCommand through the shell for reading. The stream goes to stProcessInfo.hProcess and is closed with
    /// CleanHandle. The child has an empty signal mask; the parent's end of the pipe is close-on-exec.
    /// False for an empty command (nothing is touched) or on failure (errno goes to pdwError unless that is null).
    static bool CreateProcessLinux(const char* pszCommand, _CreateProcessInfo& stProcessInfo, unsigned int* pdwError);
    /// As CreateProcessLinux; pszParam and iFlag are ignored, since the command line is whole already.
    static bool MaintCreateProcess(const char* pszCommand, const char* pszParam, int iFlag,
                                   _CreateProcessInfo& stProcessInfo, unsigned int* pdwError);
    /// Closes the stream of a process and waits for the child to end. Null is ignored.
    static void CleanHandle(void* hProcess);

    /// Milliseconds of the monotonic clock.
    static unsigned long MaintGetTickCount();
    /// ulEnd - ulStart for a tick that wraps at 32 bits.
    static unsigned long GetDiffCount(unsigned long ulStart, unsigned long ulEnd);

    static void* MaintCreateEvent(void* pAttributes, int iManualReset, int iInitiallySet, const char* pszName);
    static bool MaintSetEvent(void* hEvent);
    /// The host's result: 0 signalled; all bits set for a null event.
    static unsigned int MaintWaitEvent(void* hEvent, long lMilliseconds);
    static void MaintDestroyEvent(void* hEvent);

    /// pthread_create with default attributes; returns its result. The new thread may run before u64ThreadId is set.
    static int MaintCreateThread(void* (*pfnRoutine)(void*), void* pArgument, unsigned long long& u64ThreadId);
    static void MaintLock(void* pLock);
    static void MaintUnLock(void* pLock);

    /// Writes pszText to a new or emptied file. True when all of it was written.
    static bool SaveFileDataA(CPString strPath, const char* pszText);
    /// Reads a whole non-empty file. On failure the content is empty, or untouched when the file could not be opened.
    static bool ReadFileDataA(CPString strPath, std::string& strContent);

    /// The decoded bytes for free(), or null; iLength receives their number.
    static unsigned char* DecodeBase64(const CPString& strText, int& iLength);
    /// The decoded text up to its first NUL. On failure strResult is untouched.
    static bool DecodeBase64(const CPString& strText, CPString& strResult);

    /// The directory of the plugin's module with a trailing '/', or an empty string when it is not known.
    static CPString MaintGetCltPath();
    /// Creates a directory and its missing parents, each with mode 0755. True when it exists or was created.
    static bool RecursiveCreateDir(const char* pszPath);
};

/// Sleeps for the whole time on the monotonic clock, however many signals arrive meanwhile. A sleep that a signal cuts
/// short would make a bound counted in sleeps as short as a host's interval timer.
void MaintPause(std::chrono::milliseconds time);

/// Holds a critical section of the host, or any other mutex, for a scope.
class CMaintLockGuard {
public:
    explicit CMaintLockGuard(pthread_mutex_t& lock) : m_pLock(&lock) { CMainTTool::MaintLock(m_pLock); }
    ~CMaintLockGuard() { CMainTTool::MaintUnLock(m_pLock); }
    CMaintLockGuard(const CMaintLockGuard&) = delete;
    CMaintLockGuard& operator=(const CMaintLockGuard&) = delete;

private:
    pthread_mutex_t* m_pLock;
};
