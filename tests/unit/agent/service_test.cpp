#include <gmock/gmock.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <atomic>
#include <csignal>
#include <future>

#include "agent/service/environment.h"
#include "agent/service/service.h"
#include "base/unique_fd.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"
#include "tests/unit/agent/test_support.h"

namespace qxpagent {
namespace {

using testing::HasSubstr;

/// A service manager: the socket that a service writes to.
class Manager {
public:
    explicit Manager(const std::string& path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(0, bind(socket_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)));
        setenv("NOTIFY_SOCKET", path.c_str(), 1);
        FindServiceManager();
    }
    ~Manager() {
        unsetenv("NOTIFY_SOCKET");
        FindServiceManager();
    }

    /// The next message; empty when there is none in time.
    std::string Next(std::chrono::milliseconds time = DEADLINE) const {
        if (IsSilent(time)) {
            return {};
        }
        std::string message(4096, '\0');
        message.resize(static_cast<size_t>(recv(socket_.Get(), message.data(), message.size(), 0)));
        return message;
    }
    bool IsSilent(std::chrono::milliseconds time = {}) const {
        pollfd readable{socket_.Get(), POLLIN, 0};
        return poll(&readable, 1, static_cast<int>(time.count())) == 0;
    }

private:
    qxpbase::UniqueFd socket_{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

struct FakeServiceAgent final : ServiceAgent {
    void Start() override { started = true; }
    bool Stop() override {
        stopped = true;
        return true;
    }
    bool IsAlive() override { return true; }
    void SetRetention(const Retention& wanted) override { retention = wanted; }

    std::atomic<bool> started{false};
    bool stopped = false;
    Retention retention;
};

TEST(ServiceTest, TheServiceManagerIsToldEachStep) {
    const TempDir directory;
    const Manager manager(directory / "notify");
    std::filesystem::create_directory(directory.Path() / "bin");
    std::filesystem::create_directory(directory.Path() / "etc");
    const Installation installation{directory.Path() / "bin", directory.Path() / "data/qxpagent"};
    CommandLine command_line;
    command_line.config_file = directory.Path() / "etc" / "qxpagent.conf";
    const Options options = LoadOptions(command_line, installation).options;

    ServiceSignals signals;
    FakeServiceAgent agent;
    auto service =
        std::async(std::launch::async, [&] { return RunService(agent, signals, command_line, installation, options); });
    EXPECT_EQ("READY=1\nSTATUS=Serving " + (directory / "data/qxpagent/agent.sock"), manager.Next());
    EXPECT_TRUE(agent.started);

    directory.Write("etc/qxpagent.conf", "[qxpagent]\nretention-days=3\n");
    const auto before = std::chrono::steady_clock::now().time_since_epoch();
    ASSERT_EQ(0, raise(SIGHUP));
    const std::string reloading = manager.Next();
    EXPECT_THAT(reloading, testing::MatchesRegex("RELOADING=1\nMONOTONIC_USEC=[0-9]+\nSTATUS=.*"));
    const auto told = std::chrono::microseconds(std::stoll(reloading.substr(reloading.find("USEC=") + 5)));
    EXPECT_LE(told, std::chrono::steady_clock::now().time_since_epoch());
    EXPECT_GE(told, std::chrono::floor<std::chrono::microseconds>(before));
    EXPECT_THAT(manager.Next(), HasSubstr("READY=1\n"));
    EXPECT_EQ(std::chrono::hours(72), agent.retention.age);

    directory.Write("etc/qxpagent.conf", "[qxpagent]\nretention-days=x\n");
    ASSERT_EQ(0, raise(SIGHUP));
    EXPECT_THAT(manager.Next(), HasSubstr("RELOADING=1"));
    EXPECT_THAT(manager.Next(), HasSubstr("not reloaded: " + (directory / "etc/qxpagent.conf") + ":2: "));
    EXPECT_FALSE(agent.stopped);

    ASSERT_EQ(0, raise(SIGTERM));
    EXPECT_THAT(manager.Next(), HasSubstr("STOPPING=1"));
    EXPECT_EQ(kExitOk, service.get());
    EXPECT_TRUE(agent.stopped);
    EXPECT_EQ(SIGTERM, signals.StopNumber());
    EXPECT_EQ(ServiceSignals::Request::kStop, signals.Wait()) << "and nothing else from then on";
}

TEST(ServiceTest, TheWatchdogIsFedOnlyWhileTheAgentAnswers) {
    const TempDir directory;
    const Manager manager(directory / "notify");
    setenv("WATCHDOG_USEC", "20000", 1);
    FindServiceManager();
    std::atomic<bool> alive{true};
    std::atomic<int> asked{0};
    Happening asked_again;
    {
        const std::jthread watchdog = StartWatchdog([&] {
            if (!alive && ++asked == 4) {
                asked_again.Set();
            }
            if (!alive && asked == 2) {
                throw std::runtime_error("broken");
            }
            return alive.load();
        });
        EXPECT_EQ("WATCHDOG=1", manager.Next());
        EXPECT_EQ("WATCHDOG=1", manager.Next());
        alive = false;
        ASSERT_TRUE(asked_again.Wait());
        while (!manager.Next({}).empty()) {  // what was sent before it fell silent
        }
        const int before = asked;
        ASSERT_TRUE(WaitUntil([&] { return asked >= before + 2; }));
        EXPECT_TRUE(manager.IsSilent());
        alive = true;
        EXPECT_EQ("WATCHDOG=1", manager.Next());
    }
    while (!manager.Next({}).empty()) {
    }
    unsetenv("WATCHDOG_USEC");
    FindServiceManager();
    const std::jthread none = StartWatchdog([]() -> bool { throw std::logic_error("nobody asked for a watchdog"); });
    EXPECT_TRUE(manager.IsSilent());
    setenv("NOTIFY_SOCKET", "/nowhere/notify", 1);
    FindServiceManager();
    NotifyReady("a manager that has gone is no reason to fail");
}

TEST(EnvironmentTest, ScriptsInheritWhatIsMeantForThem) {
    for (const char* name : {"NOTIFY_SOCKET", "BASH_ENV", "LC_TIME", "http_proxy", "PROXY"}) {
        setenv(name, "x", 1);
    }
    const std::vector<std::string> gone = ReduceEnvironment({"http_proxy"});
    EXPECT_THAT(gone, testing::IsSupersetOf({"NOTIFY_SOCKET", "BASH_ENV", "PROXY"}));
    for (const char* name : {"NOTIFY_SOCKET", "BASH_ENV", "PROXY"}) {
        EXPECT_EQ(nullptr, std::getenv(name)) << name;
    }
    for (const char* name : {"LC_TIME", "http_proxy", "PATH"}) {
        EXPECT_NE(nullptr, std::getenv(name)) << name;
    }
    EXPECT_THAT(ReduceEnvironment({}), testing::ElementsAre("http_proxy"));
}

TEST(LogSetUpTest, TheJournalIsChosenWhereTheStandardErrorIsConnectedToIt) {
    struct stat status {};
    ASSERT_EQ(0, fstat(STDERR_FILENO, &status));
    const std::string stream = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
    const auto chosen = [](const Options& options, const char* log) -> std::string {
        log != nullptr ? setenv("QXHOST_LOG", log, 1) : unsetenv("QXHOST_LOG");
        SetUpLog(options);
        const char* const value = std::getenv("QXHOST_LOG");
        return value != nullptr ? value : "";
    };
    Options options;
    setenv("JOURNAL_STREAM", stream.c_str(), 1);
    EXPECT_EQ("journal", chosen(options, nullptr));
    EXPECT_EQ("stderr", chosen(options, "stderr")) << "the environment says otherwise";
    setenv("JOURNAL_STREAM", "1:1", 1);
    EXPECT_EQ("", chosen(options, nullptr)) << "another stream, inherited from somewhere";
    setenv("JOURNAL_STREAM", stream.c_str(), 1);
    options.log = "/x.log";
    options.log_level = "warn";
    EXPECT_EQ("/x.log", chosen(options, "stderr"));
    EXPECT_STREQ("warn", std::getenv("QXHOST_LOG_LEVEL"));
    unsetenv("JOURNAL_STREAM");
    EXPECT_EQ("", chosen({}, nullptr));
}

}  // namespace
}  // namespace qxpagent
