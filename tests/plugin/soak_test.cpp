// Thousands of runs with random ends over many lives of the plugin: what the process holds afterwards is what it held
// before.

#include <sys/wait.h>

#include <iostream>
#include <random>

#include "tests/plugin/run_policy_fixture.h"
#include "tests/support/allocated.h"

namespace {

constexpr int CYCLES = SANITIZED ? 50 : 10;
constexpr int WARM_UP_CYCLES = 3;
constexpr size_t RUNS_A_CYCLE = 42;

struct Holdings {
    long threads = 0;
    long descriptors = 0;
    size_t bytes = 0;
};

class SoakTest : public RunPolicyTest {
protected:
    ScriptSpec RandomScript() {
        static const std::vector<std::string> bodies = {
            "echo quick",
            "echo quick; kill -PIPE $$",
            "exec >&-; sleep 0.3",
            "sleep 1000",
            "exec sleep 1000",
            "sleep 1000 & echo left a child",
            "head -c 3000000 /dev/zero | tr '\\0' x",
            "kill -STOP $$",
            "(sleep 0.2; echo later) &",
            "exit 3",
        };
        ScriptSpec script;
        script.body = bodies[random_() % bodies.size()];
        script.timeout = random_() % 4 == 0 ? "4294968" : "0";  // 704 ms, once more than 32 runs are in progress
        if (random_() % 8 == 0) {
            script.type = "exe";
            script.body = "#!/bin/sh\n" + script.body + "\n";
        }
        return script;
    }

    std::vector<ScriptSpec> RandomScripts(size_t count) {
        std::vector<ScriptSpec> scripts(count);
        std::generate(scripts.begin(), scripts.end(), [this] { return RandomScript(); });
        return scripts;
    }

    void Cycle(int number) {
        host_.Launch();
        ASSERT_TRUE(host_.SendCommand(Policy("many", RandomScripts(RUNS_A_CYCLE - 6))));
        ASSERT_TRUE(WaitForLaunch(++launches_));
        Linger();
        if (number % 2 == 0) {
            WriteFile(host_.Data() / "policyfile/dropped.json", Policy("few", RandomScripts(6), "RunScriptFile"));
        } else {
            ASSERT_TRUE(host_.SendCommand(Policy("few", RandomScripts(6))));
        }
        ASSERT_TRUE(WaitForLaunch(++launches_));
        if (number % 5 == 0) {
            ASSERT_TRUE(host_.SendCommand(
                Policy("stubborn", {{.body = "trap '' TERM; while :; do sleep 0.1; done"}})));  // may meet the stop
        }
        Linger();
        EXPECT_EQ(host_.object->Stop(), 0);
        host_.Shutdown();
        launches_ = host_.LogWith("strDisposeType[MT_RUNTIMEOUT]").size();
        host_.endpoint.Forget();
        std::filesystem::remove_all(host_.Data() / "result");
    }

    // So that the next thing meets the runs at another moment of their life each time.
    void Linger() { std::this_thread::sleep_for(std::chrono::milliseconds(random_() % 400)); }

    static Holdings Now() { return {CountEntries("/proc/self/task"), CountEntries("/proc/self/fd"), AllocatedBytes()}; }

    std::minstd_rand random_{2026};  // NOLINT(cert-msc32-c,cert-msc51-cpp): to repeat it
    size_t launches_ = 0;
};

TEST_F(SoakTest, ThousandsOfRunsLeaveNothingBehind) {
    for (int cycle = 0; cycle < WARM_UP_CYCLES; ++cycle) {
        Cycle(cycle);
    }
    const Holdings before = Now();
    for (int cycle = 0; cycle < CYCLES; ++cycle) {
        Cycle(cycle);
        ASSERT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "no child, and so no zombie, is left";
    }
    const Holdings after = Now();
    const size_t runs = host_.LogWith("Create RunScriptThread").size();
    std::cout << runs << " runs; threads " << before.threads << " -> " << after.threads << ", descriptors "
              << before.descriptors << " -> " << after.descriptors << ", heap bytes " << before.bytes << " -> "
              << after.bytes << std::endl;
    EXPECT_GE(runs, SANITIZED ? 2000U : 400U);
    EXPECT_EQ(after.threads, before.threads);
    EXPECT_EQ(after.descriptors, before.descriptors);
    if (SANITIZED) {  // without one, the allocator counts what it keeps for itself
        EXPECT_EQ(after.bytes, before.bytes);
    }
}

}  // namespace
