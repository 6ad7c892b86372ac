#include "qxhost/log.h"

#include <cerrno>
#include <cstdarg>
#include <exception>
#include <string>
#include <string_view>

#include "log_output.h"
#include "log_text.h"
#include "no_cancel.h"

namespace {

/// Whoever logs finds errno as it was, and is not cancelled meanwhile.
class CCallerState {
public:
    CCallerState() = default;
    ~CCallerState() { RestoreErrno(); }
    CCallerState(const CCallerState&) = delete;
    CCallerState& operator=(const CCallerState&) = delete;

    void RestoreErrno() const { errno = m_iErrno; }

private:
    const int m_iErrno = errno;
    const CNoCancel m_noCancel;
};

ELogLevel FromModuleLevel(int iLevel) {
    switch (iLevel) {
        case 0:
        case 1:
            return ELogLevel::Debug;
        case 2:
            return ELogLevel::Warn;
        case 3:
            return ELogLevel::Error;
        default:
            return ELogLevel::Info;
    }
}

ELogLevel FromSourceLevel(int iLevel) {
    switch (iLevel) {
        case 3:
            return ELogLevel::Warn;
        case 4:
            return ELogLevel::Error;
        case 6:
            return ELogLevel::Trace;
        default:
            return ELogLevel::Info;
    }
}

std::string_view OrEmpty(const char* pszText) {
    return pszText == nullptr ? "" : pszText;
}

/// Runs what writes a record, if its level is on. A record for which memory is short is lost.
template <typename Writer>
void WhenOn(ELogLevel eLevel, const Writer& write) {
    const CCallerState callerState;
    try {
        CLogOutput& output = CLogOutput::Instance();
        if (output.IsOn(eLevel)) {
            callerState.RestoreErrno();  // for %m
            write(output);
        }
    } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch)
    }
}

}  // namespace

void LogPrintC(int iModule, int iLevel, const char* pszFormat, ...) {
    va_list args;
    va_start(args, pszFormat);
    const ELogLevel eLevel = FromModuleLevel(iLevel);
    WhenOn(eLevel, [&](CLogOutput& output) {
        output.Write(eLevel, std::to_string(iModule), iLevel, FormatLogText(pszFormat, args));
    });
    va_end(args);
}

bool QxSetLogLevel(const char* pszLevel) {
    const CCallerState callerState;
    try {
        return CLogOutput::Instance().SetLeast(OrEmpty(pszLevel));
    } catch (const std::exception&) {
        return false;
    }
}

CLogDebug* CLogDebug::Instance() {
    static CLogDebug instance;
    return &instance;
}

// NOLINTNEXTLINE(readability-make-member-function-const): not const in the binary interface
bool CLogDebug::CheckLogLevel(int iLevel) {
    bool bOn = false;
    WhenOn(FromSourceLevel(iLevel), [&](CLogOutput&) { bOn = true; });
    return bOn;
}

void CLogDebug::LogPrint(int iLevel, const char* pszSource, const char* /*pszFunction*/, int /*iLine*/,
                         const char* pszFormat, ...) {
    va_list args;
    va_start(args, pszFormat);
    const ELogLevel eLevel = FromSourceLevel(iLevel);
    WhenOn(eLevel, [&](CLogOutput& output) {
        output.Write(eLevel, OrEmpty(pszSource), iLevel, FormatLogText(pszFormat, args));
    });
    va_end(args);
}

void CLogDebug::LogPrintStr(int iLevel, const char* pszSource, const char* /*pszFunction*/, int /*iLine*/,
                            const char* pszText) {
    const ELogLevel eLevel = FromSourceLevel(iLevel);
    WhenOn(eLevel,
           [&](CLogOutput& output) { output.Write(eLevel, OrEmpty(pszSource), iLevel, CutLogText(OrEmpty(pszText))); });
}
