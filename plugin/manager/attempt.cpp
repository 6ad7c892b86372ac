#include "plugin/manager/attempt.h"

#include "plugin/manager/maint_mgr.h"
#include "plugin/platform/qx_log_print.h"

void LogFailedStep(const char* pszOperation, const char* pszWhat) {
    QXLogPrint(4, MAINT_LOG_SOURCE, pszOperation, __LINE__, "**qxpmaint CMaintMgr::%s Error[%s]", pszOperation,
               pszWhat);
}
