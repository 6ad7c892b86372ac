// The largest report there is, from the runs through plugin and agent into the store: how much memory it takes.

#include <iostream>

#include "agent/bus/components.h"
#include "agent/bus/endpoint.h"
#include "agent/reports/report_intake.h"
#include "plugin/adapter/adapter_mgr.h"
#include "plugin/manager/output_capture.h"
#include "tests/support/allocated.h"
#include "tests/unit/plugin/manager_run_fixture.h"

namespace {

// Both halves in one process, as in the agent.
class LargestReportTest : public RunTest {
protected:
    LargestReportTest() {
        plugin_.Initialize(qxpagent::kPluginId);
        CqxpmaintMgr::Instance()->SetCtx(&plugin_);
        qxpmaint_impl::uninit();
        PluginInitParam param{};
        param.notify_to_mgr = CqxpmaintMgr::AdapterNotifyToMgr;
        param.send_to_mgr = CqxpmaintMgr::AdapterSendToMgr;
        param.kv = "agent_type=KSTL";
        EXPECT_EQ(qxpmaint_impl::qxpmaint_init(&param), 0);
        manager_ = CMaintMgr::Instance();
        gate_ = manager_->Gate();
        manager_->Start();
        gate_ = manager_->Gate();
    }
    ~LargestReportTest() override { CqxpmaintMgr::DestroyInstance(); }

    const TempDir store_directory_;
    qxpagent::Store store_{{.path = store_directory_.Path() / "agent.db"}};
    qxpagent::RunCounters counters_;
    qxpagent::ReportIntake intake_{store_, counters_, [](const std::string&) { return false; }, [] {}};
    qxpagent::MessageBus bus_;
    qxpagent::Manager receiver_{bus_, [this](std::string_view body) { return intake_.AcceptMessage(body); }};
    qxpagent::Endpoint plugin_{bus_};
};

TEST_F(LargestReportTest, SixtyThreeFullOutputsPeakBelowFourTimesTheirSize) {
    constexpr size_t kRuns = 63;
    if (SANITIZED) {
        GTEST_SKIP() << "a sanitizer keeps memory of its own";
    }
    for (size_t run = 0; run < kRuns; ++run) {
        Launch(Script("head -c 2300000 /dev/zero | tr '\\0' x", std::to_string(run)));
    }
    ASSERT_TRUE(WaitUntil([&] { return gate_->Count() == 0; }));
    ForgetPeak();
    manager_->DisposeScriptList(MT_RUNCOMPLETE);
    const size_t peak = StatusBytes("VmHWM:");
    const auto reports = store_.ListReports({});
    ASSERT_EQ(reports.size(), 1U);
    const size_t size = reports[0].bytes;
    std::cout << "report of " << size << " bytes, peak " << peak << " bytes, "
              << static_cast<double>(peak) / static_cast<double>(size) << " times its size" << std::endl;
    EXPECT_GT(size, kRuns * 2 * COutputCapture::PART_LIMIT);
    EXPECT_LT(peak, 4 * size);
    EXPECT_EQ(counters_.runs_succeeded.Value(), kRuns);
}

}  // namespace
