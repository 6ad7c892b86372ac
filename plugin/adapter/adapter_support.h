#pragma once

#include "plugin/platform/qx_log_print.h"

// What every file of the adapter uses: its results, its log source and its exception barrier.

/// Marks the symbols that the library exports; all others are hidden.
#define QXPMAINT_EXPORT __attribute__((visibility("default")))

/// Results of the adapter's operations beside 0 and -1.
inline constexpr int ADAPTER_E_NOT_READY = static_cast<int>(0xE0010000);
inline constexpr int ADAPTER_E_NO_FUN_TABLE = static_cast<int>(0xE0010001);
inline constexpr int ADAPTER_E_INVALID_ARG = static_cast<int>(0xE0010002);
inline constexpr int ADAPTER_E_OUT_OF_MEMORY = static_cast<int>(0xE0010003);
inline constexpr int ADAPTER_E_JSON_DATA_TYPE = static_cast<int>(0xA0010001);

/// Levels of the adapter's records.
enum : int { ADAPTER_LOG_NOTICE = 2, ADAPTER_LOG_WARN = 3, ADAPTER_LOG_ERROR = 4, ADAPTER_LOG_TRACE = 6 };

/// Writes a record of the adapter; the arguments are not evaluated when the level is off. The operation is what a host
/// sees as the function: the one that the host called, whichever helper writes.
#define ADAPTER_LOG(level, operation, ...) QXLogPrint(level, "qxadapterplugin", operation, __LINE__, __VA_ARGS__)

/// A text for "%s" that may be null.
inline const char* TextOrNull(const char* pszText) {
    return pszText ? pszText : "null";
}

/// Ends an exception at the border to the host. To be called in the catch (...) of every function that the host or the
/// bus calls; logs the exception and returns. The unwinding of a cancelled thread is no exception to stop: it goes on.
void StopException(const char* pszFunction);
