#include <SQLiteCpp/SQLiteCpp.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "agent/housekeeping.h"
#include "agent/result_collector.h"
#include "agent/store.h"
#include "agent/upkeep.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/agent_test_support.h"

namespace qxpagent {
namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

class FilesTest : public testing::Test {
protected:
    FilesTest() { fs::create_directories(result_); }

    void Collect() { collector_ = std::make_unique<ResultCollector>(result_, intake_, std::chrono::milliseconds(5)); }
    static std::string Document(const std::string& id, const std::string& start = "t") {
        return R"({"ID":")" + id + R"(","msg_type":"1","data":{"result":[{"scriptid":"a","run_starttime":")" + start +
               "\"}]}}";
    }
    void Write(const std::string& name, const std::string& text) const {
        std::ofstream(result_ / name, std::ios::binary) << text;
    }
    std::vector<Report> WaitFor(const std::string& id, size_t count) {
        std::vector<Report> reports;
        uint64_t after = 0;
        while (reports.size() < count) {
            const auto more = store_.ListReports({.id = id, .after = after, .wait = kDeadline});
            if (more.empty()) {
                break;
            }
            after = more.back().cursor;
            reports.insert(reports.end(), more.begin(), more.end());
        }
        return reports;
    }
    static void Age(const fs::path& path) {
        const timespec times[] = {{0, UTIME_OMIT}, {time(nullptr) - 8 * 24 * 3600, 7}};
        ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW)) << path;
    }
    Names Left(const fs::path& directory) {
        Names names;
        for (const auto& entry : fs::directory_iterator(directory)) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    const TempDir directory_;
    const fs::path data_ = directory_.Path() / "data";
    const fs::path result_ = data_ / "result";
    const fs::path store_path_ = directory_.Path() / "agent.db";
    Store store_{{.path = store_path_, .busy = std::chrono::milliseconds(5)}};
    RunCounters counters_;
    ReportIntake intake_{store_, counters_, [] {}};
    std::unique_ptr<ResultCollector> collector_;
};

TEST_F(FilesTest, ResultFilesAreStoredOnceAsTheyComeAndAtTheStart) {
    NewCommand command;
    command.id = "c";
    command.expected = {"a"};
    CommandRecord record;
    store_.Admit(command, record);
    store_.MarkDelivered("c");
    Write("c1.json", Document("c"));
    Write("part2.json", R"({"ID":"part",)");
    Write("other.txt", "{}");
    fs::create_directory(result_ / "directory3.json");
    fs::create_symlink(result_ / "c1.json", result_ / "link4.json");
    ASSERT_EQ(0, mkfifo((result_ / "pipe5.json").c_str(), 0600));
    Collect();
    ASSERT_EQ(1U, store_.Figures().reports) << "what was there is stored when it is made";
    const Report first = store_.ListReports({}).at(0);
    EXPECT_EQ(ReportSource::kFile, first.source);
    EXPECT_EQ("c1.json", first.file);
    EXPECT_EQ(Document("c"), first.text);
    EXPECT_EQ(CommandState::kReported, store_.FindCommand("c")->state);

    Write("d2.json", Document("d"));
    EXPECT_EQ(1U, WaitFor("d", 1).size());
    Write("moved.part", Document("e"));
    fs::rename(result_ / "moved.part", result_ / "e3.json");
    EXPECT_EQ(1U, WaitFor("e", 1).size());
    Write("d2.json", Document("d", "later"));
    EXPECT_EQ(2U, WaitFor("d", 2).size()) << "the plugin writes over an existing file";
    Write("part2.json", Document("part"));
    EXPECT_EQ(1U, WaitFor("part", 1).size());
    collector_.reset();
    const uint64_t before = store_.Figures().reports;
    Collect();
    EXPECT_EQ(before, store_.Figures().reports) << "nothing is stored again";
    EXPECT_TRUE(fs::exists(result_ / "c1.json")) << "the files stay";
}

TEST_F(FilesTest, AFailingStoreLosesNoFileAndNeitherDoesAStop) {
    Collect();
    {
        SQLite::Database other(store_path_.string(), SQLite::OPEN_READWRITE);
        other.exec("BEGIN IMMEDIATE");
        Write("c1.json", Document("c"));
        while (store_.Figures().fault.empty()) {  // until the collector has met the lock
        }
        EXPECT_EQ(0U, store_.Figures().reports);
    }
    EXPECT_EQ(1U, WaitFor("c", 1).size());
    Write("d2.json", Document("d"));
    collector_->Stop();
    EXPECT_EQ(1U, store_.ListReports({.id = "d"}).size()) << "a stop takes what is there";
}

TEST_F(FilesTest, ADirectoryThatIsReplacedIsWatchedAgain) {
    fs::remove_all(data_);
    Collect();
    ASSERT_TRUE(fs::exists(result_)) << "it is made if need be";
    fs::remove_all(result_);
    fs::create_directory(directory_.Path() / "new");
    std::ofstream(directory_.Path() / "new" / "c1.json") << Document("c");
    fs::rename(directory_.Path() / "new", result_);
    EXPECT_EQ(1U, WaitFor("c", 1).size());
    Write("d1.json", Document("d"));
    EXPECT_EQ(1U, WaitFor("d", 1).size());
}

TEST_F(FilesTest, LeftoversGoOnlyWhenTheyAreOldOursAndStored) {
    for (const char* const name : {"202611210903010001.sh", "20261121090301000a", "20261121090301ffff1.zip"}) {
        EXPECT_TRUE(IsScriptFileName(name)) << name;
    }
    for (const char* const name :
         {"", "20261121090301001.sh", "2026112109030a0001.sh", "20261121090301000A.sh", "202611210903010001.",
          "202611210903010001.sh~", "x202611210903010001.sh", "202611210903010001.a.b", "202611210903010001sh"}) {
        EXPECT_FALSE(IsScriptFileName(name)) << name;
    }
    EXPECT_TRUE(IsResultFileName("c1.json"));
    for (const char* const name : {".json", "1.json", "c.json", "c1.json.1", "c1json"}) {
        EXPECT_FALSE(IsResultFileName(name)) << name;
    }

    const fs::path old_script = data_ / "202611210903010001.sh";
    const fs::path victim = directory_.Path() / "victim";
    for (const fs::path& path : {old_script, data_ / "202611210903010002.sh", data_ / "keep.sh", victim}) {
        std::ofstream(path) << "x";
    }
    fs::create_symlink(victim, data_ / "202611210903010003.sh");
    fs::create_directory(data_ / "202611210903010004");
    Write("stored1.json", Document("s"));
    Write("kept.json", Document("s"));
    Write("fresh2.json", Document("s"));
    Age(result_ / "stored1.json");
    Age(result_ / "kept.json");
    Collect();
    collector_->Stop();
    Write("unread3.json", Document("u"));
    for (const fs::path& path :
         {old_script, data_ / "keep.sh", victim, data_ / "202611210903010003.sh", result_ / "unread3.json"}) {
        Age(path);
    }
    const WallTime before = std::chrono::system_clock::now() - std::chrono::hours(7 * 24);
    const Tidied tidied = RemoveLeftovers(store_, data_, result_, before);
    EXPECT_EQ(1U, tidied.scripts);
    EXPECT_EQ(1U, tidied.results);
    EXPECT_EQ((Names{"202611210903010002.sh", "202611210903010003.sh", "202611210903010004", "keep.sh", "result"}),
              Left(data_));
    EXPECT_EQ((Names{"fresh2.json", "kept.json", "unread3.json"}), Left(result_));
    EXPECT_TRUE(fs::exists(victim));
    RemoveLeftovers(store_, directory_.Path() / "none", directory_.Path() / "none", before);
}

TEST_F(FilesTest, TheUpkeepKeepsTheStoreWithinItsLimits) {
    const qxppolicy::TrustedKeys keys;
    CommandDesk desk(store_, counters_, keys, [](const std::string&) { return 0; });
    Upkeep upkeep(store_, desk, counters_, {.bytes = 1000});
    std::ofstream(data_ / "202611210903010001.sh") << "x";
    Age(data_ / "202611210903010001.sh");
    upkeep.Start({data_, result_});
    for (int i = 0; i < 10; ++i) {
        Report report;
        report.received = std::chrono::system_clock::now();
        report.text.assign(400, 'x');
        store_.Append(report, report.text, {});
    }
    upkeep.StoreHasGrown();
    while (store_.Bytes() > 1000 || fs::exists(data_ / "202611210903010001.sh")) {
        std::this_thread::yield();
    }
    upkeep.Stop();
    EXPECT_EQ(2U, store_.Figures().reports);
    EXPECT_EQ(8U, counters_.Get().removed_undelivered);
}

}  // namespace
}  // namespace qxpagent
