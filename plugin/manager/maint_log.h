#pragma once

#include "plugin/platform/qx_log_print.h"

/// The source unit of the manager's log records, however many files it is spread over.
inline constexpr char MAINT_LOG_SOURCE[] = "qxpmaintmgr";

/// Writes the line of a step of the manager that failed.
inline void LogFailedStep(const char* pszOperation, const char* pszWhat) {
    QXLogPrint(4, MAINT_LOG_SOURCE, pszOperation, __LINE__, "**qxpmaint CMaintMgr::%s Error[%s]", pszOperation,
               pszWhat);
}

/// Does a step of an operation that goes on without it. False when the step threw, which a line has said.
template <typename Step>
bool Attempt(const char* pszOperation, const Step& step) {
    return AttemptStep([&](const char* pszWhat) { LogFailedStep(pszOperation, pszWhat); }, step);
}
