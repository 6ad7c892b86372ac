// The end of the plugin while something is under way: a host that holds a call, policies that come late, threads that
// are cancelled, a process that exits.

#include <sys/wait.h>

#include <future>
#include <random>

#include "tests/plugin/run_policy_fixture.h"

namespace {

bool leaves_threads_running = false;

}  // namespace

// Asked by the leak checker, which cannot look through a process whose threads come and go.
extern "C" int __lsan_is_turned_off() {  // NOLINT: the checker's own interface
    return leaves_threads_running ? 1 : 0;
}

namespace {

class EndingTest : public RunPolicyTest {
protected:
    // Holds every send of the plugin until Release.
    void HoldSends() {
        host_.endpoint.script.during_send = [this] { released_.wait(); };
    }
    // The bounds of stop and close become 4 and 2 seconds: a loader needs up to one.
    static void ShortenBounds() {
        setenv("QXPMAINT_TEST_STOP_POLL_MS", "20", 1);
        setenv("QXPMAINT_TEST_CLOSE_WAIT_MS", "2000", 1);
    }
    void Release() { release_.set_value(); }

    // The number that follows a text in the newest record that has it.
    unsigned long LoggedNumber(const std::string& text) {
        const auto records = host_.LogWith(text);
        if (records.empty()) {
            return 0;
        }
        const std::string& record = records.back();
        return std::stoul(record.substr(record.find(text) + text.size()));
    }

    void ExpectNoThreadLeft() {
        EXPECT_EQ(Threads("qxm"), 0);
        EXPECT_EQ(Threads("qxpmaintwork"), 0);
        EXPECT_EQ(Threads("maintloadfile"), 0);
    }

    std::promise<void> release_;
    std::shared_future<void> released_{release_.get_future()};
};

TEST_F(EndingTest, AStopWaitsForAReportThatTheHostHolds) {
    HoldSends();
    host_.Launch();
    ASSERT_TRUE(host_.SendCommand(Policy("held", {Echo("held")})));
    ASSERT_TRUE(host_.endpoint.WaitForCalls("SendAsync", 1));
    auto stop = std::async(std::launch::async, [&] { return host_.object->Stop(); });
    EXPECT_EQ(stop.wait_for(std::chrono::seconds(1)), std::future_status::timeout) << "it looks more than twice";
    Release();
    EXPECT_EQ(stop.get(), 0);
    EXPECT_TRUE(host_.LogWith("kill WorkThread").empty());
    host_.Shutdown();
    ExpectNoThreadLeft();
}

TEST_F(EndingTest, StopAndCloseAreBoundedWhenTheHostNeverLetsGo) {
    ShortenBounds();
    HoldSends();
    host_.Launch();
    ASSERT_TRUE(host_.SendCommand(Policy("held", {Echo("held")})));
    ASSERT_TRUE(host_.endpoint.WaitForCalls("SendAsync", 1));
    EXPECT_EQ(host_.object->Stop(), 0);
    EXPECT_EQ(host_.LogWith("CMaintMgr::Stop kill WorkThread").size(), 1U);
    host_.object->Uninitialize();
    EXPECT_EQ(host_.LogWith("still running after").size(), 1U);
    host_.Shutdown();
    // Fresh lives beside the thread that is still held.
    host_.Launch();
    host_.Shutdown();
    EXPECT_EQ(host_.LogWith("still running after").size(), 1U) << "it is no thread of the second life";
    host_.Launch();
    Release();
    EXPECT_TRUE(WaitUntil([&] { return Threads("qxpmaintwork") == 0; })) << "the thread was cancelled meanwhile";
    ASSERT_TRUE(host_.SendCommand(Policy("next", {Echo("next")})));
    EXPECT_EQ(Text(ParseJson(host_.WaitForReports(2).back()), "ID"), "next");
    host_.Shutdown();
    ExpectNoThreadLeft();
}

TEST_F(EndingTest, ALoaderThatAStopGaveUpLeavesTheOtherFilesAlone) {
    ShortenBounds();
    HoldSends();
    for (const char* name : {"1", "2", "3"}) {
        WriteFile(host_.Data() / "policyfile" / (std::string(name) + ".json"), R"({"ID":"7","Command":"Reboot"})");
    }
    host_.Launch();
    ASSERT_TRUE(host_.endpoint.WaitForCalls("SendAsync", 1)) << "the refusal of the first";
    EXPECT_EQ(host_.object->Stop(), 0);
    EXPECT_EQ(host_.LogWith("thread need kill").size(), 1U);
    host_.object->Uninitialize();
    Release();
    EXPECT_TRUE(WaitUntil([&] { return Threads("maintloadfile") == 0; }));
    EXPECT_EQ(host_.endpoint.Calls("SendAsync").size(), 1U);
    EXPECT_EQ(CountEntries((host_.Data() / "policyfile").c_str()), 2);
}

TEST_F(EndingTest, DestroyObjectWaitsForTheDeliveryThatIsInside) {
    HoldSends();
    host_.Launch();
    const char* refused = R"({"ID":"7","Command":"Reboot"})";
    auto delivery = host_.endpoint.DeliverAsync(20001, SERVER_DATA, refused);
    ASSERT_TRUE(host_.endpoint.WaitForCalls("SendAsync", 1));
    auto destroy = std::async(std::launch::async, [&] { host_.destroy_object(PLUGIN_CLSID, host_.object); });
    EXPECT_EQ(destroy.wait_for(std::chrono::seconds(1)), std::future_status::timeout);
    Release();
    EXPECT_TRUE(delivery.get());
    destroy.get();
    host_.object = nullptr;
    ExpectNoThreadLeft();
    // Nobody has unregistered; what is delivered meets no manager.
    EXPECT_TRUE(host_.SendCommand(Policy("late", {Echo("late")})));
    EXPECT_EQ(host_.LogWith("recv msg pMaintMgr is NULL").size(), 1U);
    ExpectNoThreadLeft();
}

TEST_F(EndingTest, PoliciesThatComeDuringAndAfterAStopLeaveNothingBehind) {
    // The handler as the adapter has it.
    const auto* functions = static_cast<PluginFunTable*>(host_.create_plugin(PLUGIN_CLSID));
    ASSERT_NE(functions, nullptr);
    PluginInitParam handlers{};
    handlers.notify_to_mgr = [](int, const unsigned char*) {};
    handlers.send_to_mgr = [](int, const char*, const char*, int, const unsigned char*, unsigned int) { return 0; };
    handlers.kv = "agent_type=KSTL";
    ASSERT_EQ(functions->init(&handlers), 0);
    ASSERT_EQ(functions->uninit(), 0);
    const std::string policy = Policy("late", Sleepers(1));
    host_.Launch();
    std::atomic<bool> over{false};
    std::atomic<int> handled{0};
    std::vector<std::thread> senders;
    constexpr int SENDERS = 3;
    senders.reserve(SENDERS);
    for (int sender = 0; sender < SENDERS; ++sender) {
        senders.emplace_back([&] {
            while (!over) {
                handlers.plugin_recv(policy.c_str());
                ++handled;
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        });
    }
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(host_.object->Stop(), 0);
        EXPECT_EQ(host_.object->Start(), 0);
    }
    EXPECT_EQ(host_.object->Stop(), 0);
    const int seen = handled;
    EXPECT_TRUE(WaitUntil([&] { return handled > seen + 9; })) << "after the stop";
    over = true;
    for (std::thread& sender : senders) {
        sender.join();
    }
    host_.Shutdown();
    ExpectNoThreadLeft();
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "no child is left";
}

TEST_F(EndingTest, ACancelledWorkThreadOrLoaderLeavesNoLockBehind) {
    host_.Launch();
    std::minstd_rand random(20261121);  // NOLINT(cert-msc32-c,cert-msc51-cpp): to repeat it
    for (int round = 1; round <= 6; ++round) {
        const std::string id = "round" + std::to_string(round);
        ASSERT_TRUE(host_.SendCommand(Policy(id, {Echo("one"), Echo("two")})));
        const std::string created = "SetPolicyMaintCreateThread uThreadID[0] m_u64WorkThreadId[";
        const pthread_t work = LoggedNumber(created);
        ASSERT_TRUE(WaitUntil([&] { return Threads("qxpmaintwork") > 0; }));  // a new thread has its creator's name
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000));  // to meet it anywhere
        ASSERT_EQ(pthread_cancel(work), 0);
        // Its last pass ends first. The next policy then finds no work thread and creates one; or the loader does, when
        // the thread left before it took this round's.
        ASSERT_TRUE(WaitUntil([&] { return Threads("qxpmaintwork") == 0 || LoggedNumber(created) != work; })) << id;
    }
    ASSERT_TRUE(host_.SendCommand(Policy("last", {Echo("last")})));
    EXPECT_TRUE(WaitUntil([&] { return host_.LogWith(R"(pszSendData[{"ID":"last","msg_type":"1")").size() == 1; }));

    ASSERT_EQ(pthread_cancel(LoggedNumber("qxpmaint_loadpolicyfile_thread in threadid[")), 0);
    EXPECT_TRUE(WaitUntil([&] { return Threads("maintloadfile") == 0; }));
    EXPECT_EQ(host_.object->Stop(), 0);
    EXPECT_TRUE(host_.LogWith("need kill").empty()) << "a stop does not wait for a loader that has gone";
    EXPECT_EQ(host_.object->Start(), 0);
    WriteFile(host_.Data() / "policyfile/again.json", Policy("again", {Echo("again")}));
    EXPECT_TRUE(WaitUntil([&] { return host_.LogWith(R"(pszSendData[{"ID":"again","msg_type":"1")").size() == 1; }));
    host_.Shutdown();
    ExpectNoThreadLeft();
}

// In a child process, forked before this one has a thread or a plugin.
[[noreturn]] void LiveAndExit(int round) {
    leaves_threads_running = true;
    static PluginHost* host = nullptr;
    atexit([] {  // after all that the plugin has registered: sends that are still under way end
        for (const BusCall& send : host->endpoint.Calls("SendAsync")) {
            static_cast<IMRSendComplete*>(const_cast<void*>(send.sink))
                ->SendCallback(0, send.type, nullptr, 0, 1, nullptr);
        }
    });
    host = new PluginHost;  // the process ends without its destructor
    host->Launch();
    ScriptSpec chatty;
    chatty.body = "for i in {1..50}; do echo $i; sleep 0.02; done";
    ScriptSpec quiet;
    quiet.body = "exec >&-; sleep 1";
    ScriptSpec quick;
    quick.body = "echo quick";
    std::vector<ScriptSpec> scripts;
    for (int copy = 0; copy < 8; ++copy) {
        scripts.insert(scripts.end(), {chatty, quiet, quick});
    }
    host->SendCommand(MakePolicy(host->signer, "exit", "RunScriptNormal", scripts));
    std::minstd_rand random(static_cast<unsigned int>(round + 1));
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 300000));  // any moment
    if (round % 3 == 1) {
        dlclose(dlopen(host->LibraryPath().c_str(), RTLD_NOW | RTLD_NOLOAD));
    }
    if (round % 3 == 2) {
        host->Shutdown();
    }
    exit(7);
}

TEST(ExitTest, TheProcessMayExitAtAnyMoment) {
    const TempDir directory;  // for the trees of the children, whose scripts end a second after them
    setenv("TMPDIR", directory.Path().c_str(), 1);
    for (int round = 0; round < 12; ++round) {
        const pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            LiveAndExit(round);
        }
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7) << "round " << round << ": status " << status;
    }
}

}  // namespace
