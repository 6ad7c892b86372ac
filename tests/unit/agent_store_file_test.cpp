// The store's file: damaged, or not ours.
#include <SQLiteCpp/SQLiteCpp.h>

#include <filesystem>
#include <fstream>

#include "agent/startup_error.h"
#include "tests/unit/agent_store_fixture.h"

namespace qxpagent {
namespace {

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
    for (const std::string& name : Aside()) {
        EXPECT_EQ(good.size(), std::filesystem::file_size(directory_ / name)) << name;
    }
}

TEST_F(StoreFileTest, DamageThatIsMetMakesTheNextStartCheckAllOfIt) {
    const auto suspect = [&] { return std::filesystem::exists(directory_ / "agent.db.suspect"); };
    StoreReport(*store_, ReportOf("large", std::string(size_t{32} << 20, ' ')), {});
    for (int i = 0; i < 50; ++i) {
        Append(ResultText("c", std::string(3000, ' ')));
    }
    options_.check_for = std::chrono::milliseconds(0);
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
