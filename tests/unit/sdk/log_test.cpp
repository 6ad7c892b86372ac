#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "qxhost/log.h"
#include "tests/support/temp_dir.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

// Libraries for other hosts are built so; a const member would have another name.
static_assert(std::is_same_v<decltype(&CLogDebug::CheckLogLevel), bool (CLogDebug::*)(int)>);

/// What follows the time in each record: "LEVEL thread/tid module level text" without "thread/tid ".
std::vector<std::string> Records(const std::string& log) {
    static const std::regex front("^[^ ]+ ([^ ]+) [^ ]+ ");
    std::vector<std::string> records;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        records.push_back(std::regex_replace(line, front, "$1 ", std::regex_constants::format_first_only));
    }
    return records;
}

/// Runs the body in a process of its own, because the environment is read once a process. Returns its standard error.
std::string InProcess(const std::map<std::string, std::string>& environment, const std::function<void()>& body) {
    const auto run = [&] {
        unsetenv("QXHOST_LOG");
        unsetenv("QXHOST_LOG_LEVEL");
        for (const auto& [name, value] : environment) {
            setenv(name.c_str(), value.c_str(), 1);
        }
        tzset();
        body();
        _exit(0);
    };
    std::string log;
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), testing::Truly([&log](const std::string& text) {
                    log = text;
                    return true;
                }));
    return log;
}

TEST(Log, WritesOneLineARecordInItsForm) {
    const std::map<std::string, std::pair<std::string, long>> zones = {
        {"XXX-8", {"\\+08:00", 8 * 3600}}, {"XXX3:30", {"-03:30", -12600}}, {"UTC0", {"\\+00:00", 0}}};
    for (const auto& [zone, expected] : zones) {
        const time_t before = time(nullptr);
        const std::string log = InProcess({{"TZ", zone}}, [] {
            pthread_setname_np(pthread_self(), "run 7\n");
            LogPrintC(93, 2, "*cannot open \"%s\": %d", "a b", getpid());
        });
        const time_t after = time(nullptr);
        const std::string pid = std::to_string(std::strtol(log.c_str() + log.rfind(' ') + 1, nullptr, 10));
        std::string pattern = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}";
        pattern.append(expected.first).append(" warn run\\\\x207\\\\n/").append(pid);
        pattern.append(" 93 2 \\*cannot open \"a b\": ").append(pid).append("\n");
        EXPECT_THAT(log, testing::MatchesRegex(pattern));
        tm parts = {};
        strptime(log.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
        EXPECT_THAT(timegm(&parts) - expected.second, testing::AllOf(testing::Ge(before), testing::Le(after)));
    }
}

TEST(Log, MapsTheLevelsAndKeepsBackWhatIsOff) {
    const auto log_all = [] {
        CLogDebug* const log = CLogDebug::Instance();
        std::string on;
        for (int level = 0; level <= 7; ++level) {
            LogPrintC(93, level, "text");
            log->LogPrint(level, "source", "f", 1, "%s", "text");
            on += log->CheckLogLevel(level) ? std::to_string(level) : "";
        }
        LogPrintC(1, 3, "%s", on.c_str());
    };
    EXPECT_THAT(Records(InProcess({{"QXHOST_LOG_LEVEL", "warn"}}, log_all)), Contains("error 1 3 34"));
    EXPECT_THAT(Records(InProcess({}, log_all)), Contains("error 1 3 0123457"));
    EXPECT_THAT(InProcess({{"QXHOST_LOG_LEVEL", "off"}, {"QXHOST_LOG", "/no/such/file"}}, log_all), IsEmpty());
    EXPECT_THAT(Records(InProcess({{"QXHOST_LOG_LEVEL", "loud"}}, log_all)).at(0),
                testing::EndsWith("QXHOST_LOG_LEVEL is \"loud\", not trace, debug, info, warn, error or off; "
                                  "logging from info on"));
    // Set while it runs. What is no level changes nothing.
    const TempDir directory;
    InProcess({{"QXHOST_LOG_LEVEL", "off"}, {"QXHOST_LOG", directory / "log"}}, [&] {
        log_all();
        const bool right =
            QxSetLogLevel("trace") && !QxSetLogLevel("loud") && !QxSetLogLevel("") && !QxSetLogLevel(nullptr);
        log_all();
        QxSetLogLevel("off");
        log_all();
        QxSetLogLevel(right ? "warn" : "off");
        log_all();
    });
    EXPECT_THAT(
        Records(ReadFile(directory / "log")),
        ElementsAre("debug 93 0 text", "info source 0 text", "debug 93 1 text", "info source 1 text", "warn 93 2 text",
                    "info source 2 text", "error 93 3 text", "warn source 3 text", "info 93 4 text",
                    "error source 4 text", "info 93 5 text", "info source 5 text", "info 93 6 text",
                    "trace source 6 text", "info 93 7 text", "info source 7 text", "error 1 3 01234567",
                    "warn 93 2 text", "error 93 3 text", "warn source 3 text", "error source 4 text", "error 1 3 34"));
}

TEST(Log, NoTextCanForgeARecord) {
    const std::string written = InProcess({}, [] {
        CLogDebug* const log = CLogDebug::Instance();
        log->LogPrintStr(2, "source", "f", 1, "a\\n\nb\t\r\x1b[0m\x7f%s \xC3\xA9\x01");
        log->LogPrintStr(2, "x 4\ny", "f", 1, nullptr);
        log->LogPrintStr(2, nullptr, nullptr, 0, "\xE2\x80\xAE\xE2\x81\xA6\xE2\x81\xAA");
        log->LogPrintStr(2, "n\xC2\x9Bn", "f", 1,
                         "\xC2\x80\xC2\x9F\xC2\xA0\x9B \xE2\x82\xAC\xF0\x9F\x98\x80 \xE0\x82\x85\xFF\xE2\x82");
    });
    EXPECT_THAT(Records(written),
                ElementsAre("info source 2 a\\\\n\\nb\\t\\x0d\\x1b[0m\\x7f%s \xC3\xA9\\x01", "info x\\x204\\ny 2 ",
                            "info - 2 \\xe2\\x80\\xae\\xe2\\x81\\xa6\xE2\x81\xAA",
                            "info n\\xc2\\x9bn 2 \\xc2\\x80\\xc2\\x9f\xC2\xA0\\x9b "
                            "\xE2\x82\xAC\xF0\x9F\x98\x80 \xE0\\x82\\x85\xFF\xE2\\x82"));
}

TEST(Log, CutsLongTextsBeforeEscapingAndBetweenCharacters) {
    constexpr size_t kLimit = 16384;
    const std::vector<std::pair<std::string, std::string>> cases = {
        {std::string(kLimit, 'a'), std::string(kLimit, 'a')},
        {std::string(kLimit, 'a') + "b", std::string(kLimit, 'a') + " (+1 bytes)"},
        {std::string(500'000, 'a'), std::string(kLimit, 'a') + " (+483616 bytes)"},
        {std::string(kLimit - 1, 'a') + "\n\n", std::string(kLimit - 1, 'a') + "\\n (+1 bytes)"},
        {std::string(kLimit - 2, 'a') + "\xE2\x82\xAC.", std::string(kLimit - 2, 'a') + " (+4 bytes)"},
        {std::string(kLimit + 9, '\xA0'), std::string(kLimit, '\xA0') + " (+9 bytes)"},
        {std::string(511, 'a'), std::string(511, 'a')},
        {std::string(512, 'a'), std::string(512, 'a')}};
    const std::string log = InProcess({}, [&] {
        for (const auto& [text, written] : cases) {
            LogPrintC(93, 5, "%s", text.c_str());
            CLogDebug::Instance()->LogPrintStr(2, "s", "f", 1, text.c_str());
        }
    });
    const std::vector<std::string> records = Records(log);
    ASSERT_EQ(records.size(), 2 * cases.size());
    for (size_t i = 0; i < cases.size(); ++i) {
        EXPECT_TRUE(records[2 * i] == "info 93 5 " + cases[i].second) << i << records[2 * i].substr(16000);
        EXPECT_TRUE(records[2 * i + 1] == "info s 2 " + cases[i].second) << i;
    }
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"  // %m is an extension of the C library
TEST(Log, KeepsErrnoAndFormatsIt) {
    const std::string log =
        InProcess({{"QXHOST_LOG", "/dev/null/x"}}, [] {  // the first record finds that it cannot open it
            errno = ENOENT;
            LogPrintC(93, 3, "cannot open: %m");
            const int after_record = errno;
            LogPrintC(93, 0, "off");
            LogPrintC(93, 3, "%d %d", after_record, errno);
        });
    EXPECT_THAT(Records(log), ElementsAre(testing::StartsWith("error qxhost 3 "),
                                          "error 93 3 cannot open: No such file or directory", "error 93 3 2 2"));
    InProcess({{"QXHOST_LOG", "/dev/full"}}, [] {
        errno = ENOENT;
        LogPrintC(93, 3, "cannot be written");
        _exit(errno == ENOENT ? 0 : 1);
    });
}
#pragma GCC diagnostic pop

TEST(Log, AppendsToTheFileOrFallsBackToTheStandardError) {
    const TempDir directory;
    const std::string file = directory.Path() / "agent.log";
    const auto log_once = [] {
        LogPrintC(93, 5, "once");
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code ignored;
            if (read_symlink(entry.path(), ignored).filename() == "agent.log") {
                const int fd = std::stoi(entry.path().filename());
                LogPrintC(93, 5, "close-on-exec %d", fcntl(fd, F_GETFD) & FD_CLOEXEC);
            }
        }
    };
    EXPECT_THAT(InProcess({{"QXHOST_LOG", file}}, log_once), IsEmpty());
    EXPECT_THAT(InProcess({{"QXHOST_LOG", file}}, log_once), IsEmpty());
    EXPECT_THAT(Records(ReadFile(file)), ElementsAre("info 93 5 once", "info 93 5 close-on-exec 1", "info 93 5 once",
                                                     "info 93 5 close-on-exec 1"));
    EXPECT_EQ(std::filesystem::status(file).permissions() & ~std::filesystem::perms{0640}, std::filesystem::perms{});
    EXPECT_THAT(Records(InProcess({{"QXHOST_LOG", file + "/x"}}, log_once)),
                ElementsAre("error qxhost 3 cannot open the log file " + file +
                                "/x: Not a directory; logging to the standard error",
                            "info 93 5 once"));
    if (!std::filesystem::exists("/run/systemd/journal")) {
        EXPECT_THAT(Records(InProcess({{"QXHOST_LOG", "journal"}}, log_once)),
                    ElementsAre("error qxhost 3 cannot reach the journal at /run/systemd/journal/socket: "
                                "No such file or directory; logging to the standard error",
                                "info 93 5 once"));
    }
}

TEST(Log, RecordsOfSeveralThreadsAndProcessesStayWhole) {
    constexpr size_t kRecords = 200;
    const TempDir directory;
    const std::string file = directory.Path() / "agent.log";
    InProcess({{"QXHOST_LOG", file}}, [] {
        const pid_t second = fork();
        std::vector<std::jthread> threads;
        for (const auto& text : {std::string(10, 'a'), std::string(3010, 'b'), std::string(6010, 'c')}) {
            threads.emplace_back([text] {
                for (size_t i = 0; i < kRecords; ++i) {
                    LogPrintC(93, 5, "%s", text.c_str());
                }
            });
        }
        threads.clear();  // waits for them
        int status = 0;
        _exit(second == 0 || (waitpid(second, &status, 0) == second && status == 0) ? 0 : 1);
    });
    std::map<std::string, size_t> counts;
    for (const std::string& record : Records(ReadFile(file))) {
        ++counts[record];
    }
    EXPECT_THAT(counts, testing::AllOf(testing::SizeIs(3), testing::Each(testing::Pair(testing::_, 2 * kRecords))));
}

TEST(Log, WorksWhileTheProcessExits) {
    const std::string log = InProcess({}, [] {
        std::atexit([] { LogPrintC(93, 5, "at exit"); });  // before the first record: runs after the logger's own
        LogPrintC(93, 5, "first");
        std::exit(0);  // NOLINT(concurrency-mt-unsafe)
    });
    EXPECT_THAT(Records(log), ElementsAre("info 93 5 first", "info 93 5 at exit"));
}

}  // namespace
