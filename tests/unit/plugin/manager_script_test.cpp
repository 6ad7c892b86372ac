// Scripts that misbehave: they hold their output, leave, flood, multiply or die, and nothing is stalled or left behind.

#include <fcntl.h>
#include <sys/stat.h>

#include <thread>

#include "plugin/manager/output_capture.h"
#include "tests/support/allocated.h"
#include "tests/unit/plugin/manager_run_fixture.h"

namespace {

TEST_F(RunTest, ADaemonThatHasLeftTreeAndOutputIsLeftAlone) {
    const std::string pid_file = directory_ / "pid";
    Launch(Script("setsid bash -c 'echo $$ > \"" + pid_file + "\"; exec sleep 1000' </dev/null >/dev/null 2>&1 & " +
                  "until [ -s '" + pid_file + "' ]; do sleep 0.01; done; echo started"));
    EXPECT_EQ(Collect()["script"].output, "started\n");
    const pid_t pid = PidIn("pid");
    EXPECT_TRUE(ProcessRuns(pid));
    kill(pid, SIGKILL);
}

TEST_F(RunTest, AFloodWithoutANewlineStaysWithinItsBound) {
    ForgetPeak();
    const size_t before = StatusBytes("VmRSS:");
    Launch(Script("head -c 104857600 /dev/zero | tr '\\0' x; printf END"));
    EXPECT_TRUE(WaitUntil([&] { return gate_->Count() == 0; }));
    const size_t grown = StatusBytes("VmHWM:") - before;
    const std::string output = Collect()["script"].output;
    constexpr size_t PART = (COutputCapture::PART_LIMIT / CChunkReader::CHUNK_LIMIT + 1) * CChunkReader::CHUNK_LIMIT;
    EXPECT_EQ(output.find("\n...\n"), PART);
    EXPECT_LE(output.size(), 2 * PART + 5);
    EXPECT_GT(output.size(), 2 * COutputCapture::PART_LIMIT);
    EXPECT_TRUE(output.ends_with("xEND"));
    if (!SANITIZED) {
        EXPECT_LT(grown, 5 * (size_t{1} << 20) / 2 + (size_t{1} << 19)) << "2.5 MiB, and half a MiB for the thread";
    }
}

TEST_F(RunTest, AScriptFileThatCannotBeWrittenOnHoldsNoLaunchUp) {
    const std::string slow = directory_ / "slow";
    ASSERT_EQ(mkfifo(slow.c_str(), 0600), 0);
    std::atomic<pid_t> thread{0};
    std::thread writer([&] {
        thread = gettid();
        EXPECT_EQ(manager_->GenScriptFile(slow, std::string(200000, 'x'), nullptr, 0, 1), 1);
    });
    const int reader = open(slow.c_str(), O_RDONLY | O_CLOEXEC);  // reads nothing yet: the pipe fills up
    EXPECT_TRUE(WaitUntil([&] { return ThreadSleeps(thread); }));
    Launch(Script("echo beside"));
    EXPECT_EQ(Collect()["script"].output, "beside\n");
    char part[4096];
    while (read(reader, part, sizeof part) > 0) {
    }
    close(reader);
    writer.join();
}

TEST_F(RunTest, FreshExecutablesAreNeverBusyBesideOtherLaunches) {
    constexpr int EACH = 25;
    const auto launch = [&](const std::string& name) {
        std::string body = "#!/bin/sh\necho ran\n";
        for (int count = 0; count < EACH; ++count) {
            auto script = Script("", name + std::to_string(count));
            script.strType = "exe";
            script.pText = reinterpret_cast<unsigned char*>(body.data());
            script.iLength = static_cast<int>(body.size());
            Launch(script);
        }
    };
    std::vector<std::jthread> launchers;
    for (const char* name : {"a", "b", "c"}) {
        launchers.emplace_back(launch, name);
    }
    launchers.clear();  // waits for them
    const auto results = Collect();
    EXPECT_EQ(results.size(), 3U * EACH);
    for (const auto& [script, result] : results) {
        EXPECT_EQ(result.output, "ran\n") << script;
    }
}

}  // namespace
