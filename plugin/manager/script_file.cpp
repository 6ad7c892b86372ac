#include <sys/stat.h>
#include <unistd.h>
#include <cstring>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <memory>

#include "plugin/manager/maint_log.h"
#include "plugin/manager/maint_mgr.h"
#include "plugin/platform/qx_log_print.h"

// Where a script file is to be written: the policy's directory, created if need be, or the data directory.
CPString CMaintMgr::ScriptDirectory(const _MaintPolicyDetail& stPolicy) {
    if (stPolicy.strPath.empty()) {
        return m_strDataPath;
    }
    CPString strDirectory = stPolicy.strPath;
    if (strDirectory.Right(1) != "/") {
        strDirectory += "/";
    }
    if (access(strDirectory.c_str(), F_OK) == 0) {
        return strDirectory;
    }
    // Created from the path without its slashes: with one, the last step would meet the directory it just made. Judged
    // by what is there afterwards, since another launch may have created the directory at the same moment.
    const size_t uBare = strDirectory.Str().find_last_not_of('/') + 1;
    CMainTTool::RecursiveCreateDir(CPString(strDirectory.data(), uBare).c_str());
    return access(strDirectory.c_str(), F_OK) == 0 ? strDirectory : m_strDataPath;
}

int CMaintMgr::RunNewScript(const std::list<_MaintPolicyDetail>& list) {
    const auto logNotRun = [](const _MaintPolicyDetail& record, const char* pszWhy) {
        Attempt("RunNewScript", [&] {
            QXLogPrint(4, MAINT_LOG_SOURCE, "RunNewScript", __LINE__,
                       "**qxpmaint CMaintMgr::RunNewScript Error[%s] strScriptId[%s]", pszWhy,
                       record.strScriptId.c_str());
        });
    };
    for (const _MaintPolicyDetail& record : list) {
        try {
            if (m_bClosing) {
                logNotRun(record, "closing");  // a thread that a close has given up starts nothing any more
            } else {
                RunScript(record);
            }
        } catch (const std::exception& error) {
            logNotRun(record, error.what());  // out of memory: the others are tried all the same
        }
    }
    if (m_bClosing) {
        DisposeScriptList(MT_STOPPLUGIN);  // what was started while the close began, which may have given up by now
    }
    return 1;
}

void CMaintMgr::RunScript(const _MaintPolicyDetail& record) {
    const unsigned int dwSequence = GetSequenceIndex();
    CPString strName;
    strName.Format("%s%04x", GetStrTime(0, 0).c_str(), dwSequence);
    const int bExec = record.strType.CompareNoCase("exe") == 0 ? 1 : 0;
    CPString strExtension;
    if (!bExec) {
        strExtension.Format(".%s", record.strType.c_str());
    }
    CPString strFullPath;
    strFullPath.Format("%s%s%s", ScriptDirectory(record).c_str(), strName.c_str(), strExtension.c_str());
    // Whatever has this name is not ours: it may be a link that leads elsewhere, or the file of somebody's running
    // script.
    unlink(strFullPath.c_str());
    try {
        GenScriptFile(strFullPath, record.strText, record.pText, record.iLength, bExec);
        CreateRunScript(strFullPath, "", dwSequence, record);
    } catch (...) {
        CMainTTool::MaintDeleteFile(strFullPath.c_str());  // there is no run that would delete it
        throw;
    }
}

namespace {

struct CFileClose {
    void operator()(FILE* pFile) const { fclose(pFile); }
};
using CFilePtr = std::unique_ptr<FILE, CFileClose>;

int WriteBody(FILE* pFile, const CPString& strPath, const CPString& strText, unsigned char* pText, int iLength) {
    if (pText && iLength != 0) {
        errno = EINVAL;  // of a negative length, which is refused
        const auto iWritten = iLength < 0 ? 0 : static_cast<int>(fwrite(pText, 1, static_cast<size_t>(iLength), pFile));
        if (iWritten == iLength) {
            return 1;
        }
        const int iError = errno;
        QXLogPrint(3, MAINT_LOG_SOURCE, "GenScriptFile", __LINE__,
                   "*qxpmaint CMaintMgr::GenScriptFile fwrite Error[%d][%s] iWriteLength[%d] strPath[%s] iLength[%d] "
                   "pText[%p]",
                   iError, strerror(iError), iWritten, strPath.c_str(), iLength, static_cast<void*>(pText));
        return 0;
    }
    const auto iWritten = static_cast<int>(fwrite(strText.data(), 1, strText.size(), pFile));
    if (static_cast<size_t>(iWritten) == strText.size()) {
        return 1;
    }
    const int iError = errno;
    QXLogPrint(3, MAINT_LOG_SOURCE, "GenScriptFile", __LINE__,
               "*qxpmaint CMaintMgr::GenScriptFile fwrite Error[%d][%s] iWriteLength[%d] strPath[%s] strText[%d][%s]",
               iError, strerror(iError), iWritten, strPath.c_str(), static_cast<int>(strText.size()), strText.c_str());
    return 0;
}

}  // namespace

int CMaintMgr::GenScriptFile(const CPString& strPath, const CPString& strText, unsigned char* pText, int iLength,
                             int bExec) {
    int iResult = 0;
    if (const CFilePtr spFile(fopen(strPath.c_str(), "wb+e")); spFile) {
        // Unbuffered, so that a full disk is seen by the write and not lost in the close.
        setvbuf(spFile.get(), nullptr, _IONBF, 0);
        iResult = WriteBody(spFile.get(), strPath, strText, pText, iLength);
    } else {
        const int iError = errno;
        QXLogPrint(3, MAINT_LOG_SOURCE, "GenScriptFile", __LINE__,
                   "*qxpmaint CMaintMgr::GenScriptFile open Error[%d][%s] strPath[%s]", iError, strerror(iError),
                   strPath.c_str());
    }
    if (bExec) {
        chmod(strPath.c_str(), 0755);
    }
    return iResult;
}
