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
class UtcOffset final : public spdlog::custom_flag_formatter {
public:
    void format(const spdlog::details::log_msg& /*record*/, const std::tm& time, spdlog::memory_buf_t& out) override {
        const long minutes = std::labs(time.tm_gmtoff) / 60;
        fmt::format_to(std::back_inserter(out), "{}{:02}:{:02}", time.tm_gmtoff < 0 ? '-' : '+', minutes / 60,
                       minutes % 60);
    }
    std::unique_ptr<custom_flag_formatter> clone() const override { return std::make_unique<UtcOffset>(); }
};

std::unique_ptr<spdlog::formatter> LineFormatter() {
    auto formatter = std::make_unique<spdlog::pattern_formatter>();
    formatter->add_flag<UtcOffset>('*').set_pattern("%Y-%m-%dT%H:%M:%S.%e%* %l %v");
    return formatter;
}

/// Writes each record to a descriptor with one write, so that with O_APPEND the records of several processes stay
/// whole. The descriptor is never closed.
class DescriptorSink final : public spdlog::sinks::base_sink<std::mutex> {
public:
    explicit DescriptorSink(int fd) : base_sink(LineFormatter()), fd_(fd) {}

private:
    void sink_it_(const spdlog::details::log_msg& record) override {
        spdlog::memory_buf_t line;
        formatter_->format(record, line);
        std::string_view rest(line.data(), line.size());
        while (!rest.empty()) {
            const ssize_t written = write(fd_, rest.data(), rest.size());
            if (written >= 0) {
                rest.remove_prefix(static_cast<size_t>(written));
            } else if (errno != EINTR) {
                throw spdlog::spdlog_ex("cannot write a log record", errno);
            }
        }
    }
    void flush_() override {}

    const int fd_;
};

std::string_view Environment(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? "" : value;
}

std::optional<LogLevel> LevelOfName(std::string_view name) {
    constexpr std::array<std::pair<std::string_view, LogLevel>, 6> kLevels = {{{"trace", LogLevel::kTrace},
                                                                               {"debug", LogLevel::kDebug},
                                                                               {"info", LogLevel::kInfo},
                                                                               {"warn", LogLevel::kWarn},
                                                                               {"error", LogLevel::kError},
                                                                               {"off", LogLevel::kOff}}};
    for (const auto& [known, level] : kLevels) {
        if (known == name) {
            return level;
        }
    }
    return std::nullopt;
}

spdlog::level::level_enum ToSpdlog(LogLevel level) {
    switch (level) {
        case LogLevel::kTrace:
            return spdlog::level::trace;
        case LogLevel::kDebug:
            return spdlog::level::debug;
        case LogLevel::kWarn:
            return spdlog::level::warn;
        case LogLevel::kError:
            return spdlog::level::err;
        default:
            return spdlog::level::info;
    }
}

/// Where records go, and why not where they were meant to.
struct Target {
    spdlog::sink_ptr sink;
    std::string problem;  // empty when there is none
};

Target StandardError(std::string problem = {}) {
    return {std::make_shared<DescriptorSink>(STDERR_FILENO), std::move(problem)};
}

std::string ErrnoText(int error) {
    return std::generic_category().message(error);
}

Target OpenLogFile(const std::string& path) {
    const int file = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOCTTY | O_CLOEXEC, 0640);
    if (file < 0) {
        return StandardError(fmt::format("cannot open the log file {}: {}", path, ErrnoText(errno)));
    }
    return {std::make_shared<DescriptorSink>(file), {}};
}

Target OpenJournal() {
    // The library drops records silently where there is no journal.
    constexpr const char* kSocket = "/run/systemd/journal/socket";
    if (access(kSocket, W_OK) != 0) {
        return StandardError(fmt::format("cannot reach the journal at {}: {}", kSocket, ErrnoText(errno)));
    }
    return {std::make_shared<spdlog::sinks::systemd_sink_mt>(program_invocation_short_name), {}};
}

Target OpenTarget(std::string_view name) {
    if (name.empty() || name == "stderr") {
        return StandardError();
    }
    return name == "journal" ? OpenJournal() : OpenLogFile(std::string(name));
}

/// "thread-name/tid"
void AppendThread(std::string& line) {
    std::array<char, 16> name = {};  // TASK_COMM_LEN
    prctl(PR_GET_NAME, name.data());
    AppendWord(line, name.data());
    line += '/';
    line += std::to_string(gettid());
}

std::shared_ptr<spdlog::logger> MakeLogger(spdlog::sink_ptr sink) {
    auto logger = std::make_shared<spdlog::logger>(kOwnModule, std::move(sink));
    logger->set_level(spdlog::level::trace);  // what is on is decided before a text is formatted
    return logger;
}

}  // namespace

LogOutput& LogOutput::Instance() {
    static LogOutput& output = *new LogOutput();
    return output;
}

LogOutput::LogOutput() : target_(Environment("QXHOST_LOG")) {
    const std::string_view level_name = Environment("QXHOST_LOG_LEVEL");
    const std::optional<LogLevel> level = LevelOfName(level_name);
    if (level == LogLevel::kOff) {
        return;
    }
    OpenLogger();
    if (!level_name.empty() && !level.has_value()) {
        Report(LogLevel::kWarn, fmt::format("QXHOST_LOG_LEVEL is \"{}\", not trace, debug, info, warn, error or off; "
                                            "logging from info on",
                                            level_name));
    }
    least_ = level.value_or(LogLevel::kInfo);
}

bool LogOutput::SetLeast(std::string_view name) {
    const std::optional<LogLevel> level = LevelOfName(name);
    if (!level.has_value()) {
        return false;
    }
    if (*level != LogLevel::kOff) {
        const std::lock_guard lock(open_mutex_);
        OpenLogger();
    }
    least_.store(*level, std::memory_order_release);
    return true;
}

// Nothing is opened while no level is on.
void LogOutput::OpenLogger() {
    if (logger_ != nullptr) {
        return;
    }
    Target target = OpenTarget(target_);
    logger_ = MakeLogger(std::move(target.sink));
    if (!target.problem.empty()) {
        Report(LogLevel::kError, target.problem + "; logging to the standard error");
    }
}

void LogOutput::Report(LogLevel level, const std::string& text) {
    Write(level, kOwnModule, level == LogLevel::kError ? kOwnError : kOwnWarning, CutLogText(text));
}

void LogOutput::Write(LogLevel level, std::string_view module, int caller_level, const LogText& text) {
    std::string record;
    record.reserve(text.text.size() + 80);
    AppendThread(record);
    record += ' ';
    AppendWord(record, module);
    record += ' ';
    record += std::to_string(caller_level);
    record += ' ';
    AppendEscaped(record, text.text);
    if (text.cut_bytes > 0) {
        record += " (+" + std::to_string(text.cut_bytes) + " bytes)";
    }
    logger_->log(ToSpdlog(level), spdlog::string_view_t(record));
}
