#include "log_output.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <system_error>
#include <utility>

// The names of the levels, least first, as they are written and as QXHOST_LOG_LEVEL has them.
#define SPDLOG_LEVEL_NAMES \
    { "trace", "debug", "info", "warn", "error", "critical", "off" }
#include <spdlog/logger.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/systemd_sink.h>

namespace {

constexpr const char* kOwnModule = "qxhost";
constexpr int kOwnWarning = 2;  // the levels of LogPrintC
constexpr int kOwnError = 3;

/// The offset from UTC of the very second that is written; the formatter's own flag may lag a change by seconds.
class CUtcOffset final : public spdlog::custom_flag_formatter {
public:
    void format(const spdlog::details::log_msg& /*record*/, const std::tm& stTime, spdlog::memory_buf_t& out) override {
        const long iMinutes = std::labs(stTime.tm_gmtoff) / 60;
        fmt::format_to(std::back_inserter(out), "{}{:02}:{:02}", stTime.tm_gmtoff < 0 ? '-' : '+', iMinutes / 60,
                       iMinutes % 60);
    }
    std::unique_ptr<custom_flag_formatter> clone() const override { return std::make_unique<CUtcOffset>(); }
};

std::unique_ptr<spdlog::formatter> LineFormatter() {
    auto pFormatter = std::make_unique<spdlog::pattern_formatter>();
    pFormatter->add_flag<CUtcOffset>('*').set_pattern("%Y-%m-%dT%H:%M:%S.%e%* %l %v");
    return pFormatter;
}

/// Writes each record to a descriptor with one write, so that with O_APPEND the records of several processes stay
/// whole. The descriptor is never closed.
class CDescriptorSink final : public spdlog::sinks::base_sink<std::mutex> {
public:
    explicit CDescriptorSink(int iFd) : base_sink(LineFormatter()), m_iFd(iFd) {}

private:
    void sink_it_(const spdlog::details::log_msg& record) override {
        spdlog::memory_buf_t line;
        formatter_->format(record, line);
        std::string_view rest(line.data(), line.size());
        while (!rest.empty()) {
            const ssize_t iWritten = write(m_iFd, rest.data(), rest.size());
            if (iWritten >= 0) {
                rest.remove_prefix(static_cast<size_t>(iWritten));
            } else if (errno != EINTR) {
                throw spdlog::spdlog_ex("cannot write a log record", errno);
            }
        }
    }
    void flush_() override {}

    const int m_iFd;
};

std::string_view Environment(const char* pszName) {
    const char* pszValue = std::getenv(pszName);
    return pszValue == nullptr ? "" : pszValue;
}

std::optional<ELogLevel> LevelOfName(std::string_view name) {
    constexpr std::array<std::pair<std::string_view, ELogLevel>, 6> kLevels = {{{"trace", ELogLevel::Trace},
                                                                                {"debug", ELogLevel::Debug},
                                                                                {"info", ELogLevel::Info},
                                                                                {"warn", ELogLevel::Warn},
                                                                                {"error", ELogLevel::Error},
                                                                                {"off", ELogLevel::Off}}};
    for (const auto& [levelName, eLevel] : kLevels) {
        if (levelName == name) {
            return eLevel;
        }
    }
    return std::nullopt;
}

spdlog::level::level_enum ToSpdlog(ELogLevel eLevel) {
    switch (eLevel) {
        case ELogLevel::Trace:
            return spdlog::level::trace;
        case ELogLevel::Debug:
            return spdlog::level::debug;
        case ELogLevel::Warn:
            return spdlog::level::warn;
        case ELogLevel::Error:
            return spdlog::level::err;
        default:
            return spdlog::level::info;
    }
}

/// Where records go, and why not where they were meant to.
struct STarget {
    spdlog::sink_ptr pSink;
    std::string strProblem;  // empty when there is none
};

STarget StandardError(std::string strProblem = {}) {
    return {std::make_shared<CDescriptorSink>(STDERR_FILENO), std::move(strProblem)};
}

std::string ErrorText(int iErrno) {
    return std::generic_category().message(iErrno);
}

STarget OpenLogFile(const std::string& strPath) {
    const int iFile = open(strPath.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOCTTY | O_CLOEXEC, 0640);
    if (iFile < 0) {
        return StandardError(fmt::format("cannot open the log file {}: {}", strPath, ErrorText(errno)));
    }
    return {std::make_shared<CDescriptorSink>(iFile), {}};
}

STarget OpenJournal() {
    // The library drops records silently where there is no journal.
    constexpr const char* kSocket = "/run/systemd/journal/socket";
    if (access(kSocket, W_OK) != 0) {
        return StandardError(fmt::format("cannot reach the journal at {}: {}", kSocket, ErrorText(errno)));
    }
    return {std::make_shared<spdlog::sinks::systemd_sink_mt>(program_invocation_short_name), {}};
}

STarget OpenTarget(std::string_view name) {
    if (name.empty() || name == "stderr") {
        return StandardError();
    }
    return name == "journal" ? OpenJournal() : OpenLogFile(std::string(name));
}

/// "thread-name/tid"
void AppendThread(std::string& strLine) {
    std::array<char, 16> szName = {};  // TASK_COMM_LEN
    prctl(PR_GET_NAME, szName.data());
    AppendWord(strLine, szName.data());
    strLine += '/';
    strLine += std::to_string(gettid());
}

std::shared_ptr<spdlog::logger> MakeLogger(spdlog::sink_ptr pSink) {
    auto pLogger = std::make_shared<spdlog::logger>(kOwnModule, std::move(pSink));
    pLogger->set_level(spdlog::level::trace);  // what is on is decided before a text is formatted
    return pLogger;
}

}  // namespace

CLogOutput& CLogOutput::Instance() {
    static CLogOutput& output = *new CLogOutput();
    return output;
}

CLogOutput::CLogOutput() : m_strTarget(Environment("QXHOST_LOG")) {
    const std::string_view levelName = Environment("QXHOST_LOG_LEVEL");
    const std::optional<ELogLevel> level = LevelOfName(levelName);
    if (level == ELogLevel::Off) {
        return;
    }
    OpenLogger();
    if (!levelName.empty() && !level) {
        Report(ELogLevel::Warn, fmt::format("QXHOST_LOG_LEVEL is \"{}\", not trace, debug, info, warn, error or off; "
                                            "logging from info on",
                                            levelName));
    }
    m_eLeast = level.value_or(ELogLevel::Info);
}

bool CLogOutput::SetLeast(std::string_view name) {
    const std::optional<ELogLevel> level = LevelOfName(name);
    if (!level) {
        return false;
    }
    if (*level != ELogLevel::Off) {
        const std::lock_guard lock(m_openMutex);
        OpenLogger();
    }
    m_eLeast.store(*level, std::memory_order_release);
    return true;
}

// Nothing is opened while no level is on.
void CLogOutput::OpenLogger() {
    if (m_pLogger != nullptr) {
        return;
    }
    STarget target = OpenTarget(m_strTarget);
    m_pLogger = MakeLogger(std::move(target.pSink));
    if (!target.strProblem.empty()) {
        Report(ELogLevel::Error, target.strProblem + "; logging to the standard error");
    }
}

void CLogOutput::Report(ELogLevel eLevel, const std::string& strText) {
    Write(eLevel, kOwnModule, eLevel == ELogLevel::Error ? kOwnError : kOwnWarning, CutLogText(strText));
}

void CLogOutput::Write(ELogLevel eLevel, std::string_view module, int iCallerLevel, const SLogText& text) {
    std::string strRecord;
    strRecord.reserve(text.strText.size() + 80);
    AppendThread(strRecord);
    strRecord += ' ';
    AppendWord(strRecord, module);
    strRecord += ' ';
    strRecord += std::to_string(iCallerLevel);
    strRecord += ' ';
    AppendEscaped(strRecord, text.strText);
    if (text.uCut > 0) {
        strRecord += " (+" + std::to_string(text.uCut) + " bytes)";
    }
    m_pLogger->log(ToSpdlog(eLevel), spdlog::string_view_t(strRecord));
}
