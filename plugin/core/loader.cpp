#include "plugin/core/loader.h"

#include <dirent.h>
#include <sys/prctl.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>

#include "plugin/core/command.h"
#include "plugin/core/plugin_state.h"
#include "plugin/manager/maint_mgr.h"
#include "plugin/manager/thread_gate.h"
#include "qxhost/file.h"
#include "qxhost/log.h"

namespace qxpmaint_impl {

namespace {

constexpr char LOADER_OPERATION[] = "qxpmaint_loadpolicyfile_thread";

// A loader that a stop gave up, or that a second start has replaced, is no longer the one whose id is stored.
bool IsLoader() {
    const CMaintLockGuard lock(g_LoadThreadLock);
    return g_LoadThreadId == pthread_self();
}

// True while this thread is the loader and is not told to stop.
bool GoesOn() {
    const CMaintLockGuard lock(g_LoadThreadLock);
    return g_LoadThreadId == pthread_self() && g_iLoadThreadState == 1;
}

void Leave() {
    LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint qxpmaint_loadpolicyfile_thread exit threadid[%lu]", pthread_self());
    const CMaintLockGuard lock(g_LoadThreadLock);
    if (g_LoadThreadId == pthread_self()) {
        g_iLoadThreadState = 2;
    }
}

void LoadFile(const _FilePathInfo& file) {
    LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint qxpmaint_loadpolicyfile_thread strFullPath[%s]", file.strFullPath.c_str());
    std::unique_ptr<char, void (*)(char*)> spJsonData(QxReadFileData(file.strFullPath.c_str()), QxReleaseFileData);
    // What is not taken stays on the disk and is met again on the next scan, of this loader or of the next one.
    if (!spJsonData || !IsLoader() || !AcceptPolicyFile(spJsonData.get())) {
        return;
    }
    spJsonData.reset();
    // Only now: a crash in between runs the policy again, the other order would lose it.
    remove(file.strFullPath.c_str());
}

// A scan runs to its end when a stop is requested, but not when a stop has given this thread up: the manager that took
// its policies then may be gone.
void Scan() {
    std::list<_FilePathInfo> listFile;
    Attempt(LOADER_OPERATION, [&] { GetDirJsonFileList(g_szPolicyFilePath, listFile); });
    for (auto it = listFile.begin(); it != listFile.end() && IsLoader(); ++it) {
        Attempt(LOADER_OPERATION, [&] { LoadFile(*it); });
    }
    if (const CMaintMgrUse maintMgr = CMaintMgr::Use()) {
        Attempt(LOADER_OPERATION, [&] { maintMgr->ResumeQueued(); });
    }
}

// Without a positive cycle there is no pause: the scans follow each other.
void Pause() {
    for (long lSecond = 0; lSecond < g_lCheckCycle && GoesOn(); ++lSecond) {
        MaintPause(std::chrono::seconds(1));
    }
}

bool IsPassedOver(const dirent& entry) {
    return entry.d_name[0] == '\0' || strcmp(entry.d_name, ".") == 0 || strcmp(entry.d_name, "..") == 0 ||
           entry.d_type == DT_LNK || entry.d_type == DT_DIR;
}

}  // namespace

bool GetDirJsonFileList(const char* pszDirectory, std::list<_FilePathInfo>& listFile) {
    if (!pszDirectory || !*pszDirectory) {
        return false;
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> spDirectory(opendir(pszDirectory), closedir);
    if (!spDirectory) {
        return false;
    }
    while (const dirent* pEntry = readdir(spDirectory.get())) {
        if (IsPassedOver(*pEntry)) {
            continue;
        }
        CPString strFullPath;
        strFullPath.Format("%s/%s", pszDirectory, pEntry->d_name);
        if (strFullPath.Right(5).CompareNoCase(".json") == 0) {
            listFile.push_back({strFullPath, pEntry->d_name});
        }
    }
    return true;
}

void RequestLoaderEnd() {
    const CMaintLockGuard lock(g_LoadThreadLock);
    if (g_iLoadThreadState != 2) {
        g_iLoadThreadState = 0;
    }
}

void* qxpmaint_loadpolicyfile_thread(void* pArgument) {
    DisableCancellation();
    std::unique_ptr<CThreadTicket> spCreatorsTicket(static_cast<CThreadTicket*>(pArgument));
    CThreadTicket ticket;
    if (spCreatorsTicket) {
        ticket = CThreadTicket::Adopt(*spCreatorsTicket);
    }
    spCreatorsTicket.reset();
    pthread_detach(pthread_self());
    prctl(PR_SET_NAME, "maintloadfile");
    LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint qxpmaint_loadpolicyfile_thread in threadid[%lu]", pthread_self());
    try {
        while (GoesOn()) {
            Scan();
            Pause();
            CancellationPoint();
        }
    } catch (...) {
        Leave();
        throw;  // the thread was cancelled
    }
    Leave();
    return nullptr;
}

}  // namespace qxpmaint_impl
