#pragma once

#include "qxhost/log.h"

/// Writes a record through the host's logger when the level is on; the arguments are not evaluated otherwise.
#define QXLogPrint(level, source, function, line, ...)                                         \
    do {                                                                                       \
        if (CLogDebug* pQxLog = CLogDebug::Instance(); pQxLog && pQxLog->CheckLogLevel(level)) \
            pQxLog->LogPrint(level, source, function, line, __VA_ARGS__);                      \
    } while (0)

/// The same for a fixed text, which is no format string.
#define QXLogPrintStr(level, source, function, line, text)                                     \
    do {                                                                                       \
        if (CLogDebug* pQxLog = CLogDebug::Instance(); pQxLog && pQxLog->CheckLogLevel(level)) \
            pQxLog->LogPrintStr(level, source, function, line, text);                          \
    } while (0)
