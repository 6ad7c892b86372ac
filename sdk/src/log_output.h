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

enum class LogLevel { kTrace, kDebug, kInfo, kWarn, kError, kOff };

/// Where the records of this process go, as the environment said at the first use, and which are written. Any thread.
class LogOutput {
public:
    /// Never destroyed: destructors of other libraries and threads that outlive main may still log.
    static LogOutput& Instance();

    bool IsOn(LogLevel level) const { return level >= least_.load(std::memory_order_acquire); }

    /// Sets the least level that is written, by its name. False when there is none of that name.
    bool SetLeast(std::string_view name);

    /// Writes one record, whatever its level. A record that cannot be written is reported on the standard error, once a
    /// second at most.
    /// @param module        the module's number or the source unit.
    /// @param caller_level  the level in the caller's own numbers.
    void Write(LogLevel level, std::string_view module, int caller_level, const LogText& text);

private:
    LogOutput();

    void OpenLogger();

    /// Writes a record of the logger itself.
    void Report(LogLevel level, const std::string& text);

    const std::string target_;  // QXHOST_LOG
    std::atomic<LogLevel> least_{LogLevel::kOff};

    std::mutex open_mutex_;
    // Set once, under open_mutex_, before a level is on; read by whoever has seen that level.
    std::shared_ptr<spdlog::logger> logger_;
};
