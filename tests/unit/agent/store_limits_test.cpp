// What the store does about its limits: retention, no room, a lock of another process; a file damaged, or not ours.
#include <gmock/gmock.h>

#include <thread>

#include "base/startup_error.h"
#include "tests/unit/agent/store_fixture.h"

namespace qxpagent {
namespace {

using std::chrono::hours;
using testing::FieldsAre;

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
    EXPECT_THAT(store_->Figures().fault, testing::HasSubstr("no room"));
    EXPECT_EQ(CommandState::kDelivered, Find("c").state);
    EXPECT_EQ("document of c", store_->CommandText("c"));

    store_->Retain({.bytes = 100000}, std::chrono::system_clock::now());
    store_->Probe();
    EXPECT_EQ("", store_->Figures().fault);
    EXPECT_NE(0U, Append(ResultText("c", RunText("a", "t", "f"))));
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

class StoreFileTest : public StoreTest {
protected:
    // The sizes of the files that were set aside.
    List Aside() const {
        List sizes;
        for (const auto& entry : std::filesystem::directory_iterator(directory_.Path())) {
            if (entry.path().string().find("corrupt-") != std::string::npos) {
                sizes.push_back(entry.file_size());
            }
        }
        return sizes;
    }
    void AppendMany() {
        for (int i = 0; i < 50; ++i) {
            Append(ResultText("c", std::string(3000, ' ')));
        }
    }
    void ExpectRefusal(const char* why) const {
        EXPECT_THAT([this] { Store{options_}; },
                    testing::ThrowsMessage<qxpbase::StartupError>(testing::HasSubstr(why)));
    }
};

TEST_F(StoreFileTest, ADamagedStoreIsSetAsideWhole) {
    AppendMany();
    store_.reset();
    const std::string good = ReadFile(options_.path);
    List aside;
    // No database at all, a page of it, pages near its end.
    for (const auto& [from, to] :
         {std::pair<size_t, size_t>{0, 100}, {4096, 8192}, {good.size() / 4096 / 2 * 4096, good.size()}}) {
        std::string bad = good;
        for (size_t i = from; i < to; ++i) {
            bad[i] = static_cast<char>(i * 31);
        }
        directory_.Write("agent.db", bad);
        Open();
        EXPECT_EQ(List{}, Cursors()) << from;
        EXPECT_EQ(1U, Append("{}"));
        store_.reset();
        aside.push_back(good.size());
        ASSERT_EQ(aside, Aside()) << from;
    }
}

TEST_F(StoreFileTest, DamageThatIsMetMakesTheNextStartCheckAllOfIt) {
    const auto suspect = [&] { return std::filesystem::exists(directory_ / "agent.db.suspect"); };
    StoreReport(*store_, ReportOf("large", std::string(size_t{32} << 20, ' ')), {});
    AppendMany();
    options_.check_for = std::chrono::milliseconds(1);  // far from enough for all of it
    Open();
    {
        std::fstream file(options_.path, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(-8 * 4096, std::ios::end);
        file << std::string(8 * 4096, 'Z');
    }
    EXPECT_THROW(Cursors({.id = "c"}), StoreError);
    EXPECT_TRUE(suspect());
    Open();
    EXPECT_EQ(1U, Aside().size());
    EXPECT_FALSE(suspect());
    directory_.Write("agent.db.suspect", "");
    Open();
    EXPECT_EQ(1U, Aside().size());
    EXPECT_FALSE(suspect()) << "nothing was found";
}

TEST_F(StoreFileTest, WhatIsNotOursToReplaceIsLeftAlone) {
    store_.reset();
    const auto execute = [this](const char* statement) {
        SQLite::Database(options_.path.string(), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE).exec(statement);
    };
    execute("PRAGMA user_version=99");
    ExpectRefusal("newer");
    options_.path = directory_.Path() / "other.db";
    execute("CREATE TABLE t(x)");
    const std::string content = ReadFile(options_.path);
    ExpectRefusal("another program");
    EXPECT_EQ(content, ReadFile(options_.path)) << "not a byte of it is changed";
    options_.path = directory_.Path() / "nowhere" / "agent.db";
    ExpectRefusal("--store");
    options_.path = directory_.Path() / "directory.db";
    std::filesystem::create_directory(options_.path);
    ExpectRefusal("directory.db");
    EXPECT_EQ(List{}, Aside());
}

}  // namespace
}  // namespace qxpagent
