#pragma once

#include <cxxabi.h>

#include <exception>

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

/// Does a step; what it throws (memory, the host's logger) ends the step and no more, and is handed to log as a text.
/// What log throws has nowhere left to go. The unwinding of a cancelled thread goes on. False when the step threw.
template <typename Log, typename Step>
bool AttemptStep(const Log& log, const Step& step) {
    const auto tell = [&](const char* pszWhat) {
        try {
            log(pszWhat);
        } catch (const abi::__forced_unwind&) {
            throw;
        } catch (...) {
            return;
        }
    };
    try {
        step();
        return true;
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (const std::exception& error) {
        tell(error.what());
    } catch (...) {
        tell("unknown");
    }
    return false;
}
