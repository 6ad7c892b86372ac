// drop: a policy file appears where the plugin looks, complete or not at all.

#include <sys/inotify.h>

#include "tests/unit/ctl/fake_journal.h"

namespace qxpctl {
namespace {

class DropTest : public AgentTest {
protected:
    DropTest() { std::filesystem::create_directory(directory_ / "in"); }

    std::string Policy(const std::string& name, const std::string& id) {
        const Json policy = {{"ID", id}, {"Command", "RunScriptNormal"}, {"param", {{"scriptinfo", {Json::object()}}}}};
        return directory_.Write(name, policy.dump());
    }
    std::vector<std::string> Dropped() const { return Names(directory_ / "in"); }
    ToolResult Drop(std::vector<std::string> files) const {
        files.insert(files.begin(), {"drop", "--directory", directory_ / "in"});
        return RunTool(files);
    }
};

TEST_F(DropTest, AFileGetsItsNameOnlyOnceItIsComplete) {
    const std::string policy = Policy("a.json", "a");
    const int watch = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    constexpr uint32_t kChanges = IN_ALL_EVENTS & ~(IN_OPEN | IN_ACCESS | IN_CLOSE_NOWRITE);
    ASSERT_GE(inotify_add_watch(watch, (directory_ / "in").c_str(), kChanges), 0);
    ASSERT_EQ(Drop({policy}).code, 0);
    EXPECT_EQ(ReadFile(directory_ / "in/a.json"), ReadFile(policy));

    // All that the name "a.json" saw was that a file was moved to it.
    std::array<char, 65536> events{};
    const ssize_t length = read(watch, events.data(), events.size());
    close(watch);
    uint32_t of_name = 0;
    for (ssize_t at = 0; at < length;) {
        inotify_event event{};
        memcpy(&event, events.data() + at, sizeof(event));
        const char* const name = events.data() + at + sizeof(event);
        if (event.len > 0 && std::string(name).ends_with(".json")) {
            EXPECT_STREQ(name, "a.json");
            of_name |= event.mask;
        }
        at += static_cast<ssize_t>(sizeof(event) + event.len);
    }
    EXPECT_EQ(of_name, uint32_t{IN_MOVED_TO});
}

TEST_F(DropTest, OneBadFileKeepsAllOut) {
    const std::string good = Policy("good", "good");
    const std::pair<std::string, const char*> cases[] = {
        {directory_.Write("text.json", "not"), "is not a JSON document"},
        {directory_.Write("nul.json", std::string(R"({"ID":"a"})") + '\0'), "NUL byte"},
        {directory_.Write("empty.json", ""), "is empty"},
        {directory_.Write("none.json", R"({"ID":"a","param":{"scriptinfo":[]}})"), "no list of scripts"},
        {Policy("id.json", ""), "no usable \"ID\""},
        {directory_ / "missing.json", "No such file"},
        {Policy("good.json", "other"), "would get the same name"},
    };
    for (const auto& [file, fault] : cases) {
        EXPECT_THAT(Drop({good, file}), Ends(2, Has(file, fault)));
        EXPECT_THAT(Dropped(), IsEmpty()) << fault;
    }
    // A full disk leaves nothing either.
    EXPECT_EQ(RunToolWithFileLimit(10, {"drop", "--directory", directory_ / "in", good}), 5);
    EXPECT_THAT(Dropped(), IsEmpty());
    const ToolResult both = Drop({good, Policy("B.JSON", "b"), "--json"});
    EXPECT_EQ(both.code, 0) << both.remarks;
    EXPECT_EQ(Json::parse(both.output)["dropped"][1]["id"], "b");
    EXPECT_THAT(Dropped(), ElementsAre("B.JSON", "good.json"));
}

TEST_F(DropTest, AWaitingFileIsReplacedOnlyWhenAsked) {
    directory_.Write("in/a.json", "waiting");
    const std::string policy = Policy("a.json", "a");
    EXPECT_EQ(Drop({Policy("b.json", "b"), policy}).code, 2);
    EXPECT_EQ(ReadFile(directory_ / "in/a.json"), "waiting");
    EXPECT_THAT(Dropped(), ElementsAre("a.json"));
    EXPECT_EQ(Drop({"--force", policy}).code, 0);
    EXPECT_EQ(ReadFile(directory_ / "in/a.json"), ReadFile(policy));
}

TEST_F(DropTest, TheAgentIsAskedForTheDirectory) {
    std::filesystem::create_directory(directory_ / "once");
    Json document = FakeJournal::StatusObject(0, 0);
    document["policy_directory"] = directory_ / "in";
    document["process_directory"] = directory_ / "once";
    const Json no_health;
    const auto status = Saying(document, no_health);
    EXPECT_EQ(Run(status, {"drop", Policy("a.json", "a")}).code, 0);
    EXPECT_THAT(Dropped(), ElementsAre("a.json"));
    // A run-once policy has its name for an ID.
    EXPECT_EQ(Run(status, {"drop", "--process", Policy("b.json", "")}).code, 0);
    EXPECT_TRUE(std::filesystem::exists(directory_ / "once/b.json"));
    EXPECT_EQ(RunTool({"drop", "--socket", directory_ / "none", Policy("c.json", "c")}).code, 3);
}

}  // namespace
}  // namespace qxpctl
