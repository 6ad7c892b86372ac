// The agent's client and the commands that send, against a server that answers as told.

#include "ctl/client/agent_client.h"
#include "tests/unit/ctl/fake_journal.h"

namespace qxpctl {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

TEST_F(AgentTest, AnAgentThatIsNotThereIsSaidInOneLine) {
    EXPECT_THAT(RunTool({"submit", "--socket", Socket(), PolicyFile()}), Ends(3, Has(Socket(), "start qxpagent")));
    {
        const FakeAgent left_behind(Socket(), [](const auto&) { return std::nullopt; });
    }
    EXPECT_THAT(RunTool({"--socket", Socket(), "submit", PolicyFile()}), Ends(3, HasSubstr("nothing answers on")));
    EXPECT_EQ(RunTool(RunCommand({directory_.Write("a.sh", "echo")})).code, 3);
}

TEST_F(AgentTest, AnAgentThatNeverAnswersIsGivenUp) {
    const FakeAgent agent(Socket(), [](const auto&) { return std::nullopt; });
    AgentClient client(Socket());
    client.SetTimeout(milliseconds(100));
    EXPECT_THROW(client.GetStatus(), AgentAway);
    int ticks = 0;
    ReportFilter filter;
    filter.wait = seconds(60);
    EXPECT_FALSE(client.GetReports(filter, [&ticks] { return ++ticks < 3; }));
    EXPECT_EQ(ticks, 3);
}

TEST_F(AgentTest, AnswersThatNoAgentGivesAreNamedAsSuch) {
    std::string answer;
    const FakeAgent agent(Socket(), [&answer](const auto&) { return answer; });
    AgentClient client(Socket());
    const auto expect_fault = [&](const std::string& text, const char* fault) {
        answer = text;
        const std::function<void()> calls[] = {[&] { client.GetStatus(); },     [&] { client.Submit("{}"); },
                                               [&] { client.GetReports({}); },  [&] { client.ListCommands({}); },
                                               [&] { client.GetCommand("p"); }, [&] { client.RunOnce("p"); }};
        for (const auto& call : calls) {
            EXPECT_THAT(call, testing::ThrowsMessage<AgentUnavailable>(HasSubstr(fault))) << text;
        }
    };
    const Json no_state = FakeJournal::CommandObject("p", "lost", 1);
    for (const std::string& body : {std::string(), std::string("hello"), std::string("[]"), std::string("{}"),
                                    std::string(R"({"reports":7,"cursor":1,"commands":7,"sequence":1})"),
                                    std::string(R"({"reports":{},"id":1,"command":7})"),
                                    std::string(R"({"reports":[{}],"cursor":1,"commands":[{}],"sequence":1})"),
                                    std::string(R"({"reports":{"last_cursor":-1},"accepted":1})"),
                                    Json{{"command", no_state}, {"commands", {no_state}}, {"sequence", 1}}.dump()}) {
        expect_fault(FakeAgent::Answer(200, body), "does not speak like qxpagent");
    }
    for (const char* const text : {"garbage\r\n\r\n", "HTTP/1.1 200 X\r\nContent-Length: 100\r\n\r\n{", ""}) {
        expect_fault(text, "");
    }
    // Text that an answer brings stays on its line.
    answer = FakeAgent::Answer(400, R"({"detail":"a\u001b[31m\nb"})");
    EXPECT_THAT(RunTool({"submit", PolicyFile()}).remarks, HasSubstr("a\\x1b[31m\\x0ab"));
}

TEST_F(AgentTest, EachRefusalOfACommandHasItsExitCodeAndTheAgentsOwnWords) {
    const std::tuple<int, int, const char*> cases[] = {
        {400, 2, "the agent refuses: in its words."},
        {409, 2, "in its words; pack it with another ID"},
        {413, 2, "the agent refuses: in its words."},
        {422, 1, "refuses the policy: in its words."},
        {500, 3, "in its words; see its log"},
        {503, 3, "in its words; try again in 9 s"},
        {504, 4, "in its words; look later with 'qxpctl"},
        {507, 3, "in its words; make room on its disk"},
    };
    for (const auto& [status, code, remark] : cases) {
        std::string answer = FakeAgent::Answer(status, R"({"title":"X","detail":"in its words."})");
        if (status == 503) {
            answer.insert(answer.find("Content-Length"), "Retry-After: 9\r\n");
        }
        EXPECT_THAT(Run([&](const auto&) { return answer; }, {"submit", PolicyFile()}),
                    Ends(code, HasSubstr(remark), ""))
            << status;
    }
    EXPECT_THAT(
        Run([](const auto&) { return FakeAgent::Answer(404, R"({"detail":"No such command."})"); }, {"show", "x"}),
        Ends(2, HasSubstr("No such command.")));
    EXPECT_THAT(Run([&](const auto&) { return FakeAgent::Answer(413, "<html>"); }, {"submit", PolicyFile()}).remarks,
                HasSubstr("the agent refuses: status 413"));
}

TEST_F(AgentTest, SubmitTellsWhatBecameOfThePolicy) {
    EXPECT_THAT(Run(FakeJournal(), {"submit", PolicyFile()}), Ends(0, "qxpctl: taken, delivered\n", "p\n"));
    EXPECT_THAT(Run(FakeJournal({}, {.state = "reported", .status = 200}), {"submit", PolicyFile()}).remarks,
                HasSubstr("known already, reported"));
    EXPECT_THAT(Run(FakeJournal({}, {.state = "refused", .reason = "too many"}), {"submit", "--json", PolicyFile()}),
                Ends(1, _, Has(R"("taken":true)", R"("state":"refused")", R"("reason":"too many")")));
}

}  // namespace
}  // namespace qxpctl
