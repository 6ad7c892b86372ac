// run: from the signed policy to the final state of its command, over whatever happens to the agent meanwhile.

#include <future>

#include "tests/support/wait.h"
#include "tests/unit/ctl/fake_journal.h"

namespace qxpctl {
namespace {

bool IsReportPoll(const FakeAgent::Request& request) {
    return request.target.starts_with("/v1/reports?");
}

class RunTest : public AgentTest {
protected:
    // Runs one script "a.sh" under the ID "p".
    ToolResult RunOne(const FakeAgent::Handler& handler, std::vector<std::string> options = {},
                      int output = MemoryFile()) {
        options.insert(options.begin(), {"--id", "p", directory_.Write("a.sh", "x")});
        return Run(handler, RunCommand(options), output);
    }
    static Json Success(const std::string& output = "out\n") {
        return ResultDocument("p", {RunEntry("a.sh", "1", output)});
    }
};

TEST_F(RunTest, CollectsEveryResultAndCountsFromTheLastCursor) {
    const std::string id = "p &=\xC3\xA9";
    // Results of another policy, of a script that is not in this one, and those that were there before, add nothing.
    FakeJournal journal(
        Pages{{ResultDocument("other", {RunEntry("a", "0", "wrong")}),
               ResultDocument(id, {RunEntry("stranger", "0", "wrong"), RunEntry("b", "1", "from b\033[31m\n")})},
              {},
              {ResultDocument(id, {RunEntry("b", "0", "again"), RunEntry("a", "1", "from a\n")})}});
    std::vector<std::string> targets;
    std::string sent;
    const auto agent = [&](const FakeAgent::Request& request) {
        const std::string& target = request.target;
        if (IsReportPoll(request)) {
            targets.push_back(target.substr(0, target.find("&limit")) + target.substr(target.find("&id")));
        } else if (!target.starts_with("/v1/commands?")) {
            targets.push_back(target);
        }
        if (target == "/v1/commands") {
            sent = Json::parse(request.body)["ID"];
        }
        return journal(request);
    };
    const auto command =
        RunCommand({"--id", id, directory_.Write("a", "x") + ",type=sh", directory_.Write("b", "x") + ",type=sh"});
    EXPECT_THAT(Run(agent, command),
                Ends(0,
                     AllOf(HasSubstr("a: succeeded in 1 s\nb: succeeded in 1 s\n2 of 2 scripts succeeded"),
                           Not(HasSubstr("\r"))),
                     "==> b <==\nfrom b\033[31m\n==> a <==\nfrom a\n"));
    EXPECT_EQ(sent, id);
    EXPECT_THAT(targets, ElementsAre("/v1/status", "/v1/commands", "/v1/reports?after=7&id=p%20%26%3D%C3%A9",
                                     "/v1/reports?after=9&id=p%20%26%3D%C3%A9",
                                     "/v1/reports?after=9&id=p%20%26%3D%C3%A9", "/v1/reports/acknowledge"));
    EXPECT_THAT(journal.acknowledged, ElementsAre(9, 10));
}

TEST_F(RunTest, TheExitCodeTellsHowItEnded) {
    const auto refuse = [](const FakeAgent::Request& request) {
        return request.method == "POST" ? FakeAgent::Answer(422, R"({"detail":"bad signature"})")
                                        : FakeAgent::Answer(200, FakeJournal::StatusObject(0, 0).dump());
    };
    const auto ran = [](const char* result, const char* output, const char* end) {
        return FakeJournal(Pages{{ResultDocument("p", {RunEntry("a.sh", result, output, end)})}});
    };
    Json no_text = RunEntry("a.sh", "1", "");
    no_text["scriptid"] = 1;
    const std::tuple<FakeAgent::Handler, std::vector<std::string>, testing::Matcher<ToolResult>> cases[] = {
        // Documents of any shape are survived and add nothing.
        {FakeJournal(Pages{
             {Json(), Json(7), Json::array({1}), Json{{"ID", 1}}, Json{{"ID", "p"}, {"msg_type", "1"}},
              Json{{"ID", "p"}, {"msg_type", "1"}, {"data", "x"}},
              Json{{"ID", "p"}, {"msg_type", "1"}, {"data", {{"result", 1}}}}, Json{{"ID", "p"}, {"msg_type", 4}},
              ResultDocument("p", {Json(1), Json::object(), no_text}), Refusal("other"), Interruption("other", "x")},
             {Success()}}),
         {},
         Ends(0, _, "out\n")},
        {FakeJournal(Pages{{Json{{"ID", "p"}, {"msg_type", "5"}, {"data", 7}}}}),
         {},
         Ends(1, HasSubstr("interrupted"))},
        {ran("0", "no marker", "x"), {}, Ends(1, HasSubstr("a.sh: failed"), "no marker")},
        {ran("0", "", ""), {"--json"}, Ends(1, _, HasSubstr(R"("state":"timed out")"))},
        {ran("1", "\xC3\xA9\033\n", "x"),
         {"--json"},
         Ends(0, _, Has(R"("outcome":"succeeded")", R"("output":"\u00e9\u001b\n")"))},
        {FakeJournal(Pages{{Success()}}, {.source = "file"}), {"--command", "RunScriptFile"}, Ends(0, _, "out\n")},
        {FakeJournal(Pages{{Refusal("p")}}),
         {},
         Ends(1, Has("a.sh: refused", "the policy p was refused: the plugin trusts another key"), "")},
        // Its state alone tells, without a report.
        {FakeJournal(Pages{{}}, {.state = "refused", .reason = "not there"}),
         {},
         Ends(1, HasSubstr("p was refused: not there"), "")},
        // The plugin dropped the script: the command is reported without it.
        {FakeJournal(Pages{{}}, {.state = "reported"}), {}, Ends(1, HasSubstr("a.sh: not run"), "")},
        {refuse, {"--json"}, Ends(1, _, HasSubstr(R"("outcome":"refused","reason":"bad signature")"))},
        {FakeJournal(Pages{{Interruption("p", "power cut")}}),
         {"--json"},
         Ends(1, HasSubstr("p was interrupted: power cut"),
              HasSubstr(R"("outcome":"interrupted","reason":"power cut")"))},
        {FakeJournal(), {"--wait", "0"}, Ends(4, Has("no result yet", "look later with: qxpctl show p"), "")},
    };
    for (const auto& [agent, options, end] : cases) {
        EXPECT_THAT(RunOne(agent, options), end);
    }
}

TEST_F(RunTest, APolicyThatTheAgentKnowsShowsTheResultsThatItHas) {
    for (const bool lost : {false, true}) {  // the first answer is lost, and so asked for again with the same text
        FakeJournal journal(Pages{{Success()}}, {.status = 200});
        std::vector<std::string> sent;
        std::string first_poll;
        const ToolResult result = RunOne([&](const FakeAgent::Request& request) {
            if (request.target == "/v1/commands") {
                sent.push_back(request.body);
            }
            if (IsReportPoll(request) && first_poll.empty()) {
                first_poll = request.target;
            }
            return lost && sent.size() == 1 && request.method == "POST" ? std::string() : *journal(request);
        });
        EXPECT_THAT(result, Ends(0, lost ? _ : TextMatcher(HasSubstr("knew this policy already")), "out\n"));
        EXPECT_EQ(sent, std::vector<std::string>(lost ? 2 : 1, sent.at(0)));
        EXPECT_THAT(first_poll, lost ? TextMatcher(_) : HasSubstr("after=0&"));
    }
}

TEST_F(RunTest, ReportsAreAcknowledgedOnlyWhenTheyHaveBeenPrinted) {
    for (const char* form : {"--wait=60", "--json"}) {
        FakeJournal journal(Pages{{Success()}});
        EXPECT_THAT(RunOne(std::ref(journal), {form}, FullDisk()), Ends(5, HasSubstr("No space left")));
        EXPECT_THAT(journal.acknowledged, IsEmpty());
    }
    FakeJournal kept(Pages{{Success()}});
    EXPECT_EQ(RunOne(std::ref(kept), {"--no-acknowledge"}).code, 0);
    EXPECT_THAT(kept.acknowledged, IsEmpty());
    // An agent that cannot note it does not undo the run.
    FakeJournal journal(Pages{{Success()}});
    const auto unnoted = [&](const FakeAgent::Request& request) {
        return request.target == "/v1/reports/acknowledge" ? FakeAgent::Answer(507, "{}") : *journal(request);
    };
    EXPECT_THAT(RunOne(unnoted), Ends(0, HasSubstr("the reports stay unacknowledged")));
}

TEST_F(RunTest, ARestartOfTheAgentIsWaitedOutAndNothingIsShownTwice) {
    FakeJournal journal(Pages{{Success()}});
    std::promise<void> polled;
    bool asked = false;
    int polls = 0;
    // The first agent ends during the first poll; its socket stays behind.
    auto agent = std::make_unique<FakeAgent>(Socket(), [&](const FakeAgent::Request& request) {
        if (!IsReportPoll(request)) {
            return *journal(request);
        }
        if (!std::exchange(asked, true)) {
            polled.set_value();
        }
        return std::string();
    });
    auto other = std::async(std::launch::async, [&] {
        if (polled.get_future().wait_for(DEADLINE) != std::future_status::ready) {
            return;
        }
        agent.reset();
        // The next one answers each poll from the beginning, as if it had not seen the cursor.
        agent = std::make_unique<FakeAgent>(Socket(), [&](const FakeAgent::Request& request) {
            if (!IsReportPoll(request)) {
                return *journal(request);
            }
            Json reports =
                Json::array({{{"cursor", 8}, {"document", ResultDocument("p", {RunEntry("a.sh", "1", "once\n")})}}});
            if (++polls > 1) {
                reports.push_back({{"cursor", 9}, {"document", ResultDocument("p", {RunEntry("b.sh", "1", "two\n")})}});
            }
            return FakeAgent::Answer(200, Json{{"reports", reports}, {"cursor", 7 + reports.size()}}.dump());
        });
    });
    const ToolResult result =
        RunTool(RunCommand({"--id", "p", directory_.Write("a.sh", "x"), directory_.Write("b.sh", "x")}));
    other.wait();
    EXPECT_THAT(result, Ends(0, _, "==> a.sh <==\nonce\n==> b.sh <==\ntwo\n"));
    EXPECT_THAT(journal.acknowledged, ElementsAre(8, 9));
}

TEST_F(RunTest, AnAgentThatStaysAwayEndsTheWaitAndAnotherStoreEndsItAtOnce) {
    FakeJournal journal;
    const auto away = [&](const FakeAgent::Request& request) {
        return IsReportPoll(request) ? std::string() : *journal(request);
    };
    EXPECT_THAT(RunOne(away, {"--wait", "1"}), Ends(4, HasSubstr("the agent is away")));
    bool gone = false;
    const auto other_store = [&](const FakeAgent::Request& request) {
        gone = gone || IsReportPoll(request);
        if (gone && request.target == "/v1/status") {
            return FakeAgent::Answer(200, FakeJournal::StatusObject(0, 0).dump());
        }
        return away(request);
    };
    EXPECT_THAT(RunOne(other_store),
                Ends(3, HasSubstr("policy p was sent, but then: the agent came back with another store")));
}

TEST_F(RunTest, HostileOutputCannotDriveATerminal) {
    if (access("/dev/ptmx", R_OK | W_OK) != 0 || access("/dev/pts/ptmx", F_OK) != 0) {
        GTEST_SKIP() << "no pseudo-terminals here: is /dev/pts mounted?";
    }
    const std::string hostile =
        "ok\ttab\nx\033]0;owned\007\r\b\x7F\xC2\x9B"
        "2J\xC3\xA9\n";
    FakeJournal journal(Pages{{Success(hostile)}});
    bool away = true;
    const FakeAgent agent(Socket(), [&](const FakeAgent::Request& request) {
        return IsReportPoll(request) && std::exchange(away, false) ? std::string() : *journal(request);
    });
    const ToolResult result = RunToolOnTerminal(RunCommand({"--id", "p", directory_.Write("a.sh", "x")}));
    // The terminal itself adds the \r before \n.
    EXPECT_THAT(result, Ends(0, _,
                             AllOf(Has("ok\ttab\r\nx\\x1b]0;owned\\x07\\x0d\\x08\\x7f\\xc2\\x9b"
                                       "2J",
                                       "\xC3\xA9\r\n", "waiting for 1 of 1 script", "the agent is back"),
                                   Not(HasSubstr("\033]0")))));
    // And the break is spoken of, once.
    const size_t gone = result.output.find("the agent has gone away");
    EXPECT_NE(gone, std::string::npos);
    EXPECT_EQ(result.output.find("the agent has gone away", gone + 1), std::string::npos);
}

TEST_F(RunTest, CtrlCLeavesTheRunAloneAndSaysHowToLookLater) {
    FakeJournal journal;
    const auto agent = [&](const FakeAgent::Request& request) -> std::optional<std::string> {
        if (!IsReportPoll(request)) {
            return journal(request);
        }
        EXPECT_EQ(kill(getpid(), SIGINT), 0);
        return std::nullopt;
    };
    EXPECT_THAT(Run(agent, RunCommand({"--id", "it's", directory_.Write("a.sh", "x")})),
                Ends(130, Has("the scripts go on", "qxpctl show 'it'\\''s'")));
}

}  // namespace
}  // namespace qxpctl
