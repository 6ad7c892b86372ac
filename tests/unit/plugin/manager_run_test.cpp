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

TEST_F(RunTest, ResultFollowsTheMarkerWithinAChunkAndNotTheStatusOrTheSignal) {
    const auto marked_after = [](int bytes) {
        return "head -c " + std::to_string(bytes) + " /dev/zero | tr '\\0' x; sleep 0.05; echo MARK";
    };
    const struct {
        std::string id, type, body, marker, result, output;
    } cases[] = {
        {"found", "sh", "echo all is well; kill -KILL $$", "is well", "1", "all is well\n"},
        {"missing", "Sh", "echo all is lost; exit 7", "is well", "0", "all is lost\n"},
        {"killed", "sh", "echo lost >&2; kill -SEGV $$", "", "1", ""},
        {"silent", "sh", "no-such-program-anywhere", "anything", "0", ""},
        {"fits", "sh", marked_after(1019), "MARK", "1", std::string(1019, 'x') + "MARK\n"},
        {"split", "sh", marked_after(1020), "MARK", "0", std::string(1020, 'x') + "MARK\n"},
        {"next", "sh", marked_after(1023), "MARK", "1", std::string(1023, 'x') + "MARK\n"},
        {"bytes", "sh", R"(printf 'a\0hidden\nb\377\303\251"\\\n')", "", "1", "ab\xef\xbf\xbd\xc3\xa9\"\\\n"},
    };
    std::list<_MaintPolicyDetail> scripts;
    for (const auto& test : cases) {
        scripts.push_back(Script(test.body, test.id));
        scripts.back().strType = test.type;
        scripts.back().strCheckRet = test.marker;
    }
    scripts.push_back(Script("", "never"));
    scripts.back().strType = "zip";
    manager_->RunNewScript(scripts);
    auto results = Collect();
    EXPECT_EQ(results.size(), std::size(cases));
    for (const auto& test : cases) {
        EXPECT_EQ(results[test.id].result + results[test.id].output, test.result + test.output) << test.id;
        EXPECT_EQ(results[test.id].end.size(), 19U) << test.id;
    }
    ASSERT_EQ(CountEntries(directory_.Path().c_str()), 1) << "script files are deleted";
    EXPECT_EQ(std::filesystem::directory_iterator(directory_.Path())->path().extension(), ".zip") << "stays";
}

TEST_F(RunTest, ScriptsStartWithAnEmptySignalMaskAndNoDescriptorOfOurs) {
    const std::string body = "grep SigBlk /proc/self/status; ls /proc/self/fd";
    const std::string plain = "bash '" + directory_.Write("plain.sh", body) + "' > '" + (directory_ / "held'");
    // What any child of this process holds.
    const auto held = [&] {
        EXPECT_EQ(system(plain.c_str()), 0);  // NOLINT(cert-env33-c): a fixed command
        return ReadFile(directory_ / "held");
    };
    const std::string expected = held();
    EXPECT_TRUE(expected.starts_with("SigBlk:\t0000000000000000\n0\n1\n")) << expected;

    sigset_t blocked;
    sigset_t before;
    sigset_t after;
    sigfillset(&blocked);
    pthread_sigmask(SIG_SETMASK, &blocked, &before);
    manager_->RunNewScript({Script("sleep 1000", "neighbour"), Script(body, "observer")});
    pthread_sigmask(SIG_SETMASK, &before, &after);
    EXPECT_TRUE(sigismember(&after, SIGUSR1));
    EXPECT_EQ(WaitForReport().output, expected);
    EXPECT_EQ(held(), expected) << "a child of the host's own, beside a run";
}

TEST_F(RunTest, ARunLastsAsLongAsItsScriptAndItsOutputAndHoldsNoOtherUp) {
    const std::string pid = "echo $BASHPID > '" + (directory_ / "");
    LaunchAlone(pid + "closed'; exec >&- 2>&-; sleep 1000");
    Launch(Script("(" + pid + "background'; exec sleep 1000) & echo parent is done"));
    const pid_t held[] = {PidIn("closed"), PidIn("background")};
    Launch(Script("echo done", "other"));
    EXPECT_EQ(WaitForReport().output, "done\n");
    EXPECT_EQ(manager_->GetPRunScriptListSize(), 2U);
    for (const pid_t process : held) {
        EXPECT_TRUE(ProcessRuns(process));
    }
    manager_->DisposeScriptList(MT_STOPPLUGIN);
    EXPECT_EQ(manager_->GetPRunScriptListSize(), 0U);
    for (const pid_t process : held) {
        ExpectGone(process);
    }
    EXPECT_EQ(Reported().size(), 1U) << "ended runs are not reported";
}

TEST_F(RunTest, AnEndedRunIsAskedToEndAndTakesItsWholeTreeWithItWhateverItsStateAndName) {
    const std::string pid = "echo $BASHPID > '" + (directory_ / "");
    const std::string program = directory_ / "a) Z 1 (b";
    std::filesystem::copy_file("/bin/sleep", program);
    Launch(Script("trap '' TERM; (" + pid + "child'; exec sleep 1000 >/dev/null) & (setsid bash -c 'echo $BASHPID > " +
                  (directory_ / "session") + "; sleep 1000' &) ; " + pid + "parent'; while :; do sleep 0.1; done"));
    Launch(Script("trap 'touch " + (directory_ / "asked") + "; exit' TERM; " + pid + "stopped'; kill -STOP $$"));
    Launch(Script("(" + pid + "named'; exec '" + program + "' 1000 >/dev/null) & wait"));
    std::vector<pid_t> processes;
    for (const char* name : {"parent", "child", "session", "stopped", "named"}) {
        processes.push_back(PidIn(name));
    }
    manager_->DisposeScriptList(MT_STOPPLUGIN);
    for (const pid_t process : processes) {
        ExpectGone(process);
    }
    EXPECT_TRUE(std::filesystem::exists(directory_ / "asked"));
}

TEST_F(RunTest, AProgramWhoseFirstThreadHasEndedIsStillAlive) {
    LaunchAlone("exec '" QXPMAINT_TEST_LEAVE_MAIN "' '" + (directory_ / "pid") + "'");
    const pid_t pid = PidIn("pid");
    EXPECT_TRUE(WaitUntil([&] { return !ProcessRuns(pid); })) << "it shows as a zombie";
    manager_->DisposeScriptList(MT_STOPPLUGIN);
    EXPECT_TRUE(WaitThreadsGone()) << "and yet is ended";
}

TEST_F(RunTest, TimeOutsAreEnforcedOnlyBeyond32Runs) {
    auto overdue = Script("exec sleep 1000", "overdue");
    overdue.dwTimeOut = OVER_AT_ONCE;
    const auto patient = Script("exec sleep 1000", "patient");
    manager_->RunNewScript({31, patient});
    Launch(overdue);
    manager_->DisposeScriptList(MT_RUNTIMEOUT);
    EXPECT_EQ(manager_->GetPRunScriptListSize(), 32U);
    Launch(patient);
    manager_->DisposeScriptList(MT_RUNTIMEOUT);
    EXPECT_EQ(manager_->GetPRunScriptListSize(), 32U);
    ASSERT_EQ(Reported().size(), 1U);
    EXPECT_EQ(Reported()[0].script, "overdue");
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

TEST_F(RunTest, RunsAreGroupedByPolicyInLaunchOrder) {
    auto first = Script("echo 1", "first");
    auto second = Script("echo 2", "second");
    auto other = Script("echo 3", "other");
    other.strID = "another";
    manager_->RunNewScript({first, other, second});
    EXPECT_TRUE(WaitThreadsGone());
    manager_->DisposeScriptList(MT_RUNCOMPLETE);
    const auto results = Reported();
    ASSERT_EQ(results.size(), 3U);
    EXPECT_EQ(results[0].script + results[1].script + results[2].script, "otherfirstsecond");
    SequenceOf(*manager_) = 0x7ffffffd;
    EXPECT_EQ(manager_->GetSequenceIndex(), 0x7ffffffeU);
    EXPECT_EQ(manager_->GetSequenceIndex(), 1U) << "begins again";
}

}  // namespace
