// A run that is ended or cancelled at each stage of its life, by holding its thread there.

#include <thread>

#include "tests/unit/plugin/manager_run_fixture.h"
#include "tests/unit/test_barrier.h"

namespace {

TEST_F(RunTest, ARunMayBeDisposedOfCancelledOrClosedAtEachStage) {
    const std::pair<const char*, const char*> stages[] = {
        {"run attached", "sleep 1000"}, {"run reading", "sleep 1000"}, {"run waiting", "exec >&-; sleep 1000"},
        {"run storing", "echo x"},      {"run stored", "echo x"},
    };
    for (const auto& [point, script] : stages) {
        for (const std::string end : {"disposed", "cancelled", "closed"}) {
            SCOPED_TRACE(point + (" " + end));
            ForgetReports();
            Barrier barrier(point);
            LaunchAlone(script);
            ASSERT_TRUE(barrier.WaitReached());
            if (end == "closed") {
                std::thread closing([] { qxpmaint_impl::uninit(); });
                // The close has ended the run and waits for its thread, which is held here.
                EXPECT_TRUE(WaitUntil([&] { return manager_->GetPRunScriptListSize() == 0; }));
                EXPECT_EQ(gate_->Count(), 1U);
                barrier.Release();
                closing.join();
                EXPECT_EQ(gate_->Count(), 0U);
                InitManager();
                continue;
            }
            if (end == "cancelled") {
                pthread_cancel(barrier.Thread());
            } else {
                manager_->DisposeScriptList(MT_STOPPLUGIN);
                EXPECT_EQ(manager_->GetPRunScriptListSize(), 0U);
                Launch(Script("echo next"));  // may get the memory and the descriptors of the one before
            }
            barrier.Release();
            auto results = Collect();
            EXPECT_EQ(results.size(), 1U) << "a cancelled run is finished and reported";
            EXPECT_EQ(results["script"].output == "next\n", end == "disposed");
            EXPECT_TRUE(WaitThreadsGone());
            EXPECT_EQ(CountEntries("/proc/self/fd"), descriptors_);
            EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
        }
    }
}

}  // namespace
