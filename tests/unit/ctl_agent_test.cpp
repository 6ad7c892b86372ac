// The agent's client, the wait for results, and the commands on top of them, against a server that answers as told.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>

#include "ctl/agent_client.h"
#include "ctl/results.h"
#include "tests/unit/ctl_support.h"

namespace qxpctl {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

Json RunEntry(const std::string& script, const std::string& result, const std::string& output,
              const std::string& end = "2026-11-21 09:21:31") {
    return {{"scriptid", script},
            {"filepath", "/x"},
            {"run_result", result},
            {"run_outdata", output},
            {"run_starttime", "2026-11-21 09:21:30"},
            {"run_runningtime", end.empty() ? "0" : "1"},
            {"run_endtime", end}};
}

Json ResultDocument(const std::string& id, const std::vector<Json>& runs) {
    return {{"ID", id},
            {"msg_type", "1"},
            {"data_type", "RunScriptData"},
            {"data", {{"handler_type", "1"}, {"result", runs}}}};
}

Json Refusal(const std::string& id) {
    return {{"ID", id}, {"msg_type", "4"}, {"data_type", "RunScriptNormal"}};
}

Policy PolicyOf(const std::string& id, const std::vector<std::string>& scripts) {
    Policy policy;
    policy.id = id;
    for (const std::string& script : scripts)
        policy.scripts.push_back({script, "sh", script, 1, 0});
    return policy;
}

TEST(ResultCollectorTest, GathersOnePolicyFromManyReports) {
    ResultCollector collector(PolicyOf("p", {"a", "b", "c"}));
    EXPECT_THAT(collector.Add(ResultDocument("other", {RunEntry("a", "1", "")})), IsEmpty());
    EXPECT_THAT(collector.Add(ResultDocument("p", {RunEntry("stranger", "1", ""), RunEntry("c", "1", "late")})),
                testing::SizeIs(1));
    EXPECT_EQ(collector.PendingCount(), 2U);
    EXPECT_THAT(collector.Add(ResultDocument("p", {RunEntry("c", "0", "again"), RunEntry("a", "1", "")})),
                testing::SizeIs(1));
    EXPECT_EQ(collector.Find("c")->output, "late");
    EXPECT_FALSE(collector.Complete());
    collector.Add(ResultDocument("p", {RunEntry("b", "0", "", "")}));
    EXPECT_TRUE(collector.Complete());
    EXPECT_FALSE(collector.AllSucceeded());
    EXPECT_TRUE(collector.Find("b")->timed_out);
    EXPECT_FALSE(collector.Find("a")->timed_out);
    EXPECT_FALSE(collector.Refused());
}

TEST(ResultCollectorTest, DocumentsOfAnyShapeAreSurvivedAndAddNothing) {
    ResultCollector collector(PolicyOf("p", {"a"}));
    Json no_text = ResultDocument("p", {RunEntry("a", "1", "")});
    no_text["data"]["result"][0]["scriptid"] = 1;
    for (const Json& document :
         {Json(), Json(7), Json::array({1}), Json{{"ID", 1}}, Json{{"ID", "p"}, {"msg_type", "1"}},
          Json{{"ID", "p"}, {"msg_type", "1"}, {"data", "x"}},
          Json{{"ID", "p"}, {"msg_type", "1"}, {"data", {{"result", 1}}}}, Json{{"ID", "p"}, {"msg_type", 4}},
          ResultDocument("p", {Json(1), Json::object()}), no_text, Refusal("other")})
        EXPECT_THAT(collector.Add(document), IsEmpty()) << document;
    EXPECT_FALSE(collector.Refused());
    collector.Add(Refusal("p"));
    EXPECT_TRUE(collector.Refused());
}

class AgentTest : public testing::Test {
protected:
    std::string Socket() const { return directory_ / "agent.sock"; }

    // Runs a script of this name and content through the whole command.
    std::vector<std::string> RunCommand(const std::vector<std::string>& more) {
        EXPECT_EQ(RunTool({"keygen", "--force", "--out", directory_ / "k"}).code, 0);
        std::vector<std::string> arguments{"run", "--socket", Socket(), "--key", directory_ / "k.key.pem"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return arguments;
    }

    const TempDir directory_;
};

// The documents that each poll brings.
using Pages = std::vector<std::vector<Json>>;

// An agent whose plugin answers each poll with the next of these pages; after the last, with nothing.
class PluginScript {
public:
    explicit PluginScript(Pages pages = {}) : pages_(std::move(pages)) {}

    std::optional<std::string> operator()(const FakeAgent::Request& request) {
        if (request.target == "/v1/status")
            return FakeAgent::Answer(200, R"({"reports":{"stored":7,"last_cursor":7},"result_directory":"/results"})");
        if (request.method == "POST")
            return FakeAgent::Answer(202, Json{{"id", Json::parse(request.body)["ID"]}, {"delivered", true}}.dump());
        Json reports = Json::array();
        if (next_ < pages_.size()) {
            for (const Json& document : pages_[next_])
                reports.push_back({{"cursor", ++cursor_}, {"id", "p"}, {"document", document}});
            ++next_;
        }
        return FakeAgent::Answer(200, Json{{"reports", reports}, {"cursor", cursor_}}.dump());
    }

private:
    const Pages pages_;
    size_t next_ = 0;
    uint64_t cursor_ = 7;
};

TEST_F(AgentTest, AnAgentThatIsNotThereIsSaidInOneLine) {
    const std::string policy = directory_.Write("p.json", R"({"ID":"p"})");
    const ToolResult missing = RunTool({"submit", "--socket", Socket(), policy});
    EXPECT_EQ(missing.code, 3);
    EXPECT_THAT(missing.remarks, AllOf(HasSubstr(Socket()), HasSubstr("start qxpagent")));
    {
        const FakeAgent left_behind(Socket(), [](const auto&) { return std::nullopt; });
    }
    const ToolResult stale = RunTool({"--socket", Socket(), "submit", policy});
    EXPECT_EQ(stale.code, 3);
    EXPECT_THAT(stale.remarks, HasSubstr("nothing answers on"));
    const std::string script = directory_.Write("a.sh", "echo");
    EXPECT_EQ(RunTool(RunCommand({script})).code, 3);
}

TEST_F(AgentTest, AnAgentThatNeverAnswersIsGivenUp) {
    const FakeAgent agent(Socket(), [](const auto&) { return std::nullopt; });
    AgentClient client(Socket());
    client.SetTimeout(milliseconds(100));
    EXPECT_THROW(client.GetStatus(), AgentUnavailable);
    int ticks = 0;
    EXPECT_FALSE(client.GetReports("p", 0, seconds(60), [&ticks] { return ++ticks < 3; }));
    EXPECT_EQ(ticks, 3);
}

TEST_F(AgentTest, AnswersThatNoAgentGivesAreNamedAsSuch) {
    std::string answer;
    const FakeAgent agent(Socket(), [&answer](const auto&) { return answer; });
    AgentClient client(Socket());
    const auto failure = [&](const std::string& text) -> std::string {
        answer = text;
        std::string all;
        const std::function<void()> calls[] = {[&] { client.GetStatus(); }, [&] { client.Submit("{}"); },
                                               [&] { client.GetReports("p", 0, seconds(0)); }};
        for (const auto& call : calls) {
            try {
                call();
                all += "taken! ";
            } catch (const BadInput& error) {
                all += std::string("bad input: ") + error.what();
            } catch (const AgentUnavailable& error) {
                all += std::string("unavailable: ") + error.what();
            }
        }
        return all;
    };
    for (const char* const body : {"", "hello", "[]", "{}", R"({"reports":7,"cursor":1})", R"({"reports":{},"id":1})",
                                   R"({"reports":[],"cursor":"x"})", R"({"reports":{"last_cursor":-1}})"})
        EXPECT_THAT(failure(FakeAgent::Answer(200, body)), AllOf(HasSubstr("does not speak like qxpagent"),
                                                                 Not(HasSubstr("taken!")), Not(HasSubstr("bad input"))))
            << body;
    for (const char* const text : {"garbage\r\n\r\n", "HTTP/1.1 200 X\r\nContent-Length: 100\r\n\r\n{", ""})
        EXPECT_THAT(failure(text), AllOf(HasSubstr("unavailable"), Not(HasSubstr("taken!")))) << text;
    EXPECT_THAT(failure(FakeAgent::Answer(400, R"({"title":"Bad Request","detail":"no \"ID\""})")),
                HasSubstr("bad input: the agent refuses: no \"ID\""));
    EXPECT_THAT(failure(FakeAgent::Answer(413, "<html>")), HasSubstr("bad input: the agent refuses: status 413"));
    EXPECT_THAT(failure(FakeAgent::Answer(503, R"({"detail":"stopping"})")),
                AllOf(HasSubstr("unavailable"), HasSubstr("stopping")));
    // Text that an answer brings stays on its line.
    answer = FakeAgent::Answer(400, R"({"detail":"a\u001b[31m\nb"})");
    EXPECT_THAT(RunTool({"submit", "--socket", Socket(), directory_.Write("p.json", "{}")}).remarks,
                HasSubstr("a\\x1b[31m\\x0ab"));
}

TEST_F(AgentTest, RunCollectsEveryResultAndCountsFromTheLastCursor) {
    const std::string id = "p &=\xC3\xA9";
    const FakeAgent agent(Socket(), PluginScript({{ResultDocument(id, {RunEntry("b", "1", "from b\033[31m\n")})},
                                                  {},
                                                  {ResultDocument(id, {RunEntry("a", "1", "from a\n")})}}));
    const ToolResult result = RunTool(
        RunCommand({"--id", id, directory_.Write("a", "x") + ",type=sh", directory_.Write("b", "x") + ",type=sh"}));
    EXPECT_EQ(result.code, 0) << result.remarks;
    EXPECT_EQ(result.output, "==> b <==\nfrom b\033[31m\n==> a <==\nfrom a\n");
    EXPECT_THAT(result.remarks, AllOf(HasSubstr("a: succeeded in 1 s\nb: succeeded in 1 s\n2 of 2 scripts succeeded"),
                                      Not(HasSubstr("\r"))));
    const auto requests = agent.Requests();
    ASSERT_EQ(requests.size(), 5U);
    EXPECT_EQ(requests[0].target, "/v1/status");
    EXPECT_EQ(requests[1].target, "/v1/commands");
    EXPECT_EQ(Json::parse(requests[1].body)["ID"], id);
    EXPECT_EQ(requests[2].target, "/v1/reports?id=p%20%26%3D%C3%A9&after=7&wait=60");
    EXPECT_EQ(requests[3].target, "/v1/reports?id=p%20%26%3D%C3%A9&after=8&wait=60");
}

TEST_F(AgentTest, TheExitCodeTellsHowTheRunEnded) {
    const std::string script = directory_.Write("a.sh", "x");
    const auto run = [&](Pages pages, const std::vector<std::string>& options) {
        std::filesystem::remove(Socket());
        const FakeAgent agent(Socket(), PluginScript(std::move(pages)));
        auto arguments = RunCommand({"--id", "p", script});
        arguments.insert(arguments.end(), options.begin(), options.end());
        return RunTool(arguments);
    };
    const ToolResult failed = run({{ResultDocument("p", {RunEntry("a.sh", "0", "no marker")})}}, {});
    EXPECT_EQ(failed.code, 1);
    EXPECT_EQ(failed.output, "no marker");
    EXPECT_THAT(failed.remarks, HasSubstr("a.sh: failed"));

    const ToolResult overdue = run({{ResultDocument("p", {RunEntry("a.sh", "0", "", "")})}}, {"--json"});
    EXPECT_EQ(overdue.code, 1);
    EXPECT_EQ(Json::parse(overdue.output)["scripts"][0]["state"], "timed out");

    const ToolResult refused = run({{Json(), Refusal("p")}}, {});
    EXPECT_EQ(refused.code, 1);
    EXPECT_THAT(refused.remarks, AllOf(HasSubstr("a.sh: refused"), HasSubstr("refused the policy p")));

    const ToolResult waited = run({}, {"--wait", "0"});
    EXPECT_EQ(waited.code, 4);
    EXPECT_THAT(waited.remarks, AllOf(HasSubstr("no result yet"), HasSubstr("look later with: curl")));

    const ToolResult to_files = run({}, {"--command", "RunScriptFile"});
    EXPECT_EQ(to_files.code, 0);
    EXPECT_EQ(to_files.output, "p\n");
    EXPECT_THAT(to_files.remarks, HasSubstr("/results/p*.json"));

    const ToolResult json = run({{ResultDocument("p", {RunEntry("a.sh", "1", "\xC3\xA9\033\n")})}}, {"--json"});
    EXPECT_EQ(json.code, 0);
    EXPECT_EQ(Json::parse(json.output)["outcome"], "succeeded");
    EXPECT_EQ(Json::parse(json.output)["scripts"][0]["output"], "\xC3\xA9\033\n");
    EXPECT_THAT(json.output, Not(HasSubstr("\033")));
}

TEST_F(AgentTest, HostileOutputCannotDriveATerminal) {
    if (access("/dev/ptmx", R_OK | W_OK) != 0 || access("/dev/pts/ptmx", F_OK) != 0)
        GTEST_SKIP() << "no pseudo-terminals here: is /dev/pts mounted?";
    const std::string hostile =
        "ok\ttab\nx\033]0;owned\007\r\b\x7F\xC2\x9B"
        "2J\xC3\xA9\n";
    const FakeAgent agent(Socket(), PluginScript(Pages{{ResultDocument("p", {RunEntry("a.sh", "1", hostile)})}}));
    const ToolResult result = RunToolOnTerminal(RunCommand({"--id", "p", directory_.Write("a.sh", "x")}));
    EXPECT_EQ(result.code, 0);
    // The terminal itself adds the \r before \n.
    EXPECT_THAT(result.output, HasSubstr("ok\ttab\r\nx\\x1b]0;owned\\x07\\x0d\\x08\\x7f\\xc2\\x9b"
                                         "2J"));
    EXPECT_THAT(result.output, AllOf(HasSubstr("\xC3\xA9\r\n"), HasSubstr("waiting for 1 of 1 script")));
    EXPECT_THAT(result.output, Not(HasSubstr("\033]0")));
}

TEST_F(AgentTest, CtrlCLeavesTheRunAloneAndSaysHowToLookLater) {
    PluginScript plugin;
    const FakeAgent agent(Socket(), [&plugin](const FakeAgent::Request& request) -> std::optional<std::string> {
        if (request.target.find("/v1/reports") != 0)
            return plugin(request);
        EXPECT_EQ(kill(getpid(), SIGINT), 0);
        return std::nullopt;
    });
    const ToolResult result = RunTool(RunCommand({"--id", "it's", directory_.Write("a.sh", "x")}));
    EXPECT_EQ(result.code, 130);
    EXPECT_THAT(result.remarks, AllOf(HasSubstr("the scripts go on"), HasSubstr("'id=it'\\''s'")));
}

TEST_F(AgentTest, AnAgentThatGoesAwayDuringTheWaitEndsIt) {
    PluginScript plugin;
    const FakeAgent agent(Socket(), [&plugin](const FakeAgent::Request& request) -> std::optional<std::string> {
        return request.target.find("/v1/reports") == 0 ? std::string() : *plugin(request);
    });
    const ToolResult result = RunTool(RunCommand({"--id", "p", directory_.Write("a.sh", "x")}));
    EXPECT_EQ(result.code, 3);
    EXPECT_THAT(result.remarks, HasSubstr("policy p was sent, but then"));
}

}  // namespace
}  // namespace qxpctl
