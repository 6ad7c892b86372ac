// Runs of real scripts under the manager: results, endings, time-outs, and that nothing is left behind.

#include "tests/unit/plugin/manager_run_fixture.h"

namespace {

// The way to a private member that the language leaves open.
std::atomic<uint32_t>& SequenceOf(CMaintMgr& manager);
template <auto Member>
struct Reach {
    friend std::atomic<uint32_t>& SequenceOf(CMaintMgr& manager) { return manager.*Member; }
};
template struct Reach<&CMaintMgr::m_dwSequenceIndex>;

TEST_F(RunTest, ResultFollowsTheMarkerAndNotTheStatusOrTheSignal) {
    auto found = Script("echo all is well; kill -KILL $$", "found");
    found.strCheckRet = "is well";
    auto missing = Script("echo all is lost; exit 7", "missing");
    missing.strCheckRet = "is well";
    missing.strType = "Sh";
    manager_->RunNewScript({Script("kill -SEGV $$", "silent"), found, missing});
    auto results = Collect();
    ASSERT_EQ(results.size(), 3U);
    EXPECT_EQ(results["silent"].result + results["silent"].output, "1");
    EXPECT_EQ(results["found"].result + results["found"].output, "1all is well\n");
    EXPECT_EQ(results["missing"].result + results["missing"].output, "0all is lost\n");
    EXPECT_EQ(results["silent"].end.size(), 19U);
    EXPECT_TRUE(std::filesystem::is_empty(directory_.Path())) << "script files are deleted";
}

TEST_F(RunTest, AMarkerIsFoundWithinAChunkAndNotAcrossTwo) {
    const auto at = [&](int before, const char* id) {
        auto script =
            Script("head -c " + std::to_string(before) + " /dev/zero | tr '\\0' x; sleep 0.05; echo MARK", id);
        script.strCheckRet = "MARK";
        return script;
    };
    manager_->RunNewScript({at(1019, "fits"), at(1020, "split"), at(1023, "next")});
    auto results = Collect();
    ASSERT_EQ(results.size(), 3U);
    EXPECT_EQ(results["fits"].result, "1");
    EXPECT_EQ(results["split"].result, "0");
    EXPECT_EQ(results["next"].result, "1");
}

TEST_F(RunTest, OutputEndsAtANulByteOfEachChunkAndIsMadeAscii) {
    Launch(Script("printf 'a\\0hidden\\nb\\377\\303\\251\"\\\\\\n'"));
    auto results = Collect();
    ASSERT_EQ(results.size(), 1U);
    EXPECT_EQ(results["script"].output, "ab\xef\xbf\xbd\xc3\xa9\"\\\n");
}

TEST_F(RunTest, ExecutablesRunByThemselvesAndOtherTypesNeverDo) {
    auto executable = Script("", "exe");
    std::string body = "#!/bin/sh\necho \"$0\"\n";
    executable.strType = "ExE";
    executable.pText = reinterpret_cast<unsigned char*>(body.data());
    executable.iLength = static_cast<int>(body.size());
    auto archive = Script("", "zip");
    archive.strType = "zip";
    manager_->RunNewScript({executable, archive});
    auto results = Collect();
    ASSERT_EQ(results.size(), 1U);
    EXPECT_EQ(results["exe"].script, "exe");
    EXPECT_TRUE(results["exe"].output.starts_with(directory_.Path().string())) << results["exe"].output;
    // The archive's empty file stays where it was written.
    ASSERT_EQ(CountEntries(directory_.Path().c_str()), 1);
    EXPECT_EQ(std::filesystem::directory_iterator(directory_.Path())->path().extension(), ".zip");
}

TEST_F(RunTest, ARunThatCannotStartIsReportedWithEmptyOutput) {
    _MaintPolicyDetail script = Script("", "gone");
    script.strType = "exe";
    script.strScriptId = "first";
    manager_->CreateRunScript(directory_ / "no-such-file", "", 1, script);
    script.strScriptId = "second";
    script.strCheckRet = "anything";
    manager_->CreateRunScript(directory_ / "no-such-file", "", 2, script);
    auto results = Collect();
    ASSERT_EQ(results.size(), 2U);
    EXPECT_EQ(results["first"].result + results["first"].output, "1");
    EXPECT_EQ(results["second"].result + results["second"].output, "0");
}

// What popen gives a child of this process that holds nothing of the plugin yet.
std::string OutputOf(const std::string& command) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "re");  // NOLINT(cert-env33-c): the launcher whose behaviour is compared
    for (int character = 0; (character = fgetc(pipe)) != EOF;) {
        output += static_cast<char>(character);
    }
    pclose(pipe);
    return output;
}

TEST_F(RunTest, ScriptsStartWithAnEmptySignalMaskAndNoDescriptorOfOurs) {
    const std::string body = "grep SigBlk /proc/self/status; ls /proc/self/fd";
    const std::string expected = OutputOf("bash " + directory_.Write("reference.sh", body));
    EXPECT_TRUE(expected.starts_with("SigBlk:\t0000000000000000\n0\n1\n")) << expected;

    sigset_t blocked;
    sigset_t before;
    sigset_t after;
    sigfillset(&blocked);
    pthread_sigmask(SIG_SETMASK, &blocked, &before);
    manager_->RunNewScript({Script("sleep 1", "neighbour"), Script(body, "observer")});
    pthread_sigmask(SIG_SETMASK, &before, &after);
    EXPECT_TRUE(sigismember(&after, SIGUSR1));
    auto results = Collect();
    ASSERT_EQ(results.size(), 2U);
    EXPECT_EQ(results["observer"].output, expected);
}

TEST_F(RunTest, AScriptThatClosesItsOutputStillRunsAndHoldsNothingUp) {
    LaunchAlone("echo $$ > '" + (directory_ / "pid") + "'; exec >&- 2>&-; sleep 1000", "quiet");
    const pid_t pid = PidIn("pid");
    Launch(Script("echo done", "other"));
    EXPECT_TRUE(WaitUntil([&] {
        manager_->DisposeScriptList(MT_RUNCOMPLETE);
        return manager_->GetPRunScriptListSize() == 1;
    }));
    const auto results = Reported();
    ASSERT_EQ(results.size(), 1U);
    EXPECT_EQ(results[0].output, "done\n");
    EXPECT_TRUE(ProcessRuns(pid));
    manager_->DisposeScriptList(MT_STOPPLUGIN);
    EXPECT_EQ(manager_->GetPRunScriptListSize(), 0U);
    ExpectGone(pid);
    EXPECT_EQ(Reported().size(), 1U) << "an ended run is not reported";
}

TEST_F(RunTest, AnEndedRunTakesItsWholeTreeWithIt) {
    const std::string pid = "echo $BASHPID > '" + (directory_ / "");
    Launch(Script("trap '' TERM; (" + pid + "child'; exec sleep 1000 >/dev/null) & (setsid bash -c 'echo $BASHPID > " +
                  (directory_ / "session") + "; sleep 1000' &) ; " + pid + "parent'; while :; do sleep 0.1; done"));
    const pid_t parent = PidIn("parent");
    const pid_t child = PidIn("child");
    const pid_t session = PidIn("session");
    manager_->DisposeScriptList(MT_STOPPLUGIN);
    ExpectGone(parent);
    ExpectGone(child);
    ExpectGone(session);
}

TEST_F(RunTest, AProgramWhoseFirstThreadHasEndedIsStillAlive) {
    LaunchAlone("exec '" QXPMAINT_TEST_LEAVE_MAIN "' '" + (directory_ / "pid") + "'");
    const pid_t pid = PidIn("pid");
    EXPECT_TRUE(WaitUntil([&] { return !ProcessRuns(pid); })) << "it shows as a zombie";
    manager_->DisposeScriptList(MT_STOPPLUGIN);
    EXPECT_TRUE(WaitThreadsGone()) << "and yet is ended";
}

TEST_F(RunTest, AStoppedScriptIsAskedToEndToo) {
    Launch(Script("trap 'echo asked > " + (directory_ / "asked") + "; exit' TERM; echo $$ > '" + (directory_ / "pid") +
                  "'; kill -STOP $$"));
    const pid_t pid = PidIn("pid");
    manager_->DisposeScriptList(MT_STOPPLUGIN);
    ExpectGone(pid);
    EXPECT_EQ(ReadFile(directory_ / "asked"), "asked\n");
}

TEST_F(RunTest, AProgramMayHaveAnyName) {
    const std::string program = directory_ / "a) Z 1 (b";
    std::filesystem::copy_file("/bin/sleep", program);
    Launch(Script("'" + program + "' 1000 >/dev/null & echo $! > '" + (directory_ / "pid") + "'; wait"));
    const pid_t pid = PidIn("pid");
    manager_->DisposeScriptList(MT_STOPPLUGIN);
    ExpectGone(pid);
}

TEST_F(RunTest, TimeOutsAreEnforcedOnlyBeyond32Runs) {
    auto slow = Script("echo begun; sleep 1000", "slow");
    slow.dwTimeOut = 4294968;  // times 1000 wraps to 704 milliseconds
    auto patient = Script("exec sleep 1000", "patient");
    Launch(slow);
    for (unsigned int count = 1; count < 32; ++count) {
        Launch(patient);
    }
    const auto oldEnough = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
    EXPECT_TRUE(WaitUntil([&] { return std::chrono::steady_clock::now() > oldEnough; }));
    manager_->DisposeScriptList(MT_RUNTIMEOUT);
    EXPECT_EQ(manager_->GetPRunScriptListSize(), 32U);
    Launch(patient);
    EXPECT_TRUE(WaitUntil([&] {
        manager_->DisposeScriptList(MT_RUNTIMEOUT);
        return !Reported().empty();
    }));
    EXPECT_EQ(manager_->GetPRunScriptListSize(), 32U);
    const auto results = Reported();
    ASSERT_EQ(results.size(), 1U);
    EXPECT_EQ(results[0].script, "slow");
    EXPECT_EQ(results[0].result + results[0].output + results[0].seconds + results[0].end, "00");
    manager_->DisposeScriptList(7);  // an unknown type ends every run
    EXPECT_EQ(manager_->GetPRunScriptListSize(), 0U);
    EXPECT_EQ(manager_->DisposeScriptList(MT_ERROR), 0);
}

TEST_F(RunTest, AScriptIsWrittenWhereItsPathLeads) {
    const auto pathOf = [&](const std::string& path) {
        auto script = Script("echo $0");
        script.strPath = path;
        Launch(script);
        const std::string output = Collect()["script"].output;
        return output.substr(0, output.rfind('/'));
    };
    EXPECT_EQ(pathOf(directory_ / "new/deep"), directory_ / "new/deep");
    EXPECT_EQ(pathOf(directory_ / "slash//"), directory_ / "slash/");
    EXPECT_EQ(pathOf(directory_ / "slash"), directory_ / "slash");
    EXPECT_TRUE(pathOf(directory_.Write("file", "")).ends_with("data/qxpmaint")) << "a file is no directory";
    EXPECT_EQ(ReadFile(directory_ / "file"), "");
    EXPECT_EQ(manager_->GenScriptFile("/dev/full", "body", nullptr, 0, 0), 0) << "a full disk is an error";
    unsigned char byte = 'x';
    EXPECT_EQ(manager_->GenScriptFile(directory_ / "negative", "", &byte, -1, 0), 0);
    EXPECT_EQ(ReadFile(directory_ / "negative"), "");
}

TEST_F(RunTest, AScriptIsNotWrittenThroughALinkOfItsName) {
    const std::string victim = directory_.Write("victim", "kept");
    SequenceOf(*manager_) = 6;
    for (time_t at = time(nullptr), end = at + 60; at < end; ++at) {
        tm local{};
        char name[32] = {};
        strftime(name, sizeof name, "%Y%m%d%H%M%S0007.sh", localtime_r(&at, &local));
        std::filesystem::create_symlink(victim, directory_ / name);
    }
    Launch(Script("echo ran"));
    EXPECT_EQ(Collect()["script"].output, "ran\n");
    EXPECT_EQ(ReadFile(victim), "kept");
}

TEST_F(RunTest, RunsOfAManagerThatDoesNotWorkFinishWithNothing) {
    manager_->SetWork(0);
    Launch(Script("head -c 200000 /dev/zero"));  // more than a pipe holds
    auto results = Collect();
    ASSERT_EQ(results.size(), 1U);
    EXPECT_EQ(results["script"].result + results["script"].output, "0");
}

TEST_F(RunTest, RunsAreGroupedByPolicyInLaunchOrder) {
    auto first = Script("echo 1", "first");
    auto second = Script("echo 2", "second");
    auto other = Script("echo 3", "other");
    other.strID = "another";
    manager_->RunNewScript({first, other, second});
    EXPECT_TRUE(WaitUntil([&] { return gate_->Count() == 0; }));
    manager_->DisposeScriptList(MT_RUNCOMPLETE);
    const auto results = Reported();
    ASSERT_EQ(results.size(), 3U);
    EXPECT_EQ(results[0].script + results[1].script + results[2].script, "otherfirstsecond");
    SequenceOf(*manager_) = 0x7ffffffd;
    EXPECT_EQ(manager_->GetSequenceIndex(), 0x7ffffffeU);
    EXPECT_EQ(manager_->GetSequenceIndex(), 1U) << "begins again";
}

}  // namespace
