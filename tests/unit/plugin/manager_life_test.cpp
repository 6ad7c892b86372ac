// The life of a manager: who keeps it alive, who may make one, and what a close refuses.

#include <functional>
#include <future>
#include <new>
#include <optional>

#include "plugin/core/command.h"
#include "plugin/core/plugin_state.h"
#include "tests/unit/plugin/manager_run_fixture.h"
#include "tests/unit/test_barrier.h"

namespace {

constexpr char POLICY[] = R"({"ID":"7","Command":"RunScriptNormal","param":{"scriptinfo":[{"scriptid":"1"}]}})";

TEST_F(RunTest, ACloseWaitsForWhoeverIsInsideAndRefusesWhoeverComes) {
    const std::vector<std::function<void()>> entries{
        [] { qxpmaint_impl::plugin_recv_handler(POLICY); },
        [&] {
            directory_.Write("held.json", POLICY);
            snprintf(qxpmaint_impl::g_szPolicyProcessPath, sizeof qxpmaint_impl::g_szPolicyProcessPath, "%s",
                     directory_.Path().c_str());
            qxpmaint_impl::RunOnceScriptTask("held.json");
        },
    };
    for (const auto& enter : entries) {
        Barrier barrier("policy parsing");
        std::thread inside(enter);
        ASSERT_TRUE(barrier.WaitReached());
        std::thread closing([] { qxpmaint_impl::uninit(); });
        EXPECT_TRUE(WaitUntil([] { return CMaintMgr::Present() == nullptr; }));
        EXPECT_EQ(gate_->Count(), 1U);
        // The manager still stands, since somebody uses it, but takes nothing and starts nothing.
        EXPECT_EQ(manager_->SetPolicy(POLICY, "7", 1), 0);
        EXPECT_EQ(manager_->RunOnceTask({Script("touch '" + (directory_ / "ran") + "'")}), 0);
        manager_->RunNewScript({Script("touch '" + (directory_ / "ran") + "'")});
        EXPECT_EQ(manager_->GetPRunScriptListSize(), 0U);
        EXPECT_EQ(barrier.Count("policy parsing"), 1);
        enter();  // a later one meets no manager
        EXPECT_EQ(CMaintMgr::Present(), nullptr);
        EXPECT_EQ(barrier.Count("policy parsing"), 1);
        barrier.Release();
        inside.join();
        closing.join();
        EXPECT_EQ(gate_->Count(), 0U);
        EXPECT_FALSE(std::filesystem::exists(directory_ / "ran"));
        InitManager();
    }
}

TEST_F(RunTest, UninitIsCompleteAndLeavesTheCallersCancellationAsItWasWhateverFails) {
    for (const int before : {PTHREAD_CANCEL_ENABLE, PTHREAD_CANCEL_DISABLE}) {
        int after = -1;
        Launch(Script("sleep 1000"));
        manager_->Stop();  // no work thread: leaves the run alone
        EXPECT_EQ(manager_->GetPRunScriptListSize(), 1U);
        g_pfnTestPoint = [](const char* point) {
            if (std::string_view(point) == "disposing") {
                g_pfnTestPoint = nullptr;
                throw std::bad_alloc();
            }
        };
        pthread_setcancelstate(before, nullptr);
        EXPECT_NO_THROW(qxpmaint_impl::uninit());
        pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &after);
        EXPECT_EQ(after, before);
        EXPECT_EQ(gate_->Count(), 0U);
        EXPECT_FALSE(qxpmaint_impl::g_bInited);
        InitManager();
    }
}

TEST(ThreadGateTest, IsNotEmptyWhenAThreadEntersWhileAnotherEnds) {
    auto gate = std::make_shared<CThreadGate>();
    CThreadTicket room = CThreadTicket::ForNewThread(gate);
    std::promise<void> left;
    std::promise<void> end;
    std::thread ending([&] {
        CThreadTicket::Adopt(room).Release();
        left.set_value();
        end.get_future().wait();
    });
    left.get_future().wait();
    std::atomic<pid_t> thread{0};
    auto empty = std::async(std::launch::async, [&] {
        thread = gettid();
        return gate->WaitEmpty(std::chrono::steady_clock::now() + DEADLINE);
    });
    EXPECT_TRUE(WaitUntil([&] { return ThreadSleeps(thread); }))
        << "it waits for the thread that has left and is there";
    std::optional<CThreadTicket> ticket(CThreadTicket::ForCaller(gate));
    end.set_value();
    ending.join();
    EXPECT_EQ(empty.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    ticket.reset();
    EXPECT_TRUE(empty.get());
}

}  // namespace
