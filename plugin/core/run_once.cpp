#include <cstdio>
#include <memory>

#include "plugin/core/loader.h"
#include "plugin/core/plugin_core.h"
#include "plugin/core/plugin_state.h"
#include "plugin/manager/maint_mgr.h"
#include "plugin/manager/thread_gate.h"
#include "qxhost/file.h"
#include "qxhost/log.h"

namespace qxpmaint_impl {

namespace {

CPString FindPolicyFile(const CPString& strName) {
    std::list<_FilePathInfo> listFile;
    GetDirJsonFileList(g_szPolicyProcessPath, listFile);
    for (const _FilePathInfo& file : listFile) {
        if (file.strFileName == strName) {
            return file.strFullPath;
        }
    }
    return {};
}

// A policy file is used once, whatever comes of it.
class CFileRemover {
public:
    explicit CFileRemover(const CPString& strFilePath) : m_strFilePath(strFilePath) {}
    ~CFileRemover() { remove(m_strFilePath.c_str()); }
    CFileRemover(const CFileRemover&) = delete;
    CFileRemover& operator=(const CFileRemover&) = delete;

private:
    const CPString& m_strFilePath;
};

bool RunPolicyFile(CMaintMgr& mgr, const char* pszID, const CPString& strFilePath) {
    const std::unique_ptr<char, void (*)(char*)> spJsonData(QxReadFileData(strFilePath.c_str()), QxReleaseFileData);
    if (!spJsonData) {
        LogPrintC(QXPMAINT_MODULE, 2, "*qxpmaint RunOnceScriptTask pJsonData is NULL pszID[%s] strFilePath[%s]", pszID,
                  strFilePath.c_str());
        return false;
    }
    std::list<_MaintPolicyDetail> maintPolicyDataList;
    bool bResult = false;
    if (mgr.ParsePolicy(spJsonData.get(), pszID, 2, maintPolicyDataList) && !maintPolicyDataList.empty()) {
        bResult = mgr.RunOnceTask(maintPolicyDataList) != 0;
    } else {
        LogPrintC(QXPMAINT_MODULE, 2,
                  "*qxpmaint RunOnceScriptTask maintPolicyDataList is NULL pszID[%s] strFilePath[%s] pJsonData[%s]",
                  pszID, strFilePath.c_str(), spJsonData.get());
    }
    return bResult;
}

}  // namespace

bool RunOnceScriptTask(const char* pszID) {
    if (!pszID || !*pszID) {
        LogPrintC(QXPMAINT_MODULE, 2, "*qxpmaint RunOnceScriptTask pszID is NULL");
        return false;
    }
    const CCancellationOff cancellationOff;
    const CMaintMgrUse maintMgr = CMaintMgr::Use();
    if (!maintMgr) {
        LogPrintC(QXPMAINT_MODULE, 2, "*qxpmaint RunOnceScriptTask pMaintMgr is NULL pszID[%s]", pszID);
        return false;
    }
    const CPString strFilePath = FindPolicyFile(pszID);
    if (strFilePath.empty()) {
        LogPrintC(QXPMAINT_MODULE, 2,
                  "*qxpmaint RunOnceScriptTask strFilePath is NULL pszID[%s] g_szPolicyProcessPath[%s]", pszID,
                  g_szPolicyProcessPath);
        return false;
    }
    const CFileRemover remover(strFilePath);
    return RunPolicyFile(*maintMgr, pszID, strFilePath);
}

}  // namespace qxpmaint_impl
