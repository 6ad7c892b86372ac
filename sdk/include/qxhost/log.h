#pragma once

// Logging. The reference implementation writes one line a record:
//
//   2026-11-21T09:21:30.123+08:00 LEVEL thread-name/tid module|source level text
//
// LEVEL is trace, debug, info, warn or error; "module|source" stands for one word, the number given to LogPrintC or the
// source unit given to CLogDebug; level is the caller's own number. In the text a backslash is written \\ and control
// characters and DEL as \n, \t or \xNN, so that no text can forge a record; control characters are also U+0080 to
// U+009F (each byte is written) and single bytes 80 to 9F that are in no UTF-8 character. In names a space is \x20, and
// an empty one is "-". Of a text over 16 KiB the first 16 KiB are written, less what would split a UTF-8 character, and
// " (+N bytes)" for the N that are left out: both count before escaping, so a line may be longer. A record is one
// write.
//
// Environment, read at the first record: QXHOST_LOG is a file's path, "stderr" (default) or "journal"; QXHOST_LOG_LEVEL
// is the least level that is written (default info), or "off". The file is opened once, for appending, with mode 0640:
// to rotate it, copy and truncate. The journal has the time and LEVEL in its own fields, and the rest as the message.
// When the file cannot be opened or there is no journal, records go to stderr, after one that says so.

/// Writes a record of a module, at any moment of the life of the process. Levels: 0 and 1 debug, 2 warn, 3 error, 5
/// info; any other counts as info. A level that is off costs no formatting. Any thread; errno is kept.
extern "C" void LogPrintC(int iModule, int iLevel, const char* pszFormat, ...) __attribute__((format(printf, 3, 4)));

/// Sets the least level that is written from now on: "trace", "debug", "info", "warn", "error" or "off", as
/// QXHOST_LOG_LEVEL, which it replaces. False, and nothing is changed, for any other text and for null. Any thread.
extern "C" bool QxSetLogLevel(const char* pszLevel);

/// The logger for source units. Levels: 6 trace, 2 info, 3 warn, 4 error; any other counts as info.
class CLogDebug {
public:
    /// The one logger of the process, never null in this implementation; other hosts may return null.
    static CLogDebug* Instance();

    /// True when a record of this level would be written.
    bool CheckLogLevel(int iLevel);

    /// Writes a printf-style record. The function and the line are not written by this implementation. Any thread;
    /// errno is kept.
    void LogPrint(int iLevel, const char* pszSource, const char* pszFunction, int iLine, const char* pszFormat, ...)
        __attribute__((format(printf, 6, 7)));

    /// Writes a fixed text as it stands; null is an empty text.
    void LogPrintStr(int iLevel, const char* pszSource, const char* pszFunction, int iLine, const char* pszText);

private:
    CLogDebug() = default;
};
