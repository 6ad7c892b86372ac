#include "agent/commands/command_service.h"

#include <gmock/gmock.h>

#include <thread>

#include "agent/bus/message_bus.h"
#include "policy/key_file.h"
#include "policy/trusted_keys.h"
#include "tests/unit/agent/store_fixture.h"

namespace qxpagent {
namespace {

using testing::HasSubstr;

const qxpbase::Peer kPeer{1000, 1000, 4321, "operator"};

// The commands over a store, with a plugin that does as the test says.
class CommandServiceTest : public StoreTest {
protected:
    CommandServiceTest() {
        const qxppolicy::Key key = qxppolicy::ReadPrivateKey(QXPMAINT_TEST_SIGNING_KEY);
        keys_.AddKeyFile(directory_.Write("pub.pem", qxppolicy::WriteKeyPair(key).public_pem));
        sign_ = qxppolicy::Sign(key, "ZWNobwo=");
        Restart();
    }

    // As a new process would: what is not in the store is gone.
    void Restart() {
        commands_.reset();
        Open();
        commands_ = std::make_unique<CommandService>(
            *store_, counters_, keys_, [this](const std::string&) { return directory_fault_; },
            [this](const std::string& document, uint32_t /*scripts*/) {
                delivered_.push_back(document);
                return plugin_(document);
            });
    }
    std::string Script(const std::string& id, const std::string& type = "sh", const std::string& sign = "") const {
        return R"({"scriptid":")" + id + R"(","scripttype":")" + type + R"(","scriptdata":"ZWNobwo=","sign":")" +
               (sign.empty() ? sign_ : sign) + "\"}";
    }
    std::string Document(const std::string& id, const std::string& scripts,
                         const std::string& command = "RunScriptNormal") const {
        return R"({"ID":")" + id + R"(","Command":")" + command + R"(","param":{"scriptinfo":[)" + scripts + "]}}";
    }
    std::string Document(const std::string& id) const { return Document(id, Script("a")); }
    // As if the process had died between the two steps of the journal.
    void Journal(const std::string& id, const std::string& document = "") {
        NewCommand command = CommandOf(id);
        command.text = document.empty() ? Document(id) : document;
        CommandRecord record;
        EXPECT_EQ(Admission::kNew, store_->Admit(command, record));
    }
    SubmitStatus Submit(const std::string& document) { return commands_->Submit(document, kPeer).status; }
    void PluginSays(int result) {
        plugin_ = [result](const std::string&) { return result; };
    }
    void Report(const std::string& text) {
        ReportIntake intake(
            *store_, counters_, [this](const std::string& id) { return commands_->MayBeRefused(id); }, [] {});
        EXPECT_TRUE(intake.AcceptMessage(Envelope(text)));
    }
    CommandState StateOf(const std::string& id) { return store_->FindCommand(id).value().state; }
    size_t AgentReports(const std::string& id) { return Cursors({.id = id, .source = ReportSource::kAgent}).size(); }

    qxppolicy::TrustedKeys keys_;
    std::string sign_;
    std::function<int(const std::string&)> plugin_ = [](const std::string&) { return kBusOk; };
    qxppolicy::Fault directory_fault_;
    std::vector<std::string> delivered_;
    std::unique_ptr<CommandService> commands_;
};

TEST_F(CommandServiceTest, ACommandIsJournalledAsDeliveredBeforeThePluginHasIt) {
    plugin_ = [this](const std::string&) {
        EXPECT_EQ(CommandState::kDelivered, StateOf("c"));
        return kBusOk;
    };
    const std::string document = Document("c", Script("a") + "," + Script("b", "EXE") + "," + Script("z", "zip") + "," +
                                                   Script("bad", "sh", "01100000ff") + "," + Script("w", "bat"));
    const SubmitOutcome outcome = commands_->Submit(document, kPeer);
    ASSERT_EQ(SubmitStatus::kTaken, outcome.status);
    const CommandRecord& command = outcome.command.value();
    EXPECT_EQ(CommandState::kDelivered, command.state);
    EXPECT_EQ(5U, command.scripts);
    EXPECT_EQ((std::vector<std::string>{"a", "b"}), command.unreported);
    EXPECT_EQ(4321, command.submitter.pid);
    EXPECT_EQ(64U, command.sha256.size());
    EXPECT_EQ(document, delivered_.at(0)) << "not a byte differs";

    EXPECT_EQ(SubmitStatus::kKnown, Submit(document));
    const SubmitOutcome conflict = commands_->Submit(document + " ", kPeer);
    EXPECT_EQ(SubmitStatus::kConflict, conflict.status);
    EXPECT_THAT(conflict.detail, HasSubstr("\"c\""));
    EXPECT_EQ(SubmitStatus::kUnacceptable, Submit(Document("a/b")));
    EXPECT_EQ(SubmitStatus::kUnacceptable, Submit("no json"));
    EXPECT_EQ(1U, delivered_.size());
    EXPECT_EQ(1, counters_.commands_taken.Value());
    EXPECT_EQ(2, counters_.refused_at_admission.Value());
}

TEST_F(CommandServiceTest, TheAnswerTellsWhatCameOfIt) {
    EXPECT_EQ(CommandState::kReported, commands_->Submit(Document("zip", Script("z", "zip")), kPeer).command->state)
        << "nothing of it has a result";
    plugin_ = [this](const std::string&) {
        Report(R"({"ID":"full","msg_type":"4","data_type":"x"})");
        return kBusOk;
    };
    const auto expect_refused = [this](const std::string& document, const char* reason) {
        const SubmitOutcome outcome = commands_->Submit(document, kPeer);
        EXPECT_EQ(SubmitStatus::kTaken, outcome.status);
        EXPECT_EQ(CommandState::kRefused, outcome.command->state);
        EXPECT_THAT(outcome.command->reason, HasSubstr(reason));
        EXPECT_TRUE(outcome.command->unreported.empty()) << "no result is to come";
        return outcome.command->expected;
    };
    expect_refused(Document("full"), "too many");
    // A refusal that the plugin's own answer does not name, since its text is cut.
    PluginSays(kBusOk);
    EXPECT_EQ(0U, expect_refused(Document("unreadable", Script("a"), std::string(300, 'x')), "\"Command\""));
    expect_refused(Document("untrusted", Script("a", "sh", "01100000ff")), "; script 1: bad signature: ");
    PluginSays(kBusReceiverFailed);
    expect_refused(Document("failed"), "");
    EXPECT_EQ(4, counters_.refused_by_plugin.Value());
    EXPECT_EQ(5, counters_.commands_taken.Value());

    PluginSays(kBusTimedOut);
    const SubmitOutcome outcome = commands_->Submit(Document("late"), kPeer);
    EXPECT_EQ(SubmitStatus::kNotAcknowledged, outcome.status);
    EXPECT_EQ(CommandState::kDelivered, outcome.command->state) << "it may run, so it stays";
    for (int i = 0; i < 2; ++i) {
        Report(R"({"ID":"late","msg_type":"4","data_type":"x"})");
        EXPECT_EQ(CommandState::kRefused, StateOf("late"));
        EXPECT_EQ(5, counters_.refused_by_plugin.Value()) << "a late refusal counts, and counts once";
    }
    EXPECT_EQ(6, counters_.commands_taken.Value());
}

TEST_F(CommandServiceTest, AStoreThatCannotBeWrittenTakesNoCommand) {
    std::unique_ptr<SQLite::Database> lock = Lock();
    EXPECT_EQ(SubmitStatus::kStorageFailed, Submit(Document("c")));
    EXPECT_TRUE(delivered_.empty());
    lock.reset();
    // It fails just when the plugin has not taken the command: neither told as known nor delivered later.
    int result = kBusQueueFull;
    plugin_ = [&](const std::string&) {
        lock = Lock();
        return result;
    };
    EXPECT_EQ(SubmitStatus::kStorageFailed, Submit(Document("c")));
    lock.reset();
    const auto locks = std::exchange(plugin_, [](const std::string&) { return kBusOk; });
    EXPECT_EQ(SubmitStatus::kTaken, Submit(Document("c")));
    EXPECT_EQ(SubmitStatus::kKnown, Submit(Document("c"))) << "it is withdrawn once";

    // It fails between the two steps of the journal.
    SQLite::Database other(options_.path.string(), SQLite::OPEN_READWRITE);
    other.exec("CREATE TRIGGER deny BEFORE UPDATE OF state ON commands BEGIN SELECT RAISE(ABORT, 'denied'); END");
    EXPECT_EQ(SubmitStatus::kStorageFailed, Submit(Document("half")));
    EXPECT_FALSE(store_->FindCommand("half").has_value()) << "told as failed, so never delivered";
    other.exec("DROP TRIGGER deny");

    // It fails when the plugin has it: the command is taken, and ends like any other.
    result = kBusOk;
    plugin_ = locks;
    EXPECT_EQ(SubmitStatus::kTaken, Submit(Document("d", Script("z", "zip"))));
    lock.reset();
    commands_->InterruptAll("stopped");
    EXPECT_EQ(CommandState::kInterrupted, StateOf("d"));
}

TEST_F(CommandServiceTest, SubmissionsOfOneIdFollowEachOther) {
    Gate gate;
    plugin_ = [&](const std::string&) {
        EXPECT_TRUE(gate.Pass());
        return kBusUndelivered;
    };
    const auto submit = [&] { EXPECT_EQ(SubmitStatus::kNotRunning, Submit(Document("c"))) << "it was taken back"; };
    std::thread first(submit);
    EXPECT_TRUE(gate.reached.Wait());
    std::thread second(submit);
    gate.open.Set();
    first.join();
    second.join();
    EXPECT_EQ(2U, delivered_.size());
    PluginSays(kBusQueueFull);
    EXPECT_EQ(SubmitStatus::kBusy, Submit(Document("c")));
    EXPECT_FALSE(store_->FindCommand("c").has_value());
    PluginSays(kBusOk);
    EXPECT_EQ(SubmitStatus::kTaken, Submit(Document("c"))) << "what never reached the plugin can be sent again";
}

TEST_F(CommandServiceTest, ARestartNeverDeliversTwiceAndLeavesNoCommandWithoutAWord) {
    Submit(Document("running", Script("a") + "," + Script("b")));
    Report(ResultText("running", RunText("a", "t", "")));
    Submit(Document("done"));
    Report(ResultText("done", RunText("a", "t", "")));
    Journal("journalled");
    Submit(Document("late", Script("f"), "RunScriptFile"));

    Restart();
    delivered_.clear();
    commands_->LoadOrphans();
    // A result file of the time before is found while the stock is taken.
    Report(ResultText("late", RunText("f", "t", "")));
    auto lock = Lock();
    commands_->RetryPending();
    EXPECT_EQ(CommandState::kDelivered, StateOf("running")) << "nothing could be written";
    EXPECT_TRUE(delivered_.empty());
    lock.reset();
    Submit(Document("new"));
    commands_->RetryPending();
    EXPECT_EQ(CommandState::kInterrupted, StateOf("running"));
    EXPECT_EQ(Names{"b"}, Find("running").unreported);
    EXPECT_EQ(CommandState::kReported, StateOf("done"));
    EXPECT_EQ(CommandState::kReported, StateOf("late"));
    EXPECT_EQ(CommandState::kDelivered, StateOf("journalled"));
    EXPECT_EQ(CommandState::kDelivered, StateOf("new")) << "it is of this process";
    EXPECT_EQ((std::vector<std::string>{Document("new"), Document("journalled")}), delivered_);
    EXPECT_EQ(1U, AgentReports("running"));
    EXPECT_EQ(1, counters_.runs_interrupted.Value());

    commands_->RetryPending();
    EXPECT_EQ(2U, delivered_.size());
    commands_->InterruptAll("stopped");
    EXPECT_EQ(CommandState::kInterrupted, StateOf("new"));
    EXPECT_EQ(1U, AgentReports("new"));
    EXPECT_EQ(1U, AgentReports("running"));
    EXPECT_EQ(0U, AgentReports("done"));
}

TEST_F(CommandServiceTest, ACommandWhoseReportsAreLostGetsItsFinalWord) {
    Submit(Document("c", Script("a") + "," + Script("a") + "," + Script("b")));
    Submit(Document("refused"));
    const auto lose = [this](const std::string& id, const std::string& runs) {
        commands_->ReportLost(ReadReport(ResultText(id, runs)));
        commands_->RetryPending();
    };
    lose("nobody's", "");
    lose("c", RunText("a", "1", ""));
    Report(ResultText("c", RunText("b", "1", "")));
    commands_->RetryPending();
    EXPECT_EQ(CommandState::kDelivered, StateOf("c")) << "the other run of \"a\" is to be heard of";
    lose("c", RunText("a", "2", ""));
    EXPECT_EQ(CommandState::kInterrupted, StateOf("c"));
    EXPECT_THAT(store_->FindCommand("c")->reason, HasSubstr("a report was lost"));
    EXPECT_EQ((Names{"a", "a"}), Find("c").unreported);

    auto lock = Lock();
    commands_->ReportLost(ReadReport(R"({"ID":"refused","msg_type":"4"})"));
    commands_->RetryPending();
    lock.reset();
    commands_->RetryPending();
    EXPECT_EQ(CommandState::kRefused, StateOf("refused"));
}

TEST_F(CommandServiceTest, AJournalledCommandThatCannotBeDeliveredWaits) {
    Journal("z");
    Journal("c");
    for (const int status : {kBusUndelivered, kBusNotAttached, kBusQueueFull, kBusOk}) {
        delivered_.clear();
        PluginSays(status);
        commands_->RetryPending();
        EXPECT_EQ(status == kBusOk ? CommandState::kDelivered : CommandState::kReceived, StateOf("c")) << status;
        EXPECT_EQ((std::vector<std::string>{Document("z"), Document("c")}), delivered_) << "in order of arrival";
    }
}

// The store may have been written by others, or the machine is another than when the command came.
TEST_F(CommandServiceTest, AJournalledCommandIsAdmittedAgainBeforeItIsDelivered) {
    const std::string placed = R"({"scriptpath":"/opt/x",)" + Script("a").substr(1);
    Journal("id", Document("i/d"));
    Journal("path", Document("path", placed));
    directory_fault_ = "leads elsewhere";
    EXPECT_EQ(SubmitStatus::kUnacceptable, Submit(Document("new", placed)));
    commands_->RetryPending();
    EXPECT_TRUE(delivered_.empty());
    EXPECT_EQ(CommandState::kRefused, StateOf("id"));
    EXPECT_THAT(store_->FindCommand("path")->reason, HasSubstr("\"scriptpath\" leads elsewhere"));
    directory_fault_.reset();
    EXPECT_EQ(SubmitStatus::kTaken, Submit(Document("new", placed)));
}

}  // namespace
}  // namespace qxpagent
