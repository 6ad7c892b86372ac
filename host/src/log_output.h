#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "log_text.h"

namespace spdlog {
class logger;
}

enum class ELogLevel { Trace, Debug, Info, Warn, Error, Off };

/// Where the records of this process go and which are written, as the environment said at the first use. Any thread.
class CLogOutput {
public:
    /// Never destroyed: destructors of other libraries and threads that outlive main may still log.
    static CLogOutput& Instance();

    bool IsOn(ELogLevel eLevel) const { return eLevel >= m_eLeast; }

    /// Writes one record, whatever its level. A record that cannot be written is reported on the standard error, once a
    /// second at most.
    /// @param module        the module's number or the source unit.
    /// @param iCallerLevel  the level in the caller's own numbers.
    void Write(ELogLevel eLevel, std::string_view module, int iCallerLevel, const SLogText& text);

private:
    CLogOutput();

    /// Writes a record of the logger itself.
    void Report(ELogLevel eLevel, const std::string& strText);

    // Constant after construction.
    ELogLevel m_eLeast = ELogLevel::Info;
    std::shared_ptr<spdlog::logger> m_pLogger;
};
