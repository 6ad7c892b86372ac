// The store's file: damaged, or not ours.
#include <gmock/gmock.h>

#include "base/startup_error.h"
#include "tests/unit/agent/store_fixture.h"

namespace qxpagent {
namespace {

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
    void ExpectRefusal(const char* why) const {
        EXPECT_THAT([this] { Store{options_}; },
                    testing::ThrowsMessage<qxpbase::StartupError>(testing::HasSubstr(why)));
    }
};

TEST_F(StoreFileTest, ADamagedStoreIsSetAsideWhole) {
    for (int i = 0; i < 50; ++i) {
        Append(ResultText("c", std::string(3000, ' ')));
    }
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
    for (int i = 0; i < 50; ++i) {
        Append(ResultText("c", std::string(3000, ' ')));
    }
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
