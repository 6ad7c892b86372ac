#include <cjson/cJSON.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <iterator>
#include <memory>
#include <new>
#include <string>

#include "plugin/manager/maint_log.h"
#include "plugin/manager/maint_mgr.h"
#include "plugin/platform/qx_log_print.h"

namespace {

struct CJsonDelete {
    void operator()(cJSON* pItem) const { cJSON_Delete(pItem); }
    void operator()(char* pText) const { cJSON_free(pText); }
};

using CJsonItem = std::unique_ptr<cJSON, CJsonDelete>;
using CJsonText = std::unique_ptr<char, CJsonDelete>;

// False when there is no memory for the item, which the object then does not have. The key is not copied.
bool AddItem(cJSON* pObject, const char* pszKey, CJsonItem spItem) {
    if (!spItem || !cJSON_AddItemToObjectCS(pObject, pszKey, spItem.get())) {
        return false;
    }
    static_cast<void>(spItem.release());  // the object owns it now
    return true;
}

bool AddText(cJSON* pObject, const char* pszKey, const CPString& strText) {
    return AddItem(pObject, pszKey, CJsonItem(cJSON_CreateString(strText.c_str())));
}

// Whole seconds, rounded up.
uint64_t ToSeconds(uint64_t u64Milliseconds) {
    return u64Milliseconds / 1000 + (u64Milliseconds % 1000 ? 1 : 0);
}

// False when there is no memory for all of it; the document is then without this run.
bool AddRun(cJSON* pResult, const _RunScriptData& run, CMaintMgr& mgr) {
    CJsonItem spRun(cJSON_CreateObject());
    cJSON* pRun = spRun.get();
    // The output by reference: it can be 2 MiB, and the list outlives the document.
    const bool bWhole =
        pRun && AddText(pRun, "scriptid", run.strScriptId) && AddText(pRun, "filepath", run.strScriptPath) &&
        AddText(pRun, "run_result", std::to_string(run.iRunResult)) &&
        AddItem(pRun, "run_outdata", CJsonItem(cJSON_CreateStringReference(run.strRunOutData.c_str()))) &&
        AddText(pRun, "run_starttime", mgr.GetStrTime(run.dwStartTime, 1)) &&
        AddText(pRun, "run_runningtime", std::to_string(ToSeconds(run.u64RunningTime))) &&
        AddText(pRun, "run_endtime", run.strEndTime);
    if (!bWhole || !cJSON_AddItemToArray(pResult, pRun)) {
        return false;
    }
    static_cast<void>(spRun.release());  // the array owns it now
    return true;
}

/// A report and how many runs of the policy it holds.
struct Report {
    CJsonText spText;
    size_t uRuns = 0;
};

// No text when there is no memory for it; fewer runs when there is none for all.
Report PrintReport(const CPString& strID, const std::list<_RunScriptData>& list, CMaintMgr& mgr) try {
    const CJsonItem spRoot(cJSON_CreateObject());
    CJsonItem spData(cJSON_CreateObject());
    CJsonItem spResult(cJSON_CreateArray());
    cJSON* pRoot = spRoot.get();
    cJSON* pData = spData.get();
    cJSON* pResult = spResult.get();
    if (!pRoot || !pData || !AddText(pRoot, "ID", strID) || !AddText(pRoot, "msg_type", "1") ||
        !AddText(pRoot, "data_type", "RunScriptData") || !AddItem(pRoot, "data", std::move(spData)) ||
        !AddText(pData, "handler_type", "1") || !AddItem(pData, "result", std::move(spResult))) {
        return {};
    }
    const auto itEnd = std::find_if_not(list.begin(), list.end(),
                                        [&](const _RunScriptData& run) { return AddRun(pResult, run, mgr); });
    return {CJsonText(cJSON_PrintUnformatted(pRoot)), static_cast<size_t>(std::distance(list.begin(), itEnd))};
} catch (const std::bad_alloc&) {
    return {};
}

/// How often a report is built that found no memory, and the pause between.
constexpr int REPORT_TRIES = 5;
constexpr std::chrono::milliseconds REPORT_PAUSE{100};

}  // namespace

int CMaintMgr::SendResultToServer(const CPString& strID, std::list<_RunScriptData> list) {
    Report report = PrintReport(strID, list, *this);
    for (int iTry = 1; iTry < REPORT_TRIES && (!report.spText || report.uRuns < list.size()); ++iTry) {
        MaintPause(REPORT_PAUSE);
        report = PrintReport(strID, list, *this);
    }
    const CJsonText& spText = report.spText;
    if (!spText || !*spText || m_pfnSendReport == nullptr) {
        return 0;
    }
    if (report.uRuns < list.size()) {
        QXLogPrint(3, MAINT_LOG_SOURCE, "SendResultToServer", __LINE__,
                   "*qxpmaint CMaintMgr::SendResultToServer cut strID[%s] runs[%zu] of[%zu]", strID.c_str(),
                   report.uRuns, list.size());
    }
    const bool bWriteFile =
        std::any_of(list.begin(), list.end(), [](const _RunScriptData& run) { return run.dwPolicyType == 2; });
    list.clear();  // the outputs are in the text now: a large report is held once while it is sent
    return m_pfnSendReport(spText.get(), bWriteFile, strID) ? 1 : 0;
}

CPString CMaintMgr::GetStrTime(long i64Time, unsigned int dwFormat) {
    const time_t iTime = i64Time ? i64Time : time(nullptr);
    tm stLocal{};
    if (!localtime_r(&iTime, &stLocal)) {
        return {};
    }
    char szTime[32] = {};
    if (dwFormat) {
        strftime(szTime, sizeof szTime - 1, "%Y-%m-%d %H:%M:%S", &stLocal);
    } else {
        strftime(szTime, sizeof szTime - 1, "%Y%m%d%H%M%S", &stLocal);
    }
    return szTime;
}
