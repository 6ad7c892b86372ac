#pragma once

#include "plugin/platform/attempt.h"

/// Writes the line of a step of the manager that failed: "**qxpmaint CMaintMgr::%s Error[%s]".
void LogFailedStep(const char* pszOperation, const char* pszWhat);

/// Does a step of an operation that goes on without it. False when the step threw, which a line has said.
template <typename Step>
bool Attempt(const char* pszOperation, const Step& step) {
    return AttemptStep([&](const char* pszWhat) { LogFailedStep(pszOperation, pszWhat); }, step);
}
