#pragma once

#include "qxhost/log.h"

// Writes a printf-style record of the agent to the host SDK's log. A level that is off costs no formatting. The text of
// a command is never an argument here.
#define QXPAGENT_LOG(level, ...)                                                        \
    do {                                                                                \
        CLogDebug* qxpagent_log = CLogDebug::Instance();                                \
        if (qxpagent_log != nullptr && qxpagent_log->CheckLogLevel(level)) {            \
            qxpagent_log->LogPrint(level, "qxpagent", __func__, __LINE__, __VA_ARGS__); \
        }                                                                               \
    } while (false)

namespace qxpagent {

// The level numbers of CLogDebug.
inline constexpr int kLogInfo = 2;
inline constexpr int kLogWarn = 3;
inline constexpr int kLogError = 4;

}  // namespace qxpagent
