#include "maint/report_sender.h"

#include <cjson/cJSON.h>

#include <algorithm>
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

namespace {

using CJsonText = std::unique_ptr<char, CJsonDelete>;

bool AddRun(cJSON* pResult, const _RunScriptData& run, CMaintMgr& mgr) {
    cJSON* pRun = cJSON_CreateObject();
    if (!pRun)
        return false;
    cJSON_AddItemToArray(pResult, pRun);
    AddText(pRun, "scriptid", run.strScriptId);
    AddText(pRun, "filepath", run.strScriptPath);
    AddText(pRun, "run_result", std::to_string(run.iRunResult));
    // By reference: the output can be 2 MiB, and the list outlives the document.
    cJSON_AddItemToObject(pRun, "run_outdata", cJSON_CreateStringReference(run.strRunOutData.c_str()));
    AddText(pRun, "run_starttime", mgr.GetStrTime(run.dwStartTime, 1));
    AddText(pRun, "run_runningtime", std::to_string(ToSeconds(run.u64RunningTime)));
    AddText(pRun, "run_endtime", run.strEndTime);
    return true;
}

// The document as text, null when there is no memory for it.
CJsonText PrintReport(const CPString& strID, const std::list<_RunScriptData>& list, CMaintMgr& mgr) {
    const std::unique_ptr<cJSON, CJsonDelete> spRoot(cJSON_CreateObject());
    cJSON* pData = spRoot ? cJSON_CreateObject() : nullptr;
    if (!pData)
        return nullptr;
    AddText(spRoot.get(), "ID", strID);
    AddText(spRoot.get(), "msg_type", "1");
    AddText(spRoot.get(), "data_type", "RunScriptData");
    cJSON_AddItemToObject(spRoot.get(), "data", pData);
    AddText(pData, "handler_type", "1");
    cJSON* pResult = cJSON_CreateArray();
    if (!pResult)
        return nullptr;
    cJSON_AddItemToObject(pData, "result", pResult);
    for (const _RunScriptData& run : list) {
        if (!AddRun(pResult, run, mgr))
            break;  // what has been added so far is reported
    }
    return CJsonText(cJSON_PrintUnformatted(spRoot.get()));
}

}  // namespace

int CMaintMgr::SendResultToServer(const CPString& strID, std::list<_RunScriptData> list) {
    const CJsonText spText = PrintReport(strID, list, *this);
    if (!spText || !*spText)
        return 0;
    const bool bWriteFile =
        std::any_of(list.begin(), list.end(), [](const _RunScriptData& run) { return run.dwPolicyType == 2; });
    list.clear();  // the outputs are in the text now: a large report is held once while it is sent
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
