#include "plugin/core/report_sender.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "plugin/core/plugin_state.h"
#include "qxhost/json.h"
#include "qxhost/log.h"

namespace qxpmaint_impl {

int SendToMgr(const char* pData, size_t uSize) {
    const auto pfnSend = g_qxpmaint_send_to_mgr.load();
    if (!pfnSend) {
        return -1;
    }
    return pfnSend(2, "kestrel", "qxpmaint", 1, reinterpret_cast<const unsigned char*>(pData),
                   static_cast<unsigned int>(uSize));
}

namespace {

bool WriteResultFile(const char* pszSendData, unsigned int uDataSize, const CPString& strName) {
    if (!g_szResultFilePath[0]) {
        LogPrintC(QXPMAINT_MODULE, 2, "*qxpmaint SendReportDataToServer g_szResultFilePath is NULL");
        return false;
    }
    CPString strResultFileName;
    strResultFileName.Format("%s/%s%d.json", g_szResultFilePath, strName.c_str(),
                             static_cast<int>(++g_u64ResultFileIndex));
    const std::unique_ptr<FILE, int (*)(FILE*)> spFile(fopen(strResultFileName.c_str(), "wb+e"), fclose);
    if (!spFile) {
        const int iError = errno;
        LogPrintC(QXPMAINT_MODULE, 2, "*qxpmaint SendReportDataToServer fopen strResultFileName[%s] error[%d][%s]",
                  strResultFileName.c_str(), iError, strerror(iError));
        return false;
    }
    // Unbuffered, so that a full disk is seen by the write and not lost in the close.
    setvbuf(spFile.get(), nullptr, _IONBF, 0);
    const auto uWriteSize = static_cast<unsigned int>(fwrite(pszSendData, 1, uDataSize, spFile.get()));
    const int iError = errno;
    if (uWriteSize < uDataSize) {
        LogPrintC(QXPMAINT_MODULE, 2,
                  "*qxpmaint SendReportDataToServer fwrite strResultFileName[%s] error[%d][%s] uDataSize[%u] "
                  "uWriteSize[%u]",
                  strResultFileName.c_str(), iError, strerror(iError), uDataSize, uWriteSize);
    }
    return uWriteSize == uDataSize;
}

}  // namespace

bool SendReportDataToServer(const char* pJsonData, bool bWriteFile, const CPString& strName) {
    if (!pJsonData || !*pJsonData) {
        LogPrintC(QXPMAINT_MODULE, 5, "*qxpmaint SendReportDataToServer pJsonData[%p] is NULL",
                  static_cast<const void*>(pJsonData));
        return false;
    }
    // Before the file mode: without a callback not even a file is written.
    if (!g_qxpmaint_send_to_mgr.load()) {
        LogPrintC(QXPMAINT_MODULE, 5, "*qxpmaint SendReportDataToServer g_qxpmaint_send_to_mgr is NULL");
        return false;
    }
    // Null or empty: the text is plain ASCII as it stands.
    const EncodedText spEncoded(QxJsonEncodeStr(pJsonData), free);
    const char* pszSendData = spEncoded && *spEncoded ? spEncoded.get() : pJsonData;
    const auto uDataSize = static_cast<unsigned int>(strlen(pszSendData));
    LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint SendReportDataToServer bWriteFile[%d] uDataSize[%u] pszSendData[%s]",
              bWriteFile ? 1 : 0, uDataSize, pszSendData);
    if (bWriteFile) {
        return WriteResultFile(pszSendData, uDataSize, strName);
    }
    const int iRet = SendToMgr(pszSendData, uDataSize);
    LogPrintC(QXPMAINT_MODULE, 5, "qxpmaint SendReportDataToServer g_qxpmaint_send_to_mgr iRet[%d]", iRet);
    return true;
}

}  // namespace qxpmaint_impl
