// run: from the signed policy to the last word of its command, over whatever happens to the agent meanwhile.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <future>

#include "tests/support/wait.h"
#include "tests/unit/ctl_fake_journal.h"

namespace qxpctl {
namespace {

using testing::_;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

bool IsReportPoll(const FakeAgent::Request& request) {
    return request.target.starts_with("/v1/reports?");
}

class RunTest : public AgentTest {
protected:
    // Runs one script "a.sh" under the ID "p".
    ToolResult RunOne(const FakeAgent::Handler& handler, const std::vector<std::string>& options = {}) {
        auto arguments = RunCommand({"--id", "p", directory_.Write("a.sh", "x")});
        arguments.insert(arguments.end(), options.begin(), options.end());
        std::filesystem::remove(Socket());
        const FakeAgent agent(Socket(), handler);
        return RunTool(arguments);
    }
    static Json Success(const std::string& output = "out\n") {
        return ResultDocument("p", {RunEntry("a.sh", "1", output)});
    }
};

TEST_F(RunTest, CollectsEveryResultAndCountsFromTheLastCursor) {
    const std::string id = "p &=\xC3\xA9";
    FakeJournal journal(Pages{{ResultDocument(id, {RunEntry("b", "1", "from b\033[31m\n")})},
                              {},
                              {ResultDocument(id, {RunEntry("a", "1", "from a\n")})}});
    const FakeAgent agent(Socket(), std::ref(journal));
    const ToolResult result = RunTool(
        RunCommand({"--id", id, directory_.Write("a", "x") + ",type=sh", directory_.Write("b", "x") + ",type=sh"}));
    EXPECT_EQ(result.code, 0) << result.remarks;
    EXPECT_EQ(result.output, "==> b <==\nfrom b\033[31m\n==> a <==\nfrom a\n");
    EXPECT_THAT(result.remarks, AllOf(HasSubstr("a: succeeded in 1 s\nb: succeeded in 1 s\n2 of 2 scripts succeeded"),
                                      Not(HasSubstr("\r"))));
    const auto requests = agent.Requests();
    ASSERT_GE(requests.size(), 4U);
    EXPECT_EQ(requests[0].target, "/v1/status");
    EXPECT_EQ(requests[1].target, "/v1/commands");
    EXPECT_EQ(Json::parse(requests[1].body)["ID"], id);
    std::vector<std::string> polls;
    for (const auto& request : requests) {
        if (IsReportPoll(request))
            polls.push_back(request.target.substr(0, request.target.find("&limit")) +
                            request.target.substr(request.target.find("&id")));
    }
    EXPECT_THAT(polls, ElementsAre("/v1/reports?after=7&id=p%20%26%3D%C3%A9", "/v1/reports?after=8&id=p%20%26%3D%C3%A9",
                                   "/v1/reports?after=8&id=p%20%26%3D%C3%A9"));
    EXPECT_THAT(journal.acknowledged, ElementsAre(8, 9));
}

TEST_F(RunTest, TheExitCodeTellsHowItEnded) {
    const auto refuse = [](const FakeAgent::Request& request) {
        return request.method == "POST" ? FakeAgent::Answer(422, R"({"detail":"bad signature"})")
                                        : FakeAgent::Answer(200, FakeJournal::StatusObject(0, 0).dump());
    };
    const auto ran = [](const char* result, const char* output, const char* end) {
        return FakeJournal(Pages{{ResultDocument("p", {RunEntry("a.sh", result, output, end)})}});
    };
    const struct {
        FakeAgent::Handler agent;
        std::vector<std::string> options;
        int code;
        testing::Matcher<std::string> output;
        testing::Matcher<std::string> remarks;
    } cases[] = {
        {ran("0", "no marker", "x"), {}, 1, "no marker", HasSubstr("a.sh: failed")},
        {ran("0", "", ""), {"--json"}, 1, HasSubstr(R"("state":"timed out")"), _},
        {ran("1", "\xC3\xA9\033\n", "x"),
         {"--json"},
         0,
         AllOf(HasSubstr(R"("outcome":"succeeded")"), HasSubstr(R"("output":"\u00e9\u001b\n")")),
         _},
        {FakeJournal(Pages{{Success()}}).From("file"), {"--command", "RunScriptFile"}, 0, "out\n", _},
        {FakeJournal(Pages{{Json(), Refusal("p")}}),
         {},
         1,
         "",
         AllOf(HasSubstr("a.sh: refused"), HasSubstr("the policy p was refused: the plugin trusts another key"))},
        // Its state alone tells, without a report.
        {FakeJournal(Pages{{}}).EndingAs("refused", "not there"), {}, 1, "", HasSubstr("p was refused: not there")},
        // The plugin dropped the script: the command is reported without it.
        {FakeJournal(Pages{{}}).EndingAs("reported"), {}, 1, "", HasSubstr("a.sh: not run")},
        {refuse, {"--json"}, 1, HasSubstr(R"("outcome":"refused","reason":"bad signature")"), _},
        {FakeJournal(Pages{{Interruption("p", "power cut")}}),
         {"--json"},
         1,
         HasSubstr(R"("outcome":"interrupted","reason":"power cut")"),
         HasSubstr("p was interrupted: power cut")},
        {FakeJournal(),
         {"--wait", "0"},
         4,
         "",
         AllOf(HasSubstr("no result yet"), HasSubstr("look later with: qxpctl show p"))},
    };
    for (const auto& test : cases) {
        const ToolResult result = RunOne(test.agent, test.options);
        EXPECT_EQ(result.code, test.code) << result.remarks;
        EXPECT_THAT(result.output, test.output);
        EXPECT_THAT(result.remarks, test.remarks);
    }
}

TEST_F(RunTest, APolicyThatTheAgentKnowsShowsTheResultsThatItHas) {
    for (const bool lost : {false, true}) {  // the first answer is lost, and so asked for again with the same text
        FakeJournal journal(Pages{{Success()}});
        journal.Answering(200);
        std::vector<std::string> sent;
        std::string first_poll;
        const ToolResult result = RunOne([&](const FakeAgent::Request& request) {
            if (request.target == "/v1/commands")
                sent.push_back(request.body);
            if (IsReportPoll(request) && first_poll.empty())
                first_poll = request.target;
            return lost && sent.size() == 1 && request.method == "POST" ? std::string() : *journal(request);
        });
        EXPECT_EQ(result.code, 0) << result.remarks;
        EXPECT_EQ(result.output, "out\n");
        EXPECT_EQ(sent, std::vector<std::string>(lost ? 2 : 1, sent.at(0)));
        if (!lost) {
            EXPECT_THAT(result.remarks, HasSubstr("knew this policy already"));
            EXPECT_THAT(first_poll, HasSubstr("after=0&"));
        }
    }
}

TEST_F(RunTest, ReportsAreAcknowledgedOnlyWhenTheyHaveBeenPrinted) {
    for (const char* form : {"--wait=60", "--json"}) {
        FakeJournal journal(Pages{{Success()}});
        EXPECT_THAT(RunOnFullDisk(std::ref(journal), RunCommand({"--id", "p", directory_.Write("a.sh", "x"), form})),
                    HasSubstr("No space left"));
        EXPECT_THAT(journal.acknowledged, IsEmpty());
    }
    FakeJournal kept(Pages{{Success()}});
    EXPECT_EQ(RunOne(std::ref(kept), {"--no-acknowledge"}).code, 0);
    EXPECT_THAT(kept.acknowledged, IsEmpty());
    // An agent that cannot note it does not undo the run.
    FakeJournal journal(Pages{{Success()}});
    const ToolResult unnoted = RunOne([&](const FakeAgent::Request& request) {
        return request.target == "/v1/reports/acknowledge" ? FakeAgent::Answer(507, "{}") : *journal(request);
    });
    EXPECT_EQ(unnoted.code, 0);
    EXPECT_THAT(unnoted.remarks, HasSubstr("the reports stay unacknowledged"));
}

TEST_F(RunTest, ARestartOfTheAgentIsWaitedOutAndNothingIsShownTwice) {
    FakeJournal journal(Pages{{Success()}});
    std::promise<void> polled;
    bool asked = false;
    int polls = 0;
    // The first agent ends during the first poll; its socket stays behind.
    auto agent = std::make_unique<FakeAgent>(Socket(), [&](const FakeAgent::Request& request) {
        if (!IsReportPoll(request))
            return *journal(request);
        if (!std::exchange(asked, true))
            polled.set_value();
        return std::string();
    });
    auto other = std::async(std::launch::async, [&] {
        if (polled.get_future().wait_for(DEADLINE) != std::future_status::ready)
            return;
        agent.reset();
        std::filesystem::remove(Socket());
        // The next one answers each poll from the beginning, as if it had not seen the cursor.
        agent = std::make_unique<FakeAgent>(Socket(), [&](const FakeAgent::Request& request) {
            if (!IsReportPoll(request))
                return *journal(request);
            Json reports =
                Json::array({{{"cursor", 8}, {"document", ResultDocument("p", {RunEntry("a.sh", "1", "once\n")})}}});
            if (++polls > 1)
                reports.push_back({{"cursor", 9}, {"document", ResultDocument("p", {RunEntry("b.sh", "1", "two\n")})}});
            return FakeAgent::Answer(200, Json{{"reports", reports}, {"cursor", 7 + reports.size()}}.dump());
        });
    });
    const ToolResult result =
        RunTool(RunCommand({"--id", "p", directory_.Write("a.sh", "x"), directory_.Write("b.sh", "x")}));
    other.wait();
    EXPECT_EQ(result.code, 0) << result.remarks;
    EXPECT_EQ(result.output, "==> a.sh <==\nonce\n==> b.sh <==\ntwo\n");
    EXPECT_THAT(journal.acknowledged, ElementsAre(8, 9));
}

TEST_F(RunTest, AnAgentThatStaysAwayEndsTheWaitAndAnotherStoreEndsItAtOnce) {
    FakeJournal journal;
    const auto away = [&](const FakeAgent::Request& request) {
        return IsReportPoll(request) ? std::string() : *journal(request);
    };
    const ToolResult result = RunOne(away, {"--wait", "1"});
    EXPECT_EQ(result.code, 4);
    EXPECT_THAT(result.remarks, HasSubstr("the agent is away"));

    bool gone = false;
    const ToolResult other_store = RunOne([&](const FakeAgent::Request& request) {
        gone = gone || IsReportPoll(request);
        if (gone && request.target == "/v1/status")
            return FakeAgent::Answer(200, FakeJournal::StatusObject(0, 0).dump());
        return away(request);
    });
    EXPECT_EQ(other_store.code, 3);
    EXPECT_THAT(other_store.remarks, HasSubstr("policy p was sent, but then: the agent came back with another store"));
}

TEST_F(RunTest, HostileOutputCannotDriveATerminal) {
    if (access("/dev/ptmx", R_OK | W_OK) != 0 || access("/dev/pts/ptmx", F_OK) != 0)
        GTEST_SKIP() << "no pseudo-terminals here: is /dev/pts mounted?";
    const std::string hostile =
        "ok\ttab\nx\033]0;owned\007\r\b\x7F\xC2\x9B"
        "2J\xC3\xA9\n";
    FakeJournal journal(Pages{{Success(hostile)}});
    bool away = true;
    const FakeAgent agent(Socket(), [&](const FakeAgent::Request& request) {
        return IsReportPoll(request) && std::exchange(away, false) ? std::string() : *journal(request);
    });
    const ToolResult result = RunToolOnTerminal(RunCommand({"--id", "p", directory_.Write("a.sh", "x")}));
    EXPECT_EQ(result.code, 0);
    // The terminal itself adds the \r before \n.
    EXPECT_THAT(result.output, HasSubstr("ok\ttab\r\nx\\x1b]0;owned\\x07\\x0d\\x08\\x7f\\xc2\\x9b"
                                         "2J"));
    EXPECT_THAT(result.output, AllOf(HasSubstr("\xC3\xA9\r\n"), HasSubstr("waiting for 1 of 1 script")));
    EXPECT_THAT(result.output, Not(HasSubstr("\033]0")));
    // And the break is spoken of, once.
    const size_t gone = result.output.find("the agent has gone away");
    EXPECT_NE(gone, std::string::npos);
    EXPECT_EQ(result.output.find("the agent has gone away", gone + 1), std::string::npos);
    EXPECT_THAT(result.output, HasSubstr("the agent is back"));
}

TEST_F(RunTest, CtrlCLeavesTheRunAloneAndSaysHowToLookLater) {
    FakeJournal journal;
    const FakeAgent agent(Socket(), [&](const FakeAgent::Request& request) -> std::optional<std::string> {
        if (!IsReportPoll(request))
            return journal(request);
        EXPECT_EQ(kill(getpid(), SIGINT), 0);
        return std::nullopt;
    });
    const ToolResult result = RunTool(RunCommand({"--id", "it's", directory_.Write("a.sh", "x")}));
    EXPECT_EQ(result.code, 130);
    EXPECT_THAT(result.remarks, AllOf(HasSubstr("the scripts go on"), HasSubstr("qxpctl show 'it'\\''s'")));
}

}  // namespace
}  // namespace qxpctl
