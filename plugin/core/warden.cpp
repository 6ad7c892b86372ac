#include "plugin/core/plugin_core.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "qxhost/log.h"

namespace qxpmaint_impl {

namespace {

constexpr char WARDENPROC_PATH[] = "/usr/bin/wardend";
constexpr char WARDEND_RUN_PID[] = "/var/run/wardend.pid";
/// Unchanged answers are logged once in so many calls.
constexpr unsigned int LOG_EVERY = 600;

std::atomic<int> g_iOldWardenPid{-1};
std::atomic<unsigned int> g_uWardenProcCount{0};
std::atomic<unsigned int> g_uWardenPidCount{0};

bool RunsWarden(int iPid, unsigned int uCount) {
    if (iPid <= 0) {
        return false;
    }
    char szExePath[64] = {};
    snprintf(szExePath, sizeof szExePath, "/proc/%d/exe", iPid);
    if (access(szExePath, F_OK) != 0) {
        LogPrintC(QXPMAINT_MODULE, 2, "qxpmaint IsWardenProc szExePath[%s] not exist", szExePath);
        return false;
    }
    char szReadPath[1024] = {};
    if (readlink(szExePath, szReadPath, sizeof szReadPath - 1) <= 0) {
        const int iError = errno;
        LogPrintC(QXPMAINT_MODULE, 2, "qxpmaint IsWardenProc readlink[%s] error[%d][%s]", szExePath, iError,
                  strerror(iError));
        return false;
    }
    if (strcmp(szReadPath, WARDENPROC_PATH) != 0) {
        LogPrintC(QXPMAINT_MODULE, 2, "qxpmaint IsWardenProc szReadPath[%s] not same to WARDENPROC_PATH[%s]",
                  szReadPath, WARDENPROC_PATH);
        return false;
    }
    if (uCount % LOG_EVERY == 0) {
        LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint IsWardenProc iPid[%d] is %s", iPid, WARDENPROC_PATH);
    }
    return true;
}

int ReadPid(FILE* pFile, unsigned int uCount) {
    char szLine[16] = {};
    if (!fgets(szLine, sizeof szLine, pFile)) {
        const int iError = errno;
        LogPrintC(QXPMAINT_MODULE, 2, "qxpmaint GetWardenPid fgets error[%d][%s]", iError, strerror(iError));
        return -1;
    }
    const long lPid = strtol(szLine, nullptr, 10);
    const int iPid = lPid < 1 || lPid > INT_MAX ? -1 : static_cast<int>(lPid);
    const int iOldPid = g_iOldWardenPid;
    if (uCount % LOG_EVERY == 0 || iPid != iOldPid) {
        LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint GetWardenPid iPid[%d] iOldPid[%d]", iPid, iOldPid);
        g_iOldWardenPid = iPid;
    }
    return iPid;
}

}  // namespace

bool IsWardenProc(int iPid) {
    return RunsWarden(iPid, g_uWardenProcCount++);
}

int GetWardenPid() {
    const unsigned int uCount = g_uWardenPidCount++;
    const std::unique_ptr<FILE, int (*)(FILE*)> spFile(fopen(WARDEND_RUN_PID, "re"), fclose);
    if (!spFile) {
        const int iError = errno;
        LogPrintC(QXPMAINT_MODULE, 2, "qxpmaint GetWardenPid fopen WARDEND_RUN_PID[%s] error[%d][%s]", WARDEND_RUN_PID,
                  iError, strerror(iError));
        return -1;
    }
    return ReadPid(spFile.get(), uCount);
}

}  // namespace qxpmaint_impl
