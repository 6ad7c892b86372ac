#include "plugin/loader.h"

#include <cxxabi.h>
#include <sys/prctl.h>

#include <cstdio>
#include <ctime>
#include <exception>
#include <memory>

#include "maint/maint_lock.h"
#include "maint/thread_gate.h"
#include "plugin/command.h"
#include "plugin/directory_list.h"
#include "plugin/plugin_core.h"
#include "plugin/plugin_state.h"
#include "qxhost/file.h"
#include "qxhost/log.h"

namespace qxpmaint_impl {

namespace {

constexpr timespec ONE_SECOND{1, 0};

// True while this thread is the loader and is not told to stop. A loader that a stop gave up, or that a second start
// has replaced, is no longer the one whose id is stored.
bool GoesOn() {
    const CMaintLockGuard lock(g_LoadThreadLock);
    return g_LoadThreadId == pthread_self() && g_iLoadThreadState == 1;
}

void Leave() {
    LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint qxpmaint_loadpolicyfile_thread exit threadid[%lu]", pthread_self());
    const CMaintLockGuard lock(g_LoadThreadLock);
    if (g_LoadThreadId == pthread_self())
        g_iLoadThreadState = 2;
}

void LoadFile(const _FilePathInfo& file) {
    LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint qxpmaint_loadpolicyfile_thread strFullPath[%s]", file.strFullPath.c_str());
    std::unique_ptr<char, void (*)(char*)> spJsonData(QxReadFileData(file.strFullPath.c_str()), QxReleaseFileData);
    if (!spJsonData)
        return;  // met again on the next scan
    plugin_recv_handler(spJsonData.get());
    spJsonData.reset();
    remove(file.strFullPath.c_str());
}

// What a step throws ends that step and no more. A cancellation does not come here, since no step has it enabled;
// should a host's callback end the thread, that unwinding goes on.
template <typename Step>
void KeepGoing(const Step& step) {
    try {
        step();
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (const std::exception& error) {
        LogPrintC(QXPMAINT_MODULE, 3, "**qxpmaint qxpmaint_loadpolicyfile_thread error[%s]", error.what());
    } catch (...) {
        LogPrintC(QXPMAINT_MODULE, 3, "**qxpmaint qxpmaint_loadpolicyfile_thread error[%s]", "unknown");
    }
}

// A scan always runs to its end.
void Scan() {
    std::list<_FilePathInfo> listFile;
    KeepGoing([&] { GetDirJsonFileList(g_szPolicyFilePath, listFile); });
    for (const _FilePathInfo& file : listFile)
        KeepGoing([&] { LoadFile(file); });
}

// Without a positive cycle there is no pause: the scans follow each other.
void Pause() {
    for (long lSecond = 0; lSecond < g_lCheckCycle && GoesOn(); ++lSecond)
        nanosleep(&ONE_SECOND, nullptr);
}

}  // namespace

void* qxpmaint_loadpolicyfile_thread(void* /*pArgument*/) {
    DisableCancellation();
    CThreadTicket ticket;
    ticket.Adopt();
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
