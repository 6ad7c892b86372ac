#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "log_text.h"

namespace spdlog {
class logger;
}

enum class ELogLevel { Trace, Debug, Info, Warn, Error, Off };

/// Where the records of this process go, as the environment said at the first use, and which are written. Any thread.
class CLogOutput {
public:
    /// Never destroyed: destructors of other libraries and threads that outlive main may still log.
    static CLogOutput& Instance();

    bool IsOn(ELogLevel eLevel) const { return eLevel >= m_eLeast.load(std::memory_order_acquire); }

    /// Sets the least level that is written, by its name. False when there is none of that name.
    bool SetLeast(std::string_view name);

    /// Writes one record, whatever its level. A record that cannot be written is reported on the standard error, once a
    /// second at most.
    /// @param module        the module's number or the source unit.
    /// @param iCallerLevel  the level in the caller's own numbers.
    void Write(ELogLevel eLevel, std::string_view module, int iCallerLevel, const SLogText& text);

private:
    CLogOutput();

    void OpenLogger();

    /// Writes a record of the logger itself.
    void Report(ELogLevel eLevel, const std::string& strText);

    const std::string m_strTarget;
    std::atomic<ELogLevel> m_eLeast{ELogLevel::Off};

    std::mutex m_openMutex;
    // Set once, under m_openMutex, before a level is on; read by whoever has seen that level.
    std::shared_ptr<spdlog::logger> m_pLogger;
};
