// Runs that are ended while they multiply, with few descriptors, and with too little memory.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <future>
#include <optional>

#include "plugin/core/plugin_state.h"
#include "plugin/platform/unique_descriptor.h"
#include "qxhost/event.h"
#include "tests/unit/plugin/manager_run_fixture.h"
#include "tests/unit/test_barrier.h"

namespace {
std::atomic<int> g_failedWaits{-1};  // negative: no wait fails
}  // namespace

// In place of the host's.
extern "C" unsigned int QxWaitEventTimeout(void* event, long milliseconds) {
    if (g_failedWaits >= 0) {
        ++g_failedWaits;
        return 0xFFFFFFFF;
    }
    return reinterpret_cast<decltype(&QxWaitEventTimeout)>(dlsym(RTLD_NEXT, "QxWaitEventTimeout"))(event, milliseconds);
}

namespace {

// A command that sleeps, and can be told from every other on the machine.
std::string Sleeper() {
    static int count = 0;
    return "sleep 1" + std::to_string(getpid()) + "." + std::to_string(++count);
}

long CountProcesses(const std::string& command) {
    std::string wanted = command + ' ';
    std::replace(wanted.begin(), wanted.end(), ' ', '\0');
    const std::filesystem::directory_iterator processes("/proc");
    return std::count_if(begin(processes), end(processes),
                         [&](const auto& process) { return ReadFile(process.path() / "cmdline") == wanted; });
}

TEST_F(RunTest, ScriptsThatForkInTheMomentOfTheirEndingLeaveNothing) {
    const std::string sleeper = Sleeper();
    for (int run = 0; run < 8; ++run) {
        Launch(Script("exec >&- 2>&-; while :; do " + sleeper + " & sleep 0.002; done"));
    }
    EXPECT_TRUE(WaitUntil([&] { return CountProcesses(sleeper) > 20; }));
    manager_->DisposeScriptList(MT_STOPPLUGIN);
    EXPECT_TRUE(WaitThreadsGone());
    EXPECT_EQ(CountProcesses(sleeper), 0);
}

// A process that had begun to fork when it was told to stop: its child appears while a look goes through its list.
TEST_F(RunTest, AChildThatAppearsDuringTheLookThatFindsItsParentStoppedIsEnded) {
    static std::atomic<pid_t> parent;
    static std::atomic<int> looks;
    static std::string path;
    path = directory_ / "late";
    looks = 0;
    ASSERT_EQ(mkfifo((path + ".go").c_str(), 0600), 0);
    LaunchAlone("exec >&- 2>&-; echo $$ > '" + (directory_ / "pid") + "'; read < '" + path +
                ".go'; sleep 1000 & echo $! > '" + path + "'; wait");
    parent = PidIn("pid");
    g_pfnTestPoint = [](const char* point) {
        if (std::string_view(point) != "process scan" || ++looks != 2) {
            return;
        }
        kill(parent, SIGCONT);
        std::ofstream(path + ".go") << "\n";
        WaitUntil([] { return ReadFile(path).ends_with('\n'); });
        kill(parent, SIGSTOP);
    };
    manager_->DisposeScriptList(MT_STOPPLUGIN);
    EXPECT_TRUE(WaitThreadsGone());
    g_pfnTestPoint = nullptr;
    ExpectGone(PidIn("late"));
}

TEST_F(RunTest, RunsThatEndTogetherLeaveNothingHoweverFewDescriptorsAreFree) {
    constexpr int RUNS = 20;
    const std::string sleeper = Sleeper();
    const std::string two = sleeper + " >/dev/null & " + sleeper;
    for (const int free : {0, 1, 8}) {
        for (int run = 0; run < RUNS; ++run) {
            Launch(Script(two));
        }
        ASSERT_TRUE(WaitUntil([&] { return CountProcesses(sleeper) == 2 * RUNS; }));
        std::vector<CUniqueDescriptor> hoard;
        const DescriptorLimit few(256);
        for (int descriptor = 0; (descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) {
            hoard.emplace_back(descriptor);
        }
        hoard.resize(hoard.size() - static_cast<size_t>(free));
        manager_->DisposeScriptList(MT_STOPPLUGIN);
        EXPECT_TRUE(WaitThreadsGone());
        hoard.clear();
        EXPECT_EQ(CountProcesses(sleeper), 0) << free << " free";
    }
}

TEST_F(RunTest, ARunIsEndedWithNoDescriptorLeftAndALineSaysWhatThatMeans) {
    LaunchAlone("echo $$ > '" + (directory_ / "pid") + "'; trap '' TERM; while :; do sleep 0.1; done");
    const pid_t pid = PidIn("pid");
    testing::internal::CaptureStderr();  // the log
    std::optional<DescriptorLimit> none(0);
    manager_->DisposeScriptList(MT_STOPPLUGIN);
    EXPECT_TRUE(WaitThreadsGone());
    none.reset();
    const std::string line = "processes may be left of pid[" + std::to_string(pid) + "], they could not be looked for";
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find(line), std::string::npos) << log;
    ExpectGone(pid);
}

TEST(ProcessScanTest, ThoseWhoWaitShareTheNextLook) {
    CProcReader reader;
    CProcessScan scan(reader);
    Barrier barrier("process scan");
    std::vector<std::future<bool>> looks;
    std::array<std::atomic<pid_t>, 10> threads{};
    for (std::atomic<pid_t>& thread : threads) {
        looks.push_back(std::async(std::launch::async, [&] {
            thread = gettid();
            const auto snapshot = scan.Look("pipe:[1]", 0);
            return snapshot && snapshot->Find(getpid()) != nullptr;
        }));
        ASSERT_TRUE(barrier.WaitReached());
        EXPECT_TRUE(WaitUntil([&] { return ThreadSleeps(thread); }));
    }
    barrier.Release();
    for (auto& look : looks) {
        EXPECT_TRUE(look.get());
    }
    EXPECT_LE(barrier.Count("process scan"), 3) << "one was held, one more for all the others; hardly another";
}

TEST_F(RunTest, AnEventThatFailsMakesNoBusyLoop) {
    g_failedWaits = 0;
    EXPECT_EQ(manager_->RunOnceTask({Script("sleep 0.5; echo once")}), 1);
    EXPECT_LT(g_failedWaits.exchange(-1), 50);
    ASSERT_EQ(Reported().size(), 1U) << "it has waited for the run";
    EXPECT_EQ(Reported()[0].seconds, "1") << "rounded up";
    EXPECT_EQ(manager_->RunOnceTask({}), 0);
}

TEST_F(RunTest, AReportThatThrowsLosesNoOther) {
    auto first = Script("echo 1", "first");
    first.strID = "a";
    manager_->RunNewScript({first, Script("echo 2", "second")});
    EXPECT_TRUE(WaitThreadsGone());
    qxpmaint_impl::g_qxpmaint_send_to_mgr = [](auto... arguments) {
        static bool thrown = false;
        if (!std::exchange(thrown, true)) {
            throw std::bad_alloc();
        }
        return KeepReport(arguments...);
    };
    testing::internal::CaptureStderr();
    const auto results = Collect();
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("CMaintMgr::SendResultToServer Error[std::bad_alloc]"), std::string::npos) << log;
    ASSERT_EQ(results.size(), 1U);
    EXPECT_EQ(results.at("second").output, "2\n");
}

TEST_F(RunTest, AProcessThatOnlyReadsTheOutputIsNoPartOfTheRun) {
    LaunchAlone("echo $$ > '" + (directory_ / "pid") + "'; exec sleep 1000");
    const pid_t pid = PidIn("pid");
    const pid_t reader = fork();  // holds copies of all that this process has open
    if (reader == 0) {
        for (;;) {
            pause();
        }
    }
    manager_->DisposeScriptList(MT_STOPPLUGIN);
    EXPECT_TRUE(WaitThreadsGone());
    ExpectGone(pid);
    EXPECT_TRUE(ProcessRuns(reader));
    kill(reader, SIGKILL);
    waitpid(reader, nullptr, 0);
}

}  // namespace
