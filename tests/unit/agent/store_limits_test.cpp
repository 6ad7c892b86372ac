// What the store does about its limits: retention, no room, a lock of another process.
#include <gmock/gmock.h>

#include <thread>

#include "base/startup_error.h"
#include "tests/unit/agent/store_fixture.h"

namespace qxpagent {
namespace {

using std::chrono::hours;

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

    // How many commands, reports, and of these unacknowledged ones are removed.
    using testing::FieldsAre;
    EXPECT_THAT(store_->Retain({.age = hours(1), .bytes = rest + 2500}, now), FieldsAre(0U, 2U, 0U));
    EXPECT_EQ((List{1, 3}), Cursors());
    EXPECT_THAT(store_->Retain({.age = hours(1), .bytes = rest + 1500}, now), FieldsAre(0U, 1U, 1U));
    EXPECT_EQ(List{3}, Cursors());
    EXPECT_THAT(store_->Retain({.age = hours(1)}, now + hours(2)), FieldsAre(1U, 0U, 0U))
        << "the clock may have jumped, and nobody has acknowledged the report";
    store_->Acknowledge({3});
    EXPECT_THAT(store_->Retain({.age = hours(1)}, now + hours(2)), FieldsAre(0U, 1U, 0U));
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
    const WallTime now = std::chrono::system_clock::now();
    EXPECT_EQ(599U, store_->Retain({.bytes = 601 * 8000}, now).reports);
    EXPECT_EQ(601U, store_->Retain({.age = hours(1)}, now + hours(2)).reports);
    EXPECT_LT(std::filesystem::file_size(options_.path), 400000U);
}

TEST_F(StoreTest, AFullStoreRefusesNewWorkAndKeepsWhatIsThere) {
    options_.max_bytes = 300000;
    Open();
    Deliver("c");
    const std::string text = ResultText("c", RunText("a", "t", "f"));
    size_t stored = 0;
    const auto fill = [&] {
        for (; stored < 100; ++stored) {
            StoreReport(*store_, ReportOf("", std::string(20000, 'x')), {});
        }
    };
    EXPECT_THROW(fill(), StoreFullError);
    EXPECT_EQ(stored, Cursors().size());
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
    auto lock = Lock();
    EXPECT_THAT([&] { Append("{}"); }, testing::ThrowsMessage<StoreError>(testing::HasSubstr("locked")));
    EXPECT_NE("", store_->Figures().fault);
    EXPECT_EQ(List{1}, Cursors()) << "it can still be read";
    store_->Probe();
    EXPECT_NE("", store_->Figures().fault);
    lock.reset();
    EXPECT_EQ(2U, Append("{}"));
    EXPECT_EQ("", store_->Figures().fault);
    EXPECT_THROW(Store second(options_), qxpbase::StartupError) << "one agent a store";
    std::thread leaving([&] { store_.reset(); });
    EXPECT_NO_THROW(Store next(options_)) << "one that is about to end is waited for";
    leaving.join();
}

}  // namespace
}  // namespace qxpagent
