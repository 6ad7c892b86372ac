// Commands, reports and files in the store, as they are put in and found again.
#include <gmock/gmock.h>
#include <unistd.h>

#include <future>
#include <thread>

#include "tests/unit/agent/store_fixture.h"

namespace qxpagent {
namespace {

using std::chrono::hours;
using testing::_;
using testing::FieldsAre;

TEST_F(StoreTest, WhatWasReturnedIsThereAfterAReopening) {
    const auto mode = [&] { return std::filesystem::status(options_.path).permissions(); };
    EXPECT_EQ(std::filesystem::perms{0600}, mode());
    std::filesystem::permissions(options_.path, std::filesystem::perms{0644});

    Deliver("c1", {"a", "b"});
    const std::string text("not \0 json \xff", 12);
    Report report = ReportOf("c1", text);
    report.json_data_type = 2;
    report.value = -5;
    EXPECT_EQ(1U, store_->Append(report, report.text, ReadReport(text)).cursor);
    EXPECT_EQ(2U, Append(ResultText("c1", RunText("b", "t", "f"))));
    EXPECT_EQ(1U, store_->Acknowledge({1, 1, 77}));
    Open();

    EXPECT_EQ(std::filesystem::perms{0600}, mode());
    const NewCommand command = CommandOf("c1");
    EXPECT_THAT(Find("c1"), FieldsAre("c1", command.command, _, CommandState::kDelivered, "", 2U, 2U, Names{"a"},
                                      command.text.size(), command.sha256, FieldsAre(7U, 8U, 9, "operator"), _,
                                      testing::Ne(std::nullopt), std::nullopt));
    EXPECT_THAT(store_->FindReport(1), testing::Optional(FieldsAre(1U, "c1", ReportSource::kPlugin, "", _,
                                                                   testing::Ne(std::nullopt), 2U, -5, text, 12U)));
    EXPECT_EQ(List{2}, Cursors({.acknowledged = false}));
    EXPECT_EQ(List{1}, Cursors({.acknowledged = true}));
    EXPECT_THAT(
        store_->Figures(),
        FieldsAre(2U, 1U, 2U, testing::Ne(std::nullopt), 12 + store_->FindReport(2)->bytes + command.text.size(),
                  Find("c1").sequence, testing::Contains(testing::Pair(CommandState::kDelivered, 1U)), ""));
    EXPECT_EQ(1U, store_->ScriptsWithoutResult().unreported);
}

TEST_F(StoreTest, ACommandIsAdmittedOnceAndEndsOnce) {
    CommandRecord record;
    EXPECT_EQ(Admission::kNew, store_->Admit(CommandOf("c"), record));
    EXPECT_EQ(CommandState::kReceived, record.state);
    EXPECT_EQ("document of c", store_->CommandText("c"));
    EXPECT_THAT(store_->ScriptsWithoutResult(), FieldsAre(1U, 0U));

    uint64_t sequence = record.sequence;
    const auto grows = [&] { return std::exchange(sequence, Find("c").sequence) < sequence; };
    EXPECT_TRUE(store_->MarkDelivered("c"));
    EXPECT_TRUE(grows());
    EXPECT_THAT(store_->ScriptsWithoutResult(), FieldsAre(0U, 1U));
    EXPECT_FALSE(store_->MarkDelivered("c")) << "never twice";
    store_->MarkReceived("c");
    EXPECT_TRUE(grows());
    EXPECT_FALSE(Find("c").delivered.has_value());
    EXPECT_FALSE(store_->Interrupt("c", "x").has_value()) << "it was not delivered";
    EXPECT_TRUE(store_->MarkDelivered("c"));
    EXPECT_EQ(1U, store_->Interrupt("c", "power \"cut\""));
    EXPECT_TRUE(grows());
    EXPECT_FALSE(store_->Interrupt("c", "again").has_value());
    store_->Refuse("c", "late");
    Append(ResultText("c", RunText("a", "t", "f")));
    EXPECT_THAT(Find("c"),
                FieldsAre("c", _, _, CommandState::kInterrupted, "power \"cut\"", _, _, Names{"a"}, _, _, _, _, _, _));
    EXPECT_EQ("", store_->CommandText("c")) << "the document is not kept beyond the end";
    EXPECT_THAT(store_->ListReports({.id = "c", .source = ReportSource::kAgent}),
                testing::ElementsAre(testing::Field(&Report::text,
                                                    R"({"ID":"c","msg_type":"5","data_type":"CommandInterrupted",)"
                                                    R"("data":{"reason":"power \"cut\"","unreported":["a"]}})")));

    store_->Withdraw("c");
    EXPECT_TRUE(store_->FindCommand("c").has_value()) << "a final state is never taken back";
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
    Append(ResultText("c", RunText("b", "t1", "f3") + "," + RunText("a", "t1", "f1")));
    EXPECT_EQ(CommandState::kReported, Find("c").state);
    EXPECT_TRUE(Find("c").finished.has_value());
    EXPECT_EQ(Names{}, Find("c").unreported);
    EXPECT_EQ(5U, Cursors().size()) << "every report is kept, counted or not";
}

TEST_F(StoreTest, AStateOfAFileIsStoredOnce) {
    const auto append = [&](int64_t modified, const char* sha256) {
        return store_->Append(ReportOf("c"), "{}", {}, FileMark{"c1.json", modified, 2, sha256}).cursor;
    };
    EXPECT_EQ(1U, append(5, "sha"));
    EXPECT_EQ(0U, append(5, "sha"));
    EXPECT_EQ(2U, append(6, "sha"));
    EXPECT_EQ(3U, append(5, "other"));
    EXPECT_TRUE(store_->HasFile("c1.json", 6, 2));
    EXPECT_FALSE(store_->HasFile("c1.json", 7, 2));
    const WallTime later = std::chrono::system_clock::now() + hours(1);
    store_->ForgetFiles(later, {"c1.json"});
    EXPECT_TRUE(store_->HasFile("c1.json", 6, 2));
    store_->ForgetFiles(later, {});
    EXPECT_FALSE(store_->HasFile("c1.json", 6, 2));
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
    const auto is = [](const char* id) { return testing::Field(&CommandRecord::id, id); };
    EXPECT_THAT(store_->ListCommands({}), testing::ElementsAre(is("c1"), is("c2")));
    EXPECT_THAT(store_->ListCommands({.after = sequence}), testing::ElementsAre(is("c2")));
    store_->Interrupt("c1", "x");
    EXPECT_THAT(store_->ListCommands({.after = sequence}), testing::ElementsAre(is("c2"), is("c1")))
        << "what changed last comes last";
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
            const List answer = Cursors({.id = theirs, .after = seen, .wait = DEADLINE});
            ASSERT_EQ(1U, answer.size()) << mine << " in round " << round;
            seen = answer.back();
        }
        StoreReport(*store_, ReportOf(mine), {});
    };
    std::thread other([&] { play("pong", "ping", false); });
    play("ping", "pong", true);
    other.join();

    const auto wait = [](const auto& query) {
        std::atomic<pid_t> waiter{0};
        auto found = std::async(std::launch::async, [&waiter, query] {
            waiter = gettid();
            return query();
        });
        EXPECT_TRUE(WaitUntil([&] { return ThreadSleeps(waiter); }));
        return found;
    };
    auto delivered =
        wait([&] { return store_->ListCommands({.state = CommandState::kDelivered, .wait = DEADLINE}).size(); });
    Deliver("c");
    EXPECT_EQ(1U, delivered.get());
    auto stopped = wait([&] { return Cursors({.id = "never", .wait = 2 * DEADLINE}); });
    store_->StopWaiting();
    EXPECT_EQ(std::future_status::ready, stopped.wait_for(DEADLINE));
    EXPECT_EQ(List{}, stopped.get());
    EXPECT_EQ(List{}, Cursors({.id = "never", .wait = hours(24)}));
    EXPECT_EQ(size_t{kRounds} + 1, Cursors({.id = "ping", .wait = hours(24)}).size()) << "what is there can be read";
}

}  // namespace
}  // namespace qxpagent
