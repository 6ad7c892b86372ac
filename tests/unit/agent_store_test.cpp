#include "agent/store.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "agent/startup_error.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/agent_test_support.h"

namespace qxpagent {
namespace {

using std::chrono::hours;

Report ReportOf(const std::string& id, const std::string& text = "{}") {
    Report report;
    report.id = id;
    report.text = text;
    report.received = std::chrono::system_clock::now();
    return report;
}

uint64_t StoreReport(Store& store, const Report& report, const ReportContent& content) {
    return store.Append(report, report.text, content);
}

std::string RunText(const std::string& script, const std::string& start, const std::string& file) {
    return R"({"scriptid":")" + script + R"(","run_starttime":")" + start + R"(","filepath":")" + file +
           R"(","run_result":"1","run_outdata":"abc","run_endtime":"x","run_runningtime":"2"})";
}

std::string ResultText(const std::string& id, const std::string& runs) {
    return R"({"ID":")" + id + R"(","msg_type":"1","data":{"result":[)" + runs + "]}}";
}

class StoreTest : public testing::Test {
protected:
    StoreTest() { Open(); }

    void Open() {
        store_.reset();
        store_ = std::make_unique<Store>(options_);
    }
    static NewCommand CommandOf(const std::string& id, const std::vector<std::string>& expected = {"a"}) {
        NewCommand command;
        command.id = id;
        command.command = "RunScriptNormal";
        command.text = "document of " + id;
        command.sha256 = "sha of " + command.text;
        command.refusal_reason = "too many";
        command.scripts = static_cast<uint32_t>(expected.size());
        command.expected = expected;
        command.submitter = {7, 8, 9, "operator"};
        command.received = std::chrono::system_clock::now();
        return command;
    }
    CommandRecord Deliver(const std::string& id, const std::vector<std::string>& expected = {"a"}) {
        CommandRecord record;
        EXPECT_EQ(Admission::kNew, store_->Admit(CommandOf(id, expected), record));
        EXPECT_TRUE(store_->MarkDelivered(id));
        return record;
    }
    uint64_t Append(const std::string& text) {
        const ReportContent content = ReadReport(text);
        return StoreReport(*store_, ReportOf(content.id, text), content);
    }
    CommandRecord Find(const std::string& id) { return store_->FindCommand(id).value_or(CommandRecord()); }
    std::vector<uint64_t> Cursors(const ReportQuery& query = {}) {
        std::vector<uint64_t> cursors;
        for (const Report& report : store_->ListReports(query)) {
            cursors.push_back(report.cursor);
        }
        return cursors;
    }
    std::vector<std::string> Changed(uint64_t after) {
        std::vector<std::string> ids;
        for (const CommandRecord& record : store_->ListCommands({.after = after})) {
            ids.push_back(record.id);
        }
        return ids;
    }

    using List = std::vector<uint64_t>;
    using Names = std::vector<std::string>;

    const TempDir directory_;
    StoreOptions options_{.path = directory_.Path() / "agent.db", .busy = std::chrono::milliseconds(20)};
    std::unique_ptr<Store> store_;
};

TEST_F(StoreTest, WhatWasReturnedIsThereAfterAReopening) {
    struct stat status {};
    ASSERT_EQ(0, stat(options_.path.c_str(), &status));
    EXPECT_EQ(0600U, status.st_mode & 07777U);

    Deliver("c1", {"a", "b"});
    const std::string text("not \0 json \xff", 12);
    Report report = ReportOf("c1", text);
    report.json_data_type = 2;
    report.value = -5;
    EXPECT_EQ(1U, store_->Append(report, report.text, ReadReport(text)));
    EXPECT_EQ(2U, Append(ResultText("c1", RunText("b", "t", "f"))));
    EXPECT_EQ(1U, store_->Acknowledge({1, 1, 77}));
    Open();

    const CommandRecord record = Find("c1");
    EXPECT_EQ(CommandState::kDelivered, record.state);
    EXPECT_EQ(Names{"a"}, record.unreported);
    EXPECT_EQ(2U, record.expected);
    EXPECT_EQ("operator", record.submitter.user);
    EXPECT_EQ(9, record.submitter.pid);
    EXPECT_TRUE(record.delivered.has_value());
    EXPECT_FALSE(record.finished.has_value());
    const std::optional<Report> found = store_->FindReport(1);
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(text, found->text);
    EXPECT_EQ(12U, found->bytes);
    EXPECT_EQ(-5, found->value);
    EXPECT_TRUE(found->acknowledged.has_value());
    EXPECT_EQ(List{2}, Cursors({.acknowledged = false}));
    EXPECT_EQ(List{1}, Cursors({.acknowledged = true}));
    const StoreFigures figures = store_->Figures();
    EXPECT_EQ(2U, figures.reports);
    EXPECT_EQ(1U, figures.reports_pending);
    EXPECT_EQ(2U, figures.last_cursor);
    EXPECT_EQ(1U, figures.states.at(CommandState::kDelivered));
    EXPECT_EQ(1U, store_->ScriptsWaiting());
    EXPECT_EQ(12 + store_->FindReport(2)->bytes + CommandOf("c1").text.size(), figures.bytes);
    EXPECT_TRUE(figures.oldest_pending.has_value());
}

TEST_F(StoreTest, ACommandIsAdmittedOnceAndEndsOnce) {
    CommandRecord record;
    EXPECT_EQ(Admission::kNew, store_->Admit(CommandOf("c"), record));
    EXPECT_EQ(CommandState::kReceived, record.state);
    EXPECT_EQ("document of c", store_->CommandText("c"));
    EXPECT_EQ(Admission::kKnown, store_->Admit(CommandOf("c"), record));
    NewCommand other = CommandOf("c");
    other.sha256 = "another";
    EXPECT_EQ(Admission::kConflict, store_->Admit(other, record));

    uint64_t sequence = record.sequence;
    const auto grows = [&] { return std::exchange(sequence, Find("c").sequence) < sequence; };
    EXPECT_TRUE(store_->MarkDelivered("c"));
    EXPECT_TRUE(grows());
    EXPECT_FALSE(store_->MarkDelivered("c")) << "never twice";
    store_->MarkReceived("c");
    EXPECT_TRUE(grows());
    EXPECT_FALSE(Find("c").delivered.has_value());
    EXPECT_FALSE(store_->Interrupt("c", "x").has_value()) << "it was not delivered";
    EXPECT_TRUE(store_->MarkDelivered("c"));
    EXPECT_EQ(1U, store_->Interrupt("c", "power \"cut\""));
    EXPECT_TRUE(grows());
    EXPECT_FALSE(store_->Interrupt("c", "again").has_value());
    EXPECT_TRUE(grows() || Find("c").sequence == sequence);
    store_->Refuse("c", "late");
    Append(ResultText("c", RunText("a", "t", "f")));
    const CommandRecord ended = Find("c");
    EXPECT_EQ(CommandState::kInterrupted, ended.state);
    EXPECT_EQ("power \"cut\"", ended.reason);
    EXPECT_EQ(Names{"a"}, ended.unreported);
    EXPECT_EQ("", store_->CommandText("c")) << "the document is not kept beyond the end";
    const auto agent_reports = store_->ListReports({.id = "c", .source = ReportSource::kAgent});
    ASSERT_EQ(1U, agent_reports.size());
    EXPECT_EQ(R"({"ID":"c","msg_type":"5","data_type":"CommandInterrupted",)"
              R"("data":{"reason":"power \"cut\"","unreported":["a"]}})",
              agent_reports[0].text);

    Deliver("gone");
    store_->TakeBack("gone");
    EXPECT_FALSE(store_->FindCommand("gone").has_value());
    EXPECT_EQ(Admission::kNew, store_->Admit(CommandOf("gone"), record)) << "as if it had never been there";
    store_->TakeBack("c");
    EXPECT_TRUE(store_->FindCommand("c").has_value()) << "a final word is never taken back";
}

TEST_F(StoreTest, ResultsAreCountedOnceEachAndEqualScriptIdsSeparately) {
    Deliver("c", {"a", "a", "b"});
    Append(ResultText("c", RunText("a", "t1", "f1") + "," + RunText("stranger", "t1", "f9")));
    EXPECT_EQ((Names{"a", "b"}), Find("c").unreported);
    const uint64_t sequence = Find("c").sequence;
    Append(ResultText("c", RunText("a", "t1", "f1")));
    EXPECT_EQ((Names{"a", "b"}), Find("c").unreported) << "the same run again";
    EXPECT_EQ(sequence, Find("c").sequence) << "and that is no change";
    Append(ResultText("c", RunText("a", "t1", "f2")));
    EXPECT_EQ(Names{"b"}, Find("c").unreported) << "another run of the same second";
    Append(ResultText("other", RunText("b", "t1", "f3")));
    EXPECT_EQ(CommandState::kDelivered, Find("c").state);
    Append(ResultText("c", RunText("b", "t1", "f3")));
    EXPECT_EQ(CommandState::kReported, Find("c").state);
    EXPECT_TRUE(Find("c").finished.has_value());
    EXPECT_EQ(Names{}, Find("c").unreported);
    EXPECT_EQ(5U, Cursors().size()) << "every report is kept, counted or not";

    Deliver("r");
    Append(R"({"ID":"r","msg_type":"4","data_type":"RunScriptNormal"})");
    EXPECT_EQ(CommandState::kRefused, Find("r").state);
    EXPECT_EQ("too many", Find("r").reason);

    Deliver("nothing to run", {});
    EXPECT_EQ(CommandState::kDelivered, Find("nothing to run").state);
    store_->FinishIfReported("nothing to run");
    EXPECT_EQ(CommandState::kReported, Find("nothing to run").state);
}

TEST_F(StoreTest, AStateOfAFileIsStoredOnce) {
    Deliver("c", {"a", "b"});
    const std::string text = ResultText("c", RunText("a", "t", "f"));
    const ReportContent content = ReadReport(text);
    Report report = ReportOf("c", text);
    report.source = ReportSource::kFile;
    report.file = "c1.json";
    const FileMark mark{"c1.json", 5, text.size(), "sha"};
    EXPECT_EQ(1U, store_->Append(report, report.text, content, mark));
    EXPECT_EQ(0U, store_->Append(report, report.text, content, mark));
    EXPECT_EQ(2U, store_->Append(report, report.text, content, FileMark{"c1.json", 6, text.size(), "sha"}));
    EXPECT_EQ(3U, store_->Append(report, report.text, content, FileMark{"c1.json", 5, text.size(), "other"}));
    EXPECT_EQ(Names{"b"}, Find("c").unreported) << "the run counts once";
    EXPECT_EQ("c1.json", store_->ListReports({.source = ReportSource::kFile}).at(0).file);
    EXPECT_TRUE(store_->HasFile("c1.json", 6, text.size()));
    EXPECT_FALSE(store_->HasFile("c1.json", 7, text.size()));

    const WallTime later = std::chrono::system_clock::now() + hours(1);
    store_->ForgetFiles(later, {"c1.json"});
    EXPECT_TRUE(store_->HasFile("c1.json", 6, text.size()));
    store_->ForgetFiles(later, {});
    EXPECT_FALSE(store_->HasFile("c1.json", 6, text.size()));
}

TEST_F(StoreTest, ListsAreBoundedInNumberAndSize) {
    for (int i = 0; i < 5; ++i) {
        Append(R"({"ID":"small"})");
    }
    EXPECT_EQ((List{3, 4}), Cursors({.after = 2, .limit = 2}));
    EXPECT_EQ(List{}, Cursors({.after = UINT64_MAX}));
    EXPECT_EQ("", store_->ListReports({.with_text = false}).at(0).text);
    const std::string half(Store::kMostBytes / 2, 'x');
    for (int i = 0; i < 3; ++i) {
        StoreReport(*store_, ReportOf("half", half), {});
    }
    EXPECT_EQ(2U, store_->ListReports({.id = "half"}).size());
    EXPECT_EQ(3U, store_->ListReports({.id = "half", .with_text = false}).size());
    StoreReport(*store_, ReportOf("whole", half + half + half), {});
    EXPECT_EQ(1U, store_->ListReports({.id = "whole"}).size()) << "one at least";

    EXPECT_EQ(0U, store_->AcknowledgeUpTo(0));
    EXPECT_EQ(3U, store_->AcknowledgeUpTo(3));
    EXPECT_EQ(6U, store_->AcknowledgeUpTo(UINT64_MAX));

    Deliver("c1");
    const uint64_t sequence = Find("c1").sequence;
    Deliver("c2");
    EXPECT_EQ((Names{"c1", "c2"}), Changed(0));
    EXPECT_EQ(Names{"c2"}, Changed(sequence));
    store_->Interrupt("c1", "x");
    EXPECT_EQ((Names{"c2", "c1"}), Changed(sequence)) << "what changed last comes last";
    EXPECT_EQ(1U, store_->ListCommands({.state = CommandState::kInterrupted}).size());
}

TEST_F(StoreTest, AWaitEndsWithAMatchItsTimeOrTheStop) {
    EXPECT_EQ(List{}, Cursors({.wait = std::chrono::milliseconds(5)}));
    // Each side waits for the other's report: a wake-up that is lost ends the game.
    constexpr int kRounds = 20;
    const auto play = [&](const std::string& mine, const std::string& theirs, bool serves) {
        uint64_t seen = 0;
        for (int round = 0; round < kRounds; ++round) {
            if (serves || round > 0) {
                StoreReport(*store_, ReportOf(mine), {});
            }
            const List answer = Cursors({.id = theirs, .after = seen, .wait = kDeadline});
            ASSERT_EQ(1U, answer.size()) << mine << " in round " << round;
            seen = answer.back();
        }
        StoreReport(*store_, ReportOf(mine), {});
    };
    std::thread other([&] { play("pong", "ping", false); });
    play("ping", "pong", true);
    other.join();

    Happening waiting;
    std::thread commands([&] {
        waiting.Set();
        EXPECT_EQ(1U, store_->ListCommands({.state = CommandState::kDelivered, .wait = kDeadline}).size());
    });
    EXPECT_TRUE(waiting.Wait());
    Deliver("c");
    commands.join();

    std::thread stopped([&] { EXPECT_EQ(List{}, Cursors({.id = "never", .wait = hours(24)})); });
    store_->StopWaiting();
    stopped.join();
    EXPECT_EQ(List{}, Cursors({.id = "never", .wait = hours(24)}));
    EXPECT_EQ(size_t{kRounds} + 1, Cursors({.id = "ping", .wait = hours(24)}).size()) << "what is there can be read";
}

TEST_F(StoreTest, RetentionTakesTheAcknowledgedFirstAndNeverAnOpenCommand) {
    const WallTime now = std::chrono::system_clock::now();
    Deliver("open");
    Deliver("ended");
    store_->Refuse("ended", "x");
    for (int i = 0; i < 4; ++i) {
        StoreReport(*store_, ReportOf("", std::string(1000, 'x')), {});
    }
    store_->Acknowledge({2, 4});
    const uint64_t rest = store_->Bytes() - 4000;

    Removed removed = store_->Retain({.age = hours(1), .bytes = rest + 2500}, now);
    EXPECT_EQ((List{1, 3}), Cursors());
    EXPECT_EQ(2U, removed.reports);
    EXPECT_EQ(0U, removed.unacknowledged);
    removed = store_->Retain({.age = hours(1), .bytes = rest + 1500}, now);
    EXPECT_EQ(List{3}, Cursors());
    EXPECT_EQ(1U, removed.unacknowledged);
    EXPECT_EQ(0U, removed.commands);
    removed = store_->Retain({.age = hours(1)}, now + hours(2));
    EXPECT_EQ(1U, removed.reports);
    EXPECT_EQ(1U, removed.unacknowledged);
    EXPECT_EQ(1U, removed.commands);
    EXPECT_TRUE(store_->FindCommand("open").has_value());
    EXPECT_FALSE(store_->FindCommand("ended").has_value());
    Open();
    EXPECT_EQ(5U, StoreReport(*store_, ReportOf(""), {})) << "a cursor is never used again";
    EXPECT_EQ(5U, store_->Figures().last_cursor);
}

TEST_F(StoreTest, RetentionGivesTheRoomBack) {
    for (int i = 0; i < 1200; ++i) {
        StoreReport(*store_, ReportOf("", std::string(8000, 'x')), {});
    }
    store_->AcknowledgeUpTo(UINT64_MAX);
    const Removed removed = store_->Retain({.bytes = 80000}, std::chrono::system_clock::now());
    EXPECT_EQ(1190U, removed.reports);
    EXPECT_LT(std::filesystem::file_size(options_.path), 400000U);
}

TEST_F(StoreTest, AFullStoreRefusesNewWorkAndKeepsWhatIsThere) {
    store_.reset();
    options_.max_bytes = 300000;
    Open();
    Deliver("c");
    const std::string text = ResultText("c", RunText("a", "t", "f"));
    int stored = 0;
    bool full = false;
    for (; stored < 100 && !full; ++stored) {
        try {
            StoreReport(*store_, ReportOf("", std::string(20000, 'x')), {});
        } catch (const StoreFullError&) {
            full = true;
        }
    }
    ASSERT_TRUE(full);
    EXPECT_EQ(size_t(stored) - 1, Cursors().size());
    NewCommand big = CommandOf("big");
    big.text.assign(100000, 'x');
    CommandRecord record;
    EXPECT_THROW(store_->Admit(big, record), StoreFullError);
    EXPECT_FALSE(store_->FindCommand("big").has_value());
    EXPECT_NE(std::string::npos, store_->Figures().fault.find("no room")) << store_->Figures().fault;
    EXPECT_EQ(CommandState::kDelivered, Find("c").state);
    EXPECT_EQ("document of c", store_->CommandText("c"));

    store_->Retain({.bytes = 100000}, std::chrono::system_clock::now());
    store_->Probe();
    EXPECT_EQ("", store_->Figures().fault);
    EXPECT_NE(0U, Append(text));
    EXPECT_EQ(CommandState::kReported, Find("c").state);
}

TEST_F(StoreTest, ALockedStoreRefusesAndGoesOnAfterwards) {
    Append("{}");
    {
        SQLite::Database other(options_.path.string(), SQLite::OPEN_READWRITE);
        other.exec("BEGIN IMMEDIATE");
        try {
            Append("{}");
            FAIL() << "it is locked";
        } catch (const StoreError& error) {
            EXPECT_NE(std::string::npos, std::string(error.what()).find("locked")) << error.what();
        }
        EXPECT_NE("", store_->Figures().fault);
        EXPECT_EQ(List{1}, Cursors()) << "it can still be read";
        store_->Probe();
        EXPECT_NE("", store_->Figures().fault);
        other.exec("ROLLBACK");
    }
    EXPECT_EQ(2U, Append("{}"));
    EXPECT_EQ("", store_->Figures().fault);
    EXPECT_THROW(Store second(options_), StartupError) << "one agent a store";
    std::thread leaving([&] { store_.reset(); });
    EXPECT_NO_THROW(Store next(options_)) << "one that is about to end is waited for";
    leaving.join();
}

class StoreFileTest : public StoreTest {
protected:
    std::vector<std::string> Aside() {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(directory_.Path())) {
            if (const std::string name = entry.path().filename(); name.find("corrupt-") != std::string::npos) {
                names.push_back(name);
            }
        }
        return names;
    }
    std::string WhyNot() {
        try {
            const Store store(options_);
            return "";
        } catch (const StartupError& error) {
            return error.what();
        }
    }
};

TEST_F(StoreFileTest, ADamagedStoreIsSetAsideWhole) {
    for (int i = 0; i < 50; ++i) {
        Append(ResultText("c", std::string(3000, ' ')));
    }
    store_.reset();
    const std::string good = ReadFile(options_.path);
    struct Damage {
        const char* what;
        size_t from;
        size_t to;
    };
    for (const Damage& damage : {Damage{"no database at all", 0, 100}, Damage{"a page of it", 4096, 8192},
                                 Damage{"pages near its end", good.size() / 4096 / 2 * 4096, good.size()}}) {
        std::string bad = good;
        for (size_t i = damage.from; i < damage.to; ++i) {
            bad[i] = static_cast<char>(i * 31);
        }
        directory_.Write("agent.db", bad);
        const size_t before = Aside().size();
        Open();
        EXPECT_EQ(List{}, Cursors()) << damage.what;
        EXPECT_EQ(1U, Append("{}"));
        store_.reset();
        ASSERT_EQ(before + 1, Aside().size()) << damage.what;
    }
    // Damage that was met while the agent ran: the next start checks all of it, however long that takes.
    std::string bad = good;
    bad.replace(good.size() - 4096, 4096, 4096, '\x5a');
    directory_.Write("agent.db", bad);
    directory_.Write("agent.db.suspect", "");
    options_.check_for = std::chrono::milliseconds(0);
    Open();
    store_.reset();
    EXPECT_EQ(4U, Aside().size());
    EXPECT_FALSE(std::filesystem::exists(directory_.Path() / "agent.db.suspect"));

    bool kept = false;
    for (const std::string& name : Aside()) {
        kept = kept || ReadFile(directory_.Path() / name).size() == good.size();
    }
    EXPECT_TRUE(kept);
}

TEST_F(StoreFileTest, WhatIsNotOursToReplaceIsLeftAlone) {
    store_.reset();
    {
        SQLite::Database newer(options_.path.string(), SQLite::OPEN_READWRITE);
        newer.exec("PRAGMA user_version=99");
    }
    EXPECT_NE(std::string::npos, WhyNot().find("newer")) << WhyNot();
    options_.path = directory_.Path() / "other.db";
    {
        SQLite::Database foreign(options_.path.string(), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
        foreign.exec("CREATE TABLE t(x)");
    }
    const std::string content = ReadFile(options_.path);
    EXPECT_NE(std::string::npos, WhyNot().find("another program")) << WhyNot();
    EXPECT_EQ(content, ReadFile(options_.path)) << "not a byte of it is changed";
    options_.path = directory_.Path() / "nowhere" / "agent.db";
    EXPECT_NE(std::string::npos, WhyNot().find("--store")) << WhyNot();
    options_.path = directory_.Path() / "directory.db";
    std::filesystem::create_directory(options_.path);
    EXPECT_NE("", WhyNot());
    EXPECT_EQ(Names{}, Aside());
}

}  // namespace
}  // namespace qxpagent
