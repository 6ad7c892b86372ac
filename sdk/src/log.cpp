#include "qxhost/log.h"

#include <cerrno>
#include <cstdarg>
#include <exception>
#include <string>
#include <string_view>

#include "c_interface.h"
#include "log_output.h"
#include "log_text.h"

namespace {

/// Whoever logs finds errno as it was, and is not cancelled meanwhile.
class CallerState {
public:
    CallerState() = default;
    ~CallerState() { RestoreErrno(); }
    CallerState(const CallerState&) = delete;
    CallerState& operator=(const CallerState&) = delete;

    void RestoreErrno() const { errno = errno_before_; }

private:
    const int errno_before_ = errno;
    const CancellationOff cancellation_off_;
};

LogLevel FromModuleLevel(int caller_level) {
    switch (caller_level) {
        case 0:
        case 1:
            return LogLevel::kDebug;
        case 2:
            return LogLevel::kWarn;
        case 3:
            return LogLevel::kError;
        default:
            return LogLevel::kInfo;
    }
}

LogLevel FromSourceLevel(int caller_level) {
    switch (caller_level) {
        case 3:
            return LogLevel::kWarn;
        case 4:
            return LogLevel::kError;
        case 6:
            return LogLevel::kTrace;
        default:
            return LogLevel::kInfo;
    }
}

std::string_view OrEmpty(const char* text) {
    return text == nullptr ? "" : text;
}

/// Runs what writes a record, if its level is on. A record for which memory is short is lost.
template <typename Writer>
void WhenOn(LogLevel level, const Writer& write) {
    const CallerState caller_state;
    try {
        LogOutput& output = LogOutput::Instance();
        if (output.IsOn(level)) {
            caller_state.RestoreErrno();  // for %m
            write(output);
        }
    } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch)
    }
}

}  // namespace

void LogPrintC(int module, int caller_level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const LogLevel level = FromModuleLevel(caller_level);
    WhenOn(level, [&](LogOutput& output) {
        output.Write(level, std::to_string(module), caller_level, FormatLogText(format, args));
    });
    va_end(args);
}

bool QxSetLogLevel(const char* level) {
    const CallerState caller_state;
    try {
        return LogOutput::Instance().SetLeast(OrEmpty(level));
    } catch (const std::exception&) {
        return false;
    }
}

CLogDebug* CLogDebug::Instance() {
    static CLogDebug instance;
    return &instance;
}

// NOLINTNEXTLINE(readability-make-member-function-const): not const in the binary interface
bool CLogDebug::CheckLogLevel(int caller_level) {
    bool is_on = false;
    WhenOn(FromSourceLevel(caller_level), [&](LogOutput&) { is_on = true; });
    return is_on;
}

void CLogDebug::LogPrint(int caller_level, const char* source, const char* /*function*/, int /*line*/,
                         const char* format, ...) {
    va_list args;
    va_start(args, format);
    const LogLevel level = FromSourceLevel(caller_level);
    WhenOn(level,
           [&](LogOutput& output) { output.Write(level, OrEmpty(source), caller_level, FormatLogText(format, args)); });
    va_end(args);
}

void CLogDebug::LogPrintStr(int caller_level, const char* source, const char* /*function*/, int /*line*/,
                            const char* text) {
    const LogLevel level = FromSourceLevel(caller_level);
    WhenOn(level,
           [&](LogOutput& output) { output.Write(level, OrEmpty(source), caller_level, CutLogText(OrEmpty(text))); });
}
