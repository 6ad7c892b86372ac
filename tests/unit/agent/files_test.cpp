#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>

#include "agent/reports/result_collector.h"
#include "agent/service/leftovers.h"
#include "agent/service/maintenance.h"
#include "policy/key_file.h"
#include "policy/trusted_keys.h"
#include "tests/unit/agent/store_fixture.h"

namespace qxpagent {
namespace {

namespace fs = std::filesystem;
using Entries = std::set<std::string>;

class FilesTest : public StoreTest {
protected:
    FilesTest() { fs::create_directories(result_); }

    void Collect(std::chrono::milliseconds start = std::chrono::seconds(3)) {
        const CollectorTimes times{.retry = std::chrono::milliseconds(5), .start = start};
        collector_ = std::make_unique<ResultCollector>(result_, intake_, times);
    }
    static std::string Document(const std::string& id, const std::string& start = "t") {
        return ResultText(id, RunText("a", start, ""));
    }
    void Write(const std::string& name, const std::string& text) const {
        directory_.Write("data/result/" + name, text);
    }
    bool WaitFor(const std::string& id, size_t count = 1) {
        return WaitUntil([&] { return Cursors({.id = id}).size() == count; });
    }
    static void Age(const fs::path& path) {
        const timespec times[] = {{0, UTIME_OMIT}, {time(nullptr) - 8 * 24 * 3600, 7}};
        ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW)) << path;
    }
    static Entries Left(const fs::path& directory) {
        Entries names;
        for (const auto& entry : fs::directory_iterator(directory)) {
            names.insert(entry.path().filename());
        }
        return names;
    }

    const fs::path data_ = directory_.Path() / "data";
    const fs::path result_ = data_ / "result";
    ReportIntake intake_{*store_, counters_, [](const std::string&) { return false; }, [] {}};
    std::unique_ptr<ResultCollector> collector_;
};

TEST_F(FilesTest, ResultFilesAreStoredOnceAsTheyComeAndAtTheStart) {
    Deliver("c");
    Write("c1.json", Document("c"));
    Write("part2.json", R"({"ID":"part",)");
    Write("other.txt", "{}");
    fs::create_directory(result_ / "directory3.json");
    fs::create_symlink(result_ / "c1.json", result_ / "link4.json");
    ASSERT_EQ(0, mkfifo((result_ / "pipe5.json").c_str(), 0600));
    Collect();
    ASSERT_EQ(1U, store_->Figures().reports) << "what was there is stored when it is made";
    const Report first = store_->ListReports({}).at(0);
    EXPECT_EQ(ReportSource::kFile, first.source);
    EXPECT_EQ("c1.json", first.file);
    EXPECT_EQ(Document("c"), first.text);
    EXPECT_EQ(CommandState::kReported, store_->FindCommand("c")->state);

    Write("d2.json", Document("d"));
    EXPECT_TRUE(WaitFor("d"));
    Write("moved.part", Document("e"));
    fs::rename(result_ / "moved.part", result_ / "e3.json");
    EXPECT_TRUE(WaitFor("e"));
    Write("d2.json", Document("d", "later"));
    EXPECT_TRUE(WaitFor("d", 2)) << "the plugin writes over an existing file";
    Write("part2.json", Document("part"));
    EXPECT_TRUE(WaitFor("part"));
    collector_.reset();
    const uint64_t before = store_->Figures().reports;
    Collect();
    EXPECT_EQ(before, store_->Figures().reports) << "nothing is stored again";
    EXPECT_TRUE(fs::exists(result_ / "c1.json")) << "the files stay";
}

TEST_F(FilesTest, AFailingStoreLosesNoFileAndNeitherDoesAStop) {
    Collect();
    auto lock = Lock();
    Write("c1.json", Document("c"));
    EXPECT_TRUE(WaitUntil([&] { return !store_->Figures().fault.empty(); })) << "the collector meets the lock";
    EXPECT_EQ(0U, store_->Figures().reports);
    lock.reset();
    EXPECT_TRUE(WaitFor("c"));
    Write("d2.json", Document("d"));
    collector_->Stop();
    EXPECT_EQ(1U, store_->ListReports({.id = "d"}).size()) << "a stop takes what is there";
}

TEST_F(FilesTest, WhatIsThereAlreadyIsTakenNewestFirstAndHoldsNothingUp) {
    for (int i = 1; i <= 300; ++i) {
        const std::string name = "f" + std::to_string(i) + ".json";
        Write(name, i % 3 == 0 ? "foreign" : Document("f" + std::to_string(i)));
        const timespec times[] = {{0, UTIME_OMIT}, {i, 0}};
        ASSERT_EQ(0, utimensat(AT_FDCWD, (result_ / name).c_str(), times, 0));
    }
    Collect(std::chrono::milliseconds(0));
    Write("new1.json", Document("new"));
    EXPECT_TRUE(WaitFor("f1"));
    EXPECT_TRUE(WaitFor("new"));
    collector_.reset();
    std::vector<int> order;
    for (const Report& report : store_->ListReports({})) {
        if (report.id != "new") {
            order.push_back(std::stoi(report.id.substr(1)));
        }
    }
    EXPECT_EQ(200U, order.size());
    EXPECT_TRUE(std::is_sorted(order.rbegin(), order.rend()));
    Collect();
    EXPECT_EQ(201U, store_->Figures().reports);
}

TEST_F(FilesTest, ADirectoryThatIsReplacedIsWatchedAgain) {
    fs::remove_all(data_);
    Collect();
    ASSERT_TRUE(fs::exists(result_)) << "it is made if need be";
    fs::remove_all(result_);
    fs::create_directory(directory_.Path() / "new");
    std::ofstream(directory_.Path() / "new" / "c1.json") << Document("c");
    fs::rename(directory_.Path() / "new", result_);
    EXPECT_TRUE(WaitFor("c"));
    Write("d1.json", Document("d"));
    EXPECT_TRUE(WaitFor("d"));
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
    const Places places{.scripts = data_, .results = result_};
    EXPECT_THAT(RemoveLeftovers(*store_, places, before), testing::FieldsAre(1U, 1U, 0U));
    EXPECT_EQ((Entries{"202611210903010002.sh", "202611210903010003.sh", "202611210903010004", "keep.sh", "result"}),
              Left(data_));
    EXPECT_EQ((Entries{"fresh2.json", "kept.json", "unread3.json"}), Left(result_));
    EXPECT_TRUE(fs::exists(victim));
    RemoveLeftovers(*store_, {.scripts = data_ / "none", .results = data_ / "none"}, before);
}

TEST_F(FilesTest, ManyPolicyFilesOfNoUseAreMovedAside) {
    const qxppolicy::Key key = qxppolicy::ReadPrivateKey(QXPMAINT_TEST_SIGNING_KEY);
    qxppolicy::TrustedKeys keys;
    keys.AddKeyFile(directory_.Write("pub.pem", qxppolicy::WriteKeyPair(key).public_pem));
    const Places places{
        .scripts = data_, .results = result_, .policies = data_ / "policyfile", .aside = data_ / "aside"};
    fs::create_directories(places.policies);
    const auto drop = [&](const std::string& name, const std::string& text) {
        std::ofstream(places.policies / name) << text;
        Age(places.policies / name);
    };
    for (size_t i = 0; i < kFewPolicies; ++i) {
        drop("bad" + std::to_string(i) + ".json", i % 2 == 0 ? "{" : R"({"ID":"x","Command":"Nothing"})");
    }
    drop("other.txt", "{");
    EXPECT_EQ(0U, MoveUnusablePolicies(places, keys)) << "the plugin says what is wrong with a few";
    drop("good.json", R"({"ID":"x","Command":"RunScriptFile","param":{"scriptinfo":[)"
                      R"({"scriptid":"a","scripttype":"sh","scriptdata":"ZWNobwo=","sign":")" +
                          qxppolicy::Sign(key, "ZWNobwo=") + "\"}]}}");
    std::ofstream(places.policies / "fresh.json") << "{";
    fs::create_symlink("good.json", places.policies / "link.json");
    EXPECT_EQ(kFewPolicies, MoveUnusablePolicies(places, keys));
    EXPECT_EQ((Entries{"fresh.json", "good.json", "link.json", "other.txt"}), Left(places.policies));
    EXPECT_EQ(kFewPolicies, Left(places.aside).size());
    RemoveLeftovers(*store_, places, std::chrono::system_clock::now() - std::chrono::hours(1));
    EXPECT_TRUE(Left(places.aside).empty());
}

TEST_F(FilesTest, MaintenanceKeepsTheStoreWithinItsLimits) {
    const qxppolicy::TrustedKeys keys;
    CommandService commands(*store_, counters_, keys, nullptr, [](const std::string&, uint32_t) { return 0; });
    Maintenance maintenance(*store_, commands, intake_, counters_, keys, {.bytes = 1000});
    std::ofstream(data_ / "202611210903010001.sh") << "x";
    Age(data_ / "202611210903010001.sh");
    maintenance.Start({.scripts = data_, .results = result_});
    for (int i = 0; i < 10; ++i) {
        StoreReport(*store_, ReportOf("", std::string(400, 'x')), {});
    }
    maintenance.StoreHasGrown();
    EXPECT_TRUE(WaitUntil([&] { return store_->Bytes() <= 1000 && !fs::exists(data_ / "202611210903010001.sh"); }));
    maintenance.Stop();
    EXPECT_EQ(2U, store_->Figures().reports);
    EXPECT_EQ(8, counters_.removed_undelivered.Value());
}

}  // namespace
}  // namespace qxpagent
