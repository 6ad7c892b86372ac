// The agent's client and the commands that send, against a server that answers as told.

#include "ctl/client/agent_client.h"
#include "ctl/client/results.h"
#include "tests/unit/ctl/fake_journal.h"

namespace qxpctl {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

Report ReportOf(uint64_t cursor, const Json& document) {
    Report report;
    report.cursor = cursor;
    report.content = document;
    return report;
}

TEST(ResultCollectorTest, DocumentsOfAnyShapeAreSurvivedAndAddNothing) {
    ResultCollector collector("p", {"a"});
    Json no_text = ResultDocument("p", {RunEntry("a", "1", "")});
    no_text["data"]["result"][0]["scriptid"] = 1;
    uint64_t cursor = 0;
    for (const Json& document :
         {Json(), Json(7), Json::array({1}), Json{{"ID", 1}}, Json{{"ID", "p"}, {"msg_type", "1"}},
          Json{{"ID", "p"}, {"msg_type", "1"}, {"data", "x"}},
          Json{{"ID", "p"}, {"msg_type", "1"}, {"data", {{"result", 1}}}}, Json{{"ID", "p"}, {"msg_type", 4}},
          ResultDocument("p", {Json(1), Json::object()}), no_text, Refusal("other"), Interruption("other", "x")}) {
        EXPECT_THAT(collector.Add(ReportOf(++cursor, document)), IsEmpty()) << document;
    }
    EXPECT_FALSE(collector.Refused() || collector.Interrupted());
    collector.Add(ReportOf(++cursor, Refusal("p")));
    EXPECT_TRUE(collector.Refused());
    collector.Add(ReportOf(++cursor, Json{{"ID", "p"}, {"msg_type", "5"}, {"data", 7}}));
    EXPECT_TRUE(collector.Interrupted());
}

TEST_F(AgentTest, AnAgentThatIsNotThereIsSaidInOneLine) {
    const std::string policy = directory_.Write("p.json", R"({"ID":"p"})");
    EXPECT_THAT(RunTool({"submit", "--socket", Socket(), policy}), Ends(3, Has(Socket(), "start qxpagent")));
    {
        const FakeAgent left_behind(Socket(), [](const auto&) { return std::nullopt; });
    }
    EXPECT_THAT(RunTool({"--socket", Socket(), "submit", policy}), Ends(3, HasSubstr("nothing answers on")));
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
    EXPECT_THAT(RunTool({"submit", directory_.Write("p.json", R"({"ID":"p"})")}).remarks,
                HasSubstr("a\\x1b[31m\\x0ab"));
}

TEST_F(AgentTest, EachRefusalOfACommandHasItsExitCodeAndTheAgentsOwnWords) {
    const std::string policy = directory_.Write("p.json", R"({"ID":"p"})");
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
        EXPECT_THAT(Run([&](const auto&) { return answer; }, {"submit", policy}), Ends(code, HasSubstr(remark), ""))
            << status;
    }
    EXPECT_THAT(Run([&](const auto&) { return FakeAgent::Answer(413, "<html>"); }, {"submit", policy}).remarks,
                HasSubstr("the agent refuses: status 413"));
}

TEST_F(AgentTest, SubmitTellsWhatBecameOfThePolicy) {
    const std::string policy = directory_.Write("p.json", R"({"ID":"p"})");
    EXPECT_THAT(Run(FakeJournal(), {"submit", policy}), Ends(0, "qxpctl: taken, delivered\n", "p\n"));
    EXPECT_THAT(Run(FakeJournal({}, {.state = "reported", .status = 200}), {"submit", policy}).remarks,
                HasSubstr("known already, reported"));
    EXPECT_THAT(Run(FakeJournal({}, {.state = "refused", .reason = "too many"}), {"submit", "--json", policy}),
                Ends(1, _, Has(R"("taken":true)", R"("state":"refused")", R"("reason":"too many")")));
}

TEST_F(AgentTest, AnIdThatTheAgentWouldNotTakeIsNotSent) {
    const std::pair<std::string, const char*> cases[] = {
        {std::string(128, 'i'), "the agent refuses: it was asked"},
        {"\xC3\xA9", "the agent refuses: it was asked"},
        {"a\"", "'\"'"},
        {std::string(129, 'i'), "p.json has no usable \"ID\": it is longer than 128 bytes"},
        {"", "it is empty"},
        {"a/b", "holds '/'"},
        {"a\nb", "control character"},
    };
    for (const auto& [id, remark] : cases) {
        const std::string policy = directory_.Write("p.json", Json{{"ID", id}, {"Command", "Reboot"}}.dump());
        EXPECT_THAT(
            Run([](const auto&) { return FakeAgent::Answer(400, R"({"detail":"it was asked"})"); }, {"submit", policy}),
            Ends(2, HasSubstr(remark)));
    }
}

}  // namespace
}  // namespace qxpctl
