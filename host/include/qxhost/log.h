#pragma once

// Logging. The reference implementation writes one line a record:
//
//   2026-11-21T09:21:30.123+08:00 LEVEL thread-name/tid module|source level text
//
// LEVEL is trace, debug, info, warn or error; "module|source" stands for one word, the number given to LogPrintC or the
// source unit given to CLogDebug; level is the caller's own number. In the text a backslash is written \\ and control
// characters and DEL as \n, \t or \xNN, so that no text can forge a record; a text over 16 KiB is cut and ends in
// " (+N bytes)".
//
// Environment: QXHOST_LOG is a file's path, "stderr" (default) or "journal"; QXHOST_LOG_LEVEL is the least level that is
// written (default info), or "off".

/// Writes a record of a module. Levels: 0 and 1 debug, 2 warn, 3 error, 5 info; any other counts as info. A level that
/// is off costs no formatting. Any thread; errno is kept.
extern "C" void LogPrintC(int iModule, int iLevel, const char* pszFormat, ...) __attribute__((format(printf, 3, 4)));

/// The logger for source units. Levels: 6 trace, 2 info, 3 warn, 4 error; any other counts as info.
class CLogDebug {
public:
    /// The one logger of the process, never null in this implementation; other hosts may return null.
    static CLogDebug* Instance();

    /// True when a record of this level would be written.
    bool CheckLogLevel(int iLevel) const;

    /// Writes a printf-style record. Any thread; errno is kept.
    void LogPrint(int iLevel, const char* pszSource, const char* pszFunction, int iLine, const char* pszFormat, ...)
        __attribute__((format(printf, 6, 7)));

    /// Writes a fixed text as it stands.
    void LogPrintStr(int iLevel, const char* pszSource, const char* pszFunction, int iLine, const char* pszText);

private:
    CLogDebug() = default;
};
