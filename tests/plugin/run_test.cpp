// Policies from command to result through the loaded plugin.

#include <future>
#include <set>

#include "tests/plugin/run_policy_fixture.h"

namespace {

TEST_F(RunPolicyTest, AcceptedScriptsRunAndAreReported) {
    host_.Launch();
    ASSERT_TRUE(host_.SendCommand(Policy("p1", {{.id = "marked", .body = "echo marked", .check_ret = "mark"},
                                                {.body = "echo changed", .signed_right = false},
                                                {.type = "EXE", .body = "#!/bin/sh\necho $0\n"},
                                                {.id = "archive", .type = "zip", .body = "x"}})));
    std::map<std::string, Json> runs;  // of one report or two
    for (size_t reports = 1; runs.size() < 2; ++reports) {
        const Json report = ParseJson(host_.WaitForReports(reports).at(reports - 1));
        EXPECT_EQ(Text(report, "ID") + Text(report, "msg_type") + Text(report, "data_type"), "p11RunScriptData");
        EXPECT_EQ(Text(report, "data.handler_type"), "1");
        for (const Json& run : report["data"]["result"]) {
            runs[Text(run, "scriptid")] = run;
        }
    }
    for (const auto& [id, run] : runs) {
        const std::string path = Text(run, "filepath");
        EXPECT_FALSE(std::filesystem::exists(path));
        EXPECT_TRUE(path.ends_with(id == "marked" ? "0001.sh" : "0002")) << path;
        EXPECT_EQ(Text(run, "run_outdata"), (id == "marked" ? "marked" : path) + "\n");
        EXPECT_EQ(Text(run, "run_result"), "1");
        EXPECT_EQ(Text(run, "run_starttime").size() + Text(run, "run_endtime").size(), 2 * 19U);
    }
    EXPECT_EQ(host_.LogWith("VerifySignContent fail strID[p1]").size(), 1U);
    ASSERT_TRUE(host_.SendCommand(Policy("p2", {Echo("again")})));
    EXPECT_TRUE(WaitUntil([&] { return host_.LogWith(R"("ID":"p2","msg_type":"1")").size() == 1; }));
    EXPECT_EQ(host_.LogWith("SetPolicyMaintCreateThread uThreadID[0]").size(), 1U) << "one work thread for both";
}

TEST_F(RunPolicyTest, FilePoliciesAreReportedInResultFiles) {
    host_.Launch();
    ASSERT_TRUE(host_.SendCommand(Policy("f", {Echo("one")}, "RunScriptFile")));
    EXPECT_EQ(Text(ParseJson(WaitForResultFile("f1.json")), "data.result.0.run_outdata"), "one\n");
    ASSERT_TRUE(host_.SendCommand(Policy("g", {Echo("two")}, "RunScriptProcess")));
    EXPECT_EQ(Text(ParseJson(WaitForResultFile("g2.json")), "ID"), "g");
    EXPECT_TRUE(host_.endpoint.Calls("SendAsync").empty());
}

TEST_F(RunPolicyTest, PoliciesBehindAHeldReportRunInTheOrderOfTheirArrival) {
    std::promise<void> release;
    host_.endpoint.script.during_send = [held = release.get_future().share()] { held.wait(); };
    host_.Launch();
    for (const char* id : {"held", "first", "second"}) {
        ASSERT_TRUE(host_.SendCommand(Policy(id, {Echo(id)})));
        ASSERT_TRUE(host_.endpoint.WaitForCalls("SendAsync", 1));
    }
    release.set_value();
    for (const std::string& report : host_.WaitForReports(3)) {
        const std::string id = Text(ParseJson(report), "ID");
        const std::string path = Text(ParseJson(report), "data.result.0.filepath");
        EXPECT_TRUE(path.ends_with(id == "held" ? "1.sh" : id == "first" ? "2.sh" : "3.sh")) << id << " " << path;
    }
}

TEST_F(RunPolicyTest, AtMost63RunsAreInProgressAndTheOverdueEndBeyond32) {
    host_.Launch();
    auto scripts = Sleepers(60);
    // The last to be started, so that it is not overdue already at the look that ends the launches.
    scripts.back().id = "late";
    scripts.back().timeout = "2";
    ASSERT_TRUE(host_.SendCommand(Policy("many", scripts)));
    ASSERT_TRUE(WaitForLaunch(1));
    EXPECT_TRUE(WaitForRuns(60));
    const auto overdue = std::chrono::steady_clock::now() + std::chrono::milliseconds(2100);
    ASSERT_TRUE(host_.SendCommand(Policy("four", Sleepers(4))));
    EXPECT_EQ(host_.WaitForReports(1).front(), R"({"ID":"four","msg_type":"4","data_type":"RunScriptNormal"})");
    EXPECT_EQ(host_.LogWith("dwSize[64] >= MaxRunThreadCount * 2").size(), 1U);
    EXPECT_TRUE(WaitUntil([&] { return std::chrono::steady_clock::now() > overdue; }));
    ASSERT_TRUE(host_.SendCommand(Policy("three", Sleepers(3))));
    const Json report = ParseJson(host_.WaitForReports(2).back());
    EXPECT_EQ(Text(report, "ID") + Text(report, "data.result.0.scriptid"), "manylate");
    EXPECT_EQ(Text(report, "data.result.0.run_result") + Text(report, "data.result.0.run_runningtime") +
                  Text(report, "data.result.0.run_endtime") + Text(report, "data.result.0.run_outdata"),
              "00");
    EXPECT_TRUE(WaitForRuns(62));
    host_.Shutdown();
    EXPECT_EQ(Threads("qxm"), 0);
    EXPECT_EQ(host_.endpoint.Calls("SendAsync").size(), 2U) << "ended runs are not reported";
    for (const auto& entry : std::filesystem::directory_iterator(host_.Data())) {
        EXPECT_TRUE(entry.is_directory()) << "script files are deleted: " << entry.path();
    }
}

TEST_F(RunPolicyTest, TheLoaderTakesJsonFilesAndPassesOverTheRest) {
    const auto directory = host_.Data() / "policyfile";
    std::filesystem::create_directories(directory / "directory.json");
    ASSERT_EQ(mkfifo((directory / "fifo.json").c_str(), 0600), 0);
    WriteFile(directory / "empty.json", "");
    WriteFile(directory / "broken.json", "{");
    WriteFile(directory / "good.JSON", Policy("dropped", {Echo("first")}));
    host_.Launch();
    EXPECT_EQ(Text(ParseJson(host_.WaitForReports(1).front()), "ID"), "dropped");
    WriteFile(directory / "later.json", Policy("later", {Echo("second")}));
    EXPECT_EQ(Text(ParseJson(host_.WaitForReports(2).back()), "ID"), "later");
    EXPECT_TRUE(WaitUntil([&] { return !std::filesystem::exists(directory / "later.json"); }));
    EXPECT_EQ(CountEntries(directory.c_str()), 3) << "what cannot be read is left, what can be is used up";
}

TEST_F(RunPolicyTest, ARestartRunsWhatIsQueuedInFiles) {
    WriteFile(host_.Root() / "etc/plugins/qxpmaint/qxpmaint.conf", "[qxpmaint]\ncheckcycle=100\n");
    host_.Launch();
    ASSERT_TRUE(host_.SendCommand(Policy("before", Sleepers(2))));
    ASSERT_TRUE(WaitForRuns(2));
    EXPECT_EQ(host_.object->Stop(), 0);
    EXPECT_TRUE(WaitForRuns(0)) << "the runs have been ended";
    for (const char* name : {"a", "b", "c"}) {
        WriteFile(host_.Data() / "policyfile" / (std::string(name) + ".json"), Policy(name, {Echo(name)}));
    }
    EXPECT_EQ(host_.object->Start(), 0);
    std::set<std::string> ids;
    for (const std::string& report : host_.WaitForReports(3)) {
        ids.insert(Text(ParseJson(report), "ID"));
    }
    EXPECT_EQ(ids, (std::set<std::string>{"a", "b", "c"}));
    EXPECT_EQ(Threads("maintloadfile"), 1);
    for (int round = 0; round < 5; ++round) {  // also right after a start
        EXPECT_EQ(host_.object->Stop(), 0);
        EXPECT_TRUE(WaitUntil([] { return Threads("maintloadfile") == 0; })) << "it has left, and ends";
        EXPECT_EQ(host_.object->Start(), 0);
    }
    EXPECT_TRUE(WaitUntil([] { return Threads("maintloadfile") == 1; }));
    EXPECT_TRUE(host_.LogWith("need kill").empty()) << "a stop does not sit out the loader's pause";
}

TEST_F(RunPolicyTest, RunOnceRunsAPolicyFileByItsNameBesideOtherPolicies) {
    host_.Launch();
    const auto path = host_.Data() / "policyprocess/once.json";
    std::string name = "once.json";
    EXPECT_EQ(host_.runonce_plugin(name.data()), -1) << "there is none yet";
    const auto gate = host_.Root() / "gate";
    WriteFile(path, Policy("ignored", {{.body = "while [ ! -e '" + gate.string() + "' ]; do sleep 0.05; done"}}));
    std::string without_ending = "once";
    EXPECT_EQ(host_.runonce_plugin(without_ending.data()), -1);
    auto once = std::async(std::launch::async, [&] { return host_.runonce_plugin(name.data()); });
    ASSERT_TRUE(WaitForRuns(1));
    for (size_t round = 1; round <= 20; ++round) {
        ASSERT_TRUE(host_.SendCommand(Policy("beside", {Echo("beside")})));
        // One of the two disposes of it and reports; the run-once goes on waiting for its own.
        EXPECT_EQ(host_.WaitForReports(round).size(), round);
    }
    EXPECT_EQ(once.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    WriteFile(gate, "");
    EXPECT_EQ(once.get(), 0);
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(Text(ParseJson(WaitForResultFile("once.json1.json")), "ID"), "once.json");
    WriteFile(path, "no policy");
    EXPECT_EQ(host_.runonce_plugin(name.data()), -1);
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(host_.runonce_plugin(nullptr), -1);
}

}  // namespace
