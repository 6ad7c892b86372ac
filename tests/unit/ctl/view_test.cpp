// The commands that show what the agent knows: status, show, results, watch, runonce.

#include "base/time_text.h"
#include "tests/unit/ctl/fake_journal.h"

namespace qxpctl {
namespace {

class ViewTest : public AgentTest {
protected:
    // An agent whose commands change with every poll; the last page is repeated.
    FakeAgent::Handler Changing(std::vector<std::vector<Json>> pages) {
        targets_.clear();
        return [this, pages = std::move(pages)](const FakeAgent::Request& request) {
            if (request.target == "/v1/status") {
                return FakeAgent::Answer(200, FakeJournal::StatusObject(0, sequence_).dump());
            }
            const size_t page = targets_.size();
            targets_.push_back(request.target);
            const std::vector<Json> commands = page < pages.size() ? pages[page] : std::vector<Json>();
            const Json answer = {{"commands", commands}, {"sequence", 20 + std::min(page, pages.size())}};
            return FakeAgent::Answer(200, answer.dump());
        };
    }
    std::vector<std::string> targets_;
    uint64_t sequence_ = 10;  // what its status tells
};

TEST_F(ViewTest, StatusShowsProblemsAndTellsThemByItsExitCode) {
    Json status = FakeJournal::StatusObject(0, 0);
    Json health = {{"status", "ok"}};
    const auto agent = Saying(status, health);
    EXPECT_THAT(Run(agent, {"status"}),
                Ends(0, _, AllOf(Has("up for 1 min", "3 reported", "started", "ok"), Not(HasSubstr("\033")))));
    health = {{"status", "failing"}, {"problems", {"no\nplugin"}}};
    status["plugin_status"] = 1;
    status["store"]["fault"] = "disk full";
    status["reports"]["oldest_pending"] = "2026-01-01T00:00:00.000Z";
    EXPECT_THAT(
        Run(agent, {"status"}),
        Ends(1, _, Has("failing", "no\\x0aplugin", "initialised", "takes nothing: disk full", "the oldest for")));
    EXPECT_THAT(Run(agent, {"status", "--json"}),
                Ends(1, _, Has(R"("problems":["no\nplugin"])", R"("plugin_status":1)")));
}

TEST_F(ViewTest, ShowTellsEachScriptsResultAndEachReason) {
    Json command = FakeJournal::CommandObject("p", "interrupted", 4);
    command["reason"] = "the agent ended";
    const Json detail = {
        {"command", command},
        {"reports",
         {{{"cursor", 1},
           {"document", ResultDocument("p", {RunEntry("a", "0", "out\033\n"), RunEntry("t", "0", "", "")})}},
          {{"cursor", 2}, {"document", nullptr}, {"text", "junk"}, {"bytes", 2048}},
          {{"cursor", 3}, {"document", Interruption("p", "power cut")}},
          {{"cursor", 4}, {"document", Refusal("p")}}}}};
    std::string target;
    const auto agent = [&](const FakeAgent::Request& request) {
        target = request.target;
        return FakeAgent::Answer(200, detail.dump());
    };
    EXPECT_THAT(Run(agent, {"show", "a b/.."}),
                Ends(0, _,
                     Has("the agent ended", "No result  b", "==> a <== failed in 1 s", "out\033\n",
                         "==> t <== timed out, started", "report 2: of an unknown form, 2.0 KiB",
                         "report 3: interrupted: power cut", "report 4: refused by the plugin",
                         "root, received 2026-11-21 09:21:30")));
    EXPECT_EQ(target, "/v1/commands/a%20b%2F..");
    EXPECT_EQ(Json::parse(Run(agent, {"show", "p", "--json"}).output), detail);

    // An answer that holds some of the reports.
    const auto paging = [&](const FakeAgent::Request& request) {
        Json page = {{"reports", Json::array()}, {"cursor", 9}};
        if (request.target.find("after=4&") != std::string::npos) {
            page["reports"].push_back({{"cursor", 9}, {"bytes", 1}, {"document", {{"msg_type", "4"}}}});
        }
        Json first = detail;
        first["more"] = true;
        return FakeAgent::Answer(200, (request.target.starts_with("/v1/reports?") ? page : first).dump());
    };
    EXPECT_THAT(Run(paging, {"show", "p"}), Ends(0, _, Has("report 3", "report 4", "report 9: refused")));
    EXPECT_EQ(Json::parse(Run(paging, {"show", "p", "--json"}).output)["reports"].size(), 5U);
}

// Two pages of reports, then nothing.
std::string ReportPageAt(const std::string& target) {
    const auto report = [](uint64_t cursor, const Json& acknowledged) {
        Json entry = Json::parse(R"({"id": "p", "source": "file", "file": "p1.json", "bytes": 5, "document": null})");
        entry.update({{"cursor", cursor}, {"acknowledged", acknowledged}});
        return entry;
    };
    Json page = {{"reports", Json::array()}, {"cursor", 5}};
    if (target.find("after=0&") != std::string::npos) {
        page = {{"reports", {report(1, nullptr), report(2, "2026-11-21T09:21:30.123+08:00")}}, {"cursor", 2}};
    }
    if (target.find("after=2&") != std::string::npos) {
        page["reports"].push_back(report(5, nullptr));
    }
    return page.dump();
}

TEST_F(ViewTest, ResultsAreListedOrFetchedAndAcknowledgedOnceTheyAreWritten) {
    const std::string bytes("{\"a\":\"\xFF\"}\0\n", 11);
    std::string acknowledged;
    const auto agent = [&](const FakeAgent::Request& request) {
        targets_.push_back(request.target);
        if (request.method == "POST") {
            acknowledged = request.body;
            return FakeAgent::Answer(200, R"({"acknowledged":2})");
        }
        return FakeAgent::Answer(200, request.target == "/v1/results/42" ? bytes : ReportPageAt(request.target));
    };
    const ToolResult list = Run(agent, {"results", "p", "--pending", "--acknowledge"});
    EXPECT_THAT(list, Ends(0, _, Has("CURSOR", "p1.json")));
    EXPECT_EQ(std::count(list.output.begin(), list.output.end(), '\n'), 4);
    EXPECT_THAT(targets_[0], Has("id=p", "acknowledged=false", "documents=false"));
    EXPECT_EQ(acknowledged, R"({"cursors":[1,5]})");
    acknowledged.clear();
    EXPECT_EQ(Json::parse(Run(agent, {"results", "--json"}).output)["reports"].size(), 3U);
    EXPECT_EQ(Run(agent, {"results", "--acknowledge"}, FullDisk()).code, 5);
    EXPECT_EQ(Run(agent, {"results", "--raw", "42"}).output, bytes);
    EXPECT_THAT(acknowledged, IsEmpty());
    EXPECT_EQ(Run(agent, {"results", "--raw", "42", "--output", directory_ / "r", "--acknowledge"}).code, 0);
    EXPECT_EQ(ReadFile(directory_ / "r"), bytes);
    EXPECT_EQ(acknowledged, R"({"cursors":[42]})");
    EXPECT_EQ(Run(agent, {"results", "--raw", "0"}).code, 2);
    EXPECT_EQ(Run(agent, {"results", "--raw", "x"}).code, 2);
}

TEST_F(ViewTest, WatchFollowsTheNamedCommandsToTheirEnd) {
    const auto command = FakeJournal::CommandObject;
    const auto good = Changing({{command("p", "delivered", 20), command("x", "refused", 20)},
                                {command("p", "delivered", 21)},
                                {command("p", "reported", 22)}});
    // The agent is away for one poll after the first, and comes back with this sequence.
    const auto watch = [&](uint64_t sequence) {
        bool away = true;
        sequence_ = 30;
        return Run(
            [&](const FakeAgent::Request& request) {
                if (targets_.size() != 1 || !std::exchange(away, false)) {
                    return *good(request);
                }
                sequence_ = sequence;
                return std::string();
            },
            {"watch", "p"});
    };
    const ToolResult reported = watch(30);
    EXPECT_THAT(reported, Ends(0, "", HasSubstr("2026-11-21T09:21:30.123+08:00\tp\treported\t1/2\t\n")));
    EXPECT_EQ(std::count(reported.output.begin(), reported.output.end(), '\n'), 3);
    EXPECT_THAT(targets_,
                ElementsAre("/v1/commands?after=0&limit=1000&wait=0", "/v1/commands?after=20&limit=1000&wait=60",
                            "/v1/commands?after=21&limit=1000&wait=60"));
    // An agent with a new store comes back: what it knows is shown from the beginning.
    targets_.clear();
    watch(0);
    EXPECT_EQ(targets_[1], "/v1/commands?after=0&limit=1000&wait=60");
    EXPECT_EQ(Run(Changing({{command("p", "reported", 1), command("q", "refused", 2)}}), {"watch", "p", "q"}).code, 1);
    EXPECT_EQ(Run(Changing({{command("p", "reported", 1)}}), {"watch", "p", "q", "--wait", "0"}).code, 4);
}

TEST_F(ViewTest, WatchOfAllBeginsNowAndEndsByCtrlC) {
    const auto changing = Changing({{}, {FakeJournal::CommandObject("p", "received", 21)}});
    const ToolResult result = Run(
        [&](const FakeAgent::Request& request) -> std::optional<std::string> {
            if (targets_.size() < 2) {
                return changing(request);
            }
            EXPECT_EQ(kill(getpid(), SIGINT), 0);
            return std::nullopt;
        },
        {"watch", "--json"});
    EXPECT_EQ(result.code, 130);
    EXPECT_THAT(targets_[0], HasSubstr("after=10&"));
    EXPECT_EQ(Json::parse(result.output)["id"], "p");
}

TEST_F(ViewTest, WatchOnATerminalDrawsOneTableOverAndOver) {
    if (access("/dev/ptmx", R_OK | W_OK) != 0 || access("/dev/pts/ptmx", F_OK) != 0) {
        GTEST_SKIP() << "no pseudo-terminals here: is /dev/pts mounted?";
    }
    const auto command = FakeJournal::CommandObject;
    const FakeAgent agent(Socket(), Changing({{command("p", "delivered", 20), command("q\033[2J", "reported", 20)},
                                              {command("p", "reported", 21)}}));
    const ToolResult result = RunToolOnTerminal({"watch", "p", "q\033[2J"});
    EXPECT_EQ(result.code, 0);
    // The second table takes the place of the first: headings and two commands.
    const size_t second = result.output.find("\033[3A\r\033[J");
    ASSERT_NE(second, std::string::npos) << result.output;
    EXPECT_THAT(result.output.substr(0, second), HasSubstr("delivered"));
    EXPECT_THAT(result.output.substr(second), AllOf(Not(HasSubstr("delivered")), HasSubstr("q\\x1b[2J")));
}

TEST_F(ViewTest, RunOnceTellsWhetherThePolicyWasAccepted) {
    std::string body;
    bool accepted = true;
    Json status = FakeJournal::StatusObject(0, 0);
    status["process_directory"] = directory_.Path();
    const auto agent = [&](const FakeAgent::Request& request) {
        if (request.target == "/v1/status") {
            return FakeAgent::Answer(200, status.dump());
        }
        body = request.body;
        return FakeAgent::Answer(200, Json{{"name", "n.json"}, {"accepted", accepted}}.dump());
    };
    EXPECT_EQ(Run(agent, {"runonce", "n.json"}).code, 0);
    EXPECT_EQ(body, R"({"name":"n.json"})");
    accepted = false;
    EXPECT_THAT(Run(agent, {"runonce", "n.json"}), Ends(1, HasSubstr("no such file in " + directory_.Path().string())));
    directory_.Write("n.json", "{}");
    EXPECT_THAT(Run(agent, {"runonce", "n.json"}).remarks, HasSubstr("refuses it"));
    EXPECT_EQ(Run(agent, {"runonce", "n.json", "--json"}).output, "{\"name\":\"n.json\",\"accepted\":false}\n");
}

TEST(TimeTextTest, ReadsWhatTheAgentWritesAndNothingElse) {
    const auto seconds = [](const std::string& text) {
        const auto time = qxpbase::ParseTime(text);
        return time ? std::chrono::system_clock::to_time_t(*time) : -1;
    };
    EXPECT_EQ(seconds("1970-01-02T00:00:00Z"), 86400);
    EXPECT_EQ(seconds("1970-01-02T08:00:00.999+08:00"), 86400);
    EXPECT_EQ(seconds("1970-01-01T20:30:00.1-03:30"), 86400);
    for (const char* const text : {"", "1970-01-02", "1970-01-02T00:00:00", "1970-01-02T00:00:00x+08:00",
                                   "1970-01-02T00:00:00+8", "1970-13-02T00:00:00Z", "soon"}) {
        EXPECT_EQ(seconds(text), -1) << text;
    }
    EXPECT_EQ(qxpbase::DurationText(std::chrono::seconds(90061)), "1 d 1 h");
    EXPECT_EQ(qxpbase::DurationText(std::chrono::seconds(86405)), "1 d");
    EXPECT_EQ(qxpbase::DurationText(std::chrono::seconds(-1)), "0 s");
}

}  // namespace
}  // namespace qxpctl
