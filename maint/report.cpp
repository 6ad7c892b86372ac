#include "maint/report_sender.h"

#include <cjson/cJSON.h>

#include <ctime>
#include <memory>
#include <string>

#include "maint/maint_mgr.h"

namespace {

struct CJsonDelete {
    void operator()(cJSON* pItem) const { cJSON_Delete(pItem); }
    void operator()(char* pText) const { cJSON_free(pText); }
};

void AddText(cJSON* pObject, const char* pszKey, const CPString& strText) {
    cJSON_AddItemToObject(pObject, pszKey, cJSON_CreateString(strText.c_str()));
}

// Whole seconds, rounded up.
uint64_t ToSeconds(uint64_t u64Milliseconds) {
    return u64Milliseconds / 1000 + (u64Milliseconds % 1000 ? 1 : 0);
}

}  // namespace

int CMaintMgr::SendResultToServer(const CPString& strID, const std::list<_RunScriptData>& list) {
    const std::unique_ptr<cJSON, CJsonDelete> spRoot(cJSON_CreateObject());
    if (!spRoot)
        return 0;
    cJSON* pData = cJSON_CreateObject();
    if (!pData)
        return 0;
    AddText(spRoot.get(), "ID", strID);
    AddText(spRoot.get(), "msg_type", "1");
    AddText(spRoot.get(), "data_type", "RunScriptData");
    cJSON_AddItemToObject(spRoot.get(), "data", pData);
    AddText(pData, "handler_type", "1");
    cJSON* pResult = cJSON_CreateArray();
    if (!pResult)
        return 0;
    cJSON_AddItemToObject(pData, "result", pResult);

    bool bWriteFile = false;
    for (const _RunScriptData& run : list) {
        if (run.dwPolicyType == 2)
            bWriteFile = true;
        cJSON* pRun = cJSON_CreateObject();
        if (!pRun)
            break;
        cJSON_AddItemToArray(pResult, pRun);
        AddText(pRun, "scriptid", run.strScriptId);
        AddText(pRun, "filepath", run.strScriptPath);
        AddText(pRun, "run_result", std::to_string(run.iRunResult));
        // By reference: the output can be 2 MiB, and the list outlives the document.
        cJSON_AddItemToObject(pRun, "run_outdata", cJSON_CreateStringReference(run.strRunOutData.c_str()));
        AddText(pRun, "run_starttime", GetStrTime(run.dwStartTime, 1));
        AddText(pRun, "run_runningtime", std::to_string(ToSeconds(run.u64RunningTime)));
        AddText(pRun, "run_endtime", run.strEndTime);
    }

    const std::unique_ptr<char, CJsonDelete> spText(cJSON_PrintUnformatted(spRoot.get()));
    if (!spText || !*spText)
        return 0;
    return SendReportDataToServer(spText.get(), bWriteFile, strID) ? 1 : 0;
}

CPString CMaintMgr::GetStrTime(long i64Time, unsigned int dwFormat) {
    const time_t iTime = i64Time ? i64Time : time(nullptr);
    tm stLocal{};
    if (!localtime_r(&iTime, &stLocal))
        return {};
    char szTime[32] = {};
    if (dwFormat)
        strftime(szTime, sizeof szTime - 1, "%Y-%m-%d %H:%M:%S", &stLocal);
    else
        strftime(szTime, sizeof szTime - 1, "%Y%m%d%H%M%S", &stLocal);
    return szTime;
}
