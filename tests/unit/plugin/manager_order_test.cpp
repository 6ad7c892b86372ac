// A run that is ended or cancelled at each stage of its life, by holding its thread there.

#include <thread>

#include "tests/unit/plugin/manager_run_fixture.h"
#include "tests/unit/test_barrier.h"

namespace {

struct Order {
    const char* point;
    const char* script;  ///< One that takes its thread to that place.
};

std::ostream& operator<<(std::ostream& out, const Order& order) {
    return out << order.point;
}

class RunOrderTest : public RunTest, public testing::WithParamInterface<Order> {
protected:
    RunOrderTest() {
        LaunchAlone(GetParam().script);
        EXPECT_TRUE(barrier_.WaitReached());
    }
    void ExpectNothingLeft() {
        EXPECT_TRUE(WaitThreadsGone());
        EXPECT_EQ(manager_->GetPRunScriptListSize(), 0U);
        EXPECT_EQ(CountEntries("/proc/self/fd"), descriptors_);
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    }

    Barrier barrier_{GetParam().point};
};

TEST_P(RunOrderTest, Disposed) {
    manager_->DisposeScriptList(MT_STOPPLUGIN);
    EXPECT_EQ(manager_->GetPRunScriptListSize(), 0U);
    Launch(Script("echo next"));  // may get the memory and the descriptors of the one before
    barrier_.Release();
    auto results = Collect();
    ASSERT_EQ(results.size(), 1U);
    EXPECT_EQ(results["script"].output, "next\n");
    ExpectNothingLeft();
}

TEST_P(RunOrderTest, Cancelled) {
    pthread_cancel(barrier_.Thread());
    barrier_.Release();
    EXPECT_EQ(Collect().size(), 1U) << "the run is finished and reported";
    ExpectNothingLeft();
}

TEST_P(RunOrderTest, Closed) {
    std::thread closing([] { qxpmaint_impl::uninit(); });
    // The close has ended the run and waits for its thread, which is held here.
    EXPECT_TRUE(WaitUntil([&] { return manager_->GetPRunScriptListSize() == 0; }));
    EXPECT_EQ(gate_->Count(), 1U);
    barrier_.Release();
    closing.join();
    EXPECT_EQ(gate_->Count(), 0U);
}

INSTANTIATE_TEST_SUITE_P(EachStage, RunOrderTest,
                         testing::Values(Order{"run attached", "sleep 1000"}, Order{"run reading", "sleep 1000"},
                                         Order{"run waiting", "exec >&-; sleep 1000"}, Order{"run storing", "echo x"},
                                         Order{"run stored", "echo x"}),
                         [](const auto& order) { return std::string(order.param.point).substr(4); });

TEST_F(RunTest, ARunThatFinishesBeforeItIsListedIsReportedAllTheSame) {
    Barrier barrier("launch listing");
    std::thread launcher([&] { Launch(Script("echo quick")); });
    ASSERT_TRUE(barrier.WaitReached());
    EXPECT_TRUE(WaitThreadsGone()) << "the run is over";
    // A work thread takes the signal of the run's end, and finds nothing.
    pthread_t worker{};
    ASSERT_EQ(pthread_create(&worker, nullptr, CMaintMgr::WorkThread, nullptr), 0);
    EXPECT_TRUE(WaitUntil([&] { return barrier.Count("disposing") == 1; }));
    EXPECT_EQ(manager_->GetPRunScriptListSize(), 0U);
    barrier.Release();
    launcher.join();
    EXPECT_TRUE(WaitUntil([] { return Reported().size() == 1; })) << "there was another signal";
    EXPECT_EQ(Reported().at(0).output, "quick\n");
    manager_->Stop();
    EXPECT_TRUE(WaitUntil([] { return CountThreads("qxpmaintwork") == 0; }));
}

}  // namespace
