#pragma once

#include "plugin/core/plugin_core.h"
#include "plugin/platform/attempt.h"
#include "qxhost/log.h"

namespace qxpmaint_impl {

/// Does a step of an operation that goes on without it. False when the step threw, which a line has said.
template <typename Step>
bool Attempt(const char* pszOperation, const Step& step) {
    return AttemptStep(
        [&](const char* pszWhat) { LogPrintC(QXPMAINT_MODULE, 3, "**qxpmaint %s error[%s]", pszOperation, pszWhat); },
        step);
}

}  // namespace qxpmaint_impl
