#include <unistd.h>

#include <algorithm>
#include <map>
#include <regex>

#include "base/names.h"
#include "base/peer.h"
#include "tests/unit/agent/http_fixture.h"

namespace qxpagent {
namespace {

using Json = nlohmann::ordered_json;
using std::chrono::milliseconds;
using testing::FieldsAre;
using testing::HasSubstr;

const WallTime kNoon{std::chrono::milliseconds(1800000000123)};

CommandRecord Command(const std::string& id) {
    const std::vector<std::string> unreported{"a.sh"};
    const qxpbase::Peer submitter{1000, 1001, 4242, "ops"};
    const auto state = CommandState::kInterrupted;
    return {id, "RunScriptNormal", 7, state, "the agent ended", 3, 2, unreported, 12, "00ff", submitter, kNoon, kNoon,
            {}};
}

Report ReportOf(const std::string& id, ReportSource source, const std::string& text) {
    return {0, id, source, "", kNoon, std::nullopt, 2, -1, text, text.size()};
}

// The text with "time" for each time. Those are local: only their form can be compared.
std::string WithoutTimes(const Json& object) {
    static const std::regex kTime(R"("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}\.123[+-][0-9]{2}:[0-9]{2}")");
    return std::regex_replace(object.dump(), kTime, R"("time")");
}

// The members that the document requires of a schema, from the first such line behind its name.
std::string RequiredMembers(const std::string& schema) {
    const std::string document = ReadFile(QXPAGENT_OPENAPI);
    const size_t list = document.find("required: [", document.find("\n    " + schema + ":\n")) + 11;
    return document.substr(list, document.find(']', list) - list);
}

std::string Members(const Json& object) {
    std::string members;
    for (const auto& [name, value] : object.items()) {
        members += (members.empty() ? "" : ", ") + name;
    }
    return members;
}

TEST_F(HttpTest, ACommandIsSubmittedAsItStandsWithItsSender) {
    agent_.submit_outcome = {SubmitStatus::kTaken, "", Command("c/é 1")};
    const std::string document = "{ \"ID\" : \"c-\\u00e9\", \"x\":[1.50] }\n";
    const Reply taken = Post("/v1/commands", document);
    EXPECT_EQ(202, taken.status);
    EXPECT_EQ("application/json", taken.Type());
    EXPECT_EQ("/v1/commands/c%2F%C3%A9%201", taken.Header("Location"));
    EXPECT_EQ(R"({"id":"c/é 1","command":"RunScriptNormal","state":"interrupted","reason":"the agent ended",)"
              R"("sequence":7,"scripts":3,"expected":2,"unreported":["a.sh"],"bytes":12,"sha256":"00ff",)"
              R"("submitter":{"uid":1000,"gid":1001,"pid":4242,"user":"ops"},"received":"time",)"
              R"("delivered":"time","finished":null})",
              WithoutTimes(taken.Body()));
    EXPECT_EQ(RequiredMembers("Command"), Members(taken.Body()));
    EXPECT_EQ(document, agent_.submitted) << "not a byte differs";
    EXPECT_THAT(agent_.submitter, FieldsAre(getuid(), getgid(), getpid(), qxpbase::UserName(getuid())));
    EXPECT_EQ("root", qxpbase::UserName(0));
    EXPECT_EQ("4000000000", qxpbase::UserName(4000000000U)) << "a user without a name";

    agent_.submit_outcome.status = SubmitStatus::kKnown;
    EXPECT_EQ(200, Post("/v1/commands", document).status);
    using enum SubmitStatus;
    for (const auto& [status, code] : {std::pair(kConflict, 409),
                                       {kUnacceptable, 422},
                                       {kNotRunning, 503},
                                       {kBusy, 503},
                                       {kStorageFailed, 503},
                                       {kStorageFull, 507},
                                       {kNotAcknowledged, 504}}) {
        agent_.submit_outcome = {status, "Because of \"x\".", std::nullopt};
        const Reply reply = Post("/v1/commands", document);
        ExpectProblem(reply, code, "Because of \"x\".");
        EXPECT_EQ(code == 503 ? "2" : "", reply.Header("Retry-After"));
        EXPECT_NE("Internal Server Error", reply.Body()["title"]) << code;
    }
}

TEST_F(HttpTest, CommandsAreListedAndShown) {
    EXPECT_EQ(R"({"commands":[],"sequence":5})", Get("/v1/commands?after=5").text);
    EXPECT_EQ(100U, agent_.command_query.limit);
    agent_.commands = {Command("a"), Command("b/c d")};
    agent_.commands[1].sequence = 9;
    const Json list = Get("/v1/commands?state=reported&limit=1000&wait=60").Body();
    EXPECT_EQ(2U, list["commands"].size());
    EXPECT_EQ(9, list["sequence"]);
    EXPECT_THAT(agent_.command_query, FieldsAre(CommandState::kReported, 0U, 1000U, milliseconds(60000)));

    agent_.AddReport(ReportOf("b/c d", ReportSource::kAgent, R"({"ID":"b/c d"})"));
    for (const char* target : {"/v1/commands/b%2Fc%20d", "/v1/commands/b/c%20d"}) {
        const Json shown = Get(target).Body();
        EXPECT_EQ("b/c d", shown["command"]["id"]);
        EXPECT_EQ("agent", shown["reports"][0]["source"]);
        EXPECT_EQ("b/c d", agent_.report_query.id);
    }
    EXPECT_EQ("There is no command \"z\".", Get("/v1/commands/z").Detail());
    EXPECT_EQ(404, Get("/v1/commands/a%00b").status) << "not the command a";
    EXPECT_EQ(404, Get("/v1/commands/").status);
}

TEST_F(HttpTest, ReportsComeWithTheirDocumentOrTheirText) {
    EXPECT_EQ(R"({"reports":[],"cursor":5})", Get("/v1/reports?after=5").text);
    agent_.AddReport(ReportOf("a b&c", ReportSource::kPlugin, R"({"ID":"a b&c","z":1,"a":[null]})"));
    agent_.AddReport(ReportOf("", ReportSource::kFile, "{\"ID\":\xff"));
    agent_.AddReport(ReportOf("deep", ReportSource::kPlugin, std::string(100000, '[')));
    agent_.reports[1].file = "r.json";
    agent_.reports[1].acknowledged = kNoon;
    const Json all =
        Get("/v1/reports?id=a%20b%26c&source=file&acknowledged=false&after=2&limit=3&documents=true").Body();
    EXPECT_THAT(agent_.report_query, FieldsAre("a b&c", ReportSource::kFile, false, 2U, 3U, true, milliseconds(0)));
    ASSERT_EQ(3U, all["reports"].size());
    EXPECT_EQ(3, all["cursor"]);
    EXPECT_EQ(R"({"cursor":1,"id":"a b&c","source":"plugin","file":null,"received":"time","acknowledged":null,)"
              R"("json_data_type":2,"value":-1,"bytes":31,"document":{"ID":"a b&c","z":1,"a":[null]}})",
              WithoutTimes(all["reports"][0]));
    EXPECT_EQ(R"({"cursor":2,"id":"","source":"file","file":"r.json","received":"time","acknowledged":"time",)"
              R"("json_data_type":2,"value":-1,"bytes":7,"document":null,"text":"{\"ID\":)"
              "\xef\xbf\xbd\"}",
              WithoutTimes(all["reports"][1]))
        << "bytes that are not UTF-8 are replaced";
    EXPECT_TRUE(all["reports"][2]["document"].is_null());
    EXPECT_EQ(RequiredMembers("Report"), Members(all["reports"][0]));
    EXPECT_FALSE(Get("/v1/reports?documents=false").Body()["reports"][0].contains("document"));
    EXPECT_FALSE(agent_.report_query.with_text);
}

TEST_F(HttpTest, ResultFilesComeAsTheyWere) {
    const std::string bytes("{\"ID\": 1.50,\n\"x\":\"\xff\"}\0", 22);
    agent_.AddReport(ReportOf("f", ReportSource::kFile, bytes));
    agent_.AddReport(ReportOf("p", ReportSource::kPlugin, "{}"));
    agent_.reports[0].file = "f_1.json";
    const Json list = Get("/v1/results?id=f").Body();
    EXPECT_EQ(R"({"cursor":1,"id":"f","file":"f_1.json","bytes":22,"received":"time","acknowledged":null})",
              WithoutTimes(list["results"][0]));
    EXPECT_EQ(RequiredMembers("Result"), Members(list["results"][0]));
    EXPECT_EQ(2, list["cursor"]);
    EXPECT_EQ(ReportSource::kFile, agent_.report_query.source);
    EXPECT_FALSE(agent_.report_query.with_text);
    const Reply result = Get("/v1/results/1");
    EXPECT_EQ("application/json", result.Type());
    EXPECT_EQ(bytes, result.text);
    for (const std::string cursor : {"2", "9", "x", "1x", "-1"}) {
        EXPECT_EQ(404, Get("/v1/results/" + cursor).status) << cursor;
    }
}

TEST_F(HttpTest, ReportsAreAcknowledgedByCursorOrUpToOne) {
    EXPECT_EQ(R"({"acknowledged":2})", Post("/v1/reports/acknowledge", R"({"cursors":[5,9]})").text);
    EXPECT_EQ((std::vector<uint64_t>{5, 9}), agent_.acknowledged);
    EXPECT_EQ(R"({"acknowledged":4})", Post("/v1/reports/acknowledge", R"({"up_to":7})").text);
    EXPECT_EQ(7U, agent_.acknowledged_up_to);
    agent_.acknowledged.clear();
    const std::map<std::string, std::vector<std::string>> wrong = {
        {"JSON object", {"", "[1]", std::string(60000, '[')}},
        {"either", {"{}", R"({"cursors":[1],"up_to":1})"}},
        {"\"cursor\"", {R"({"cursor":[1]})"}},
        {"\"cursors\"", {R"({"cursors":1})", R"({"cursors":[1,-1]})", R"({"cursors":["1"]})"}},
        {"\"up_to\"", {R"({"up_to":1.0})", R"({"up_to":9223372036854775808})"}}};
    for (const auto& [detail, bodies] : wrong) {
        for (const std::string& body : bodies) {
            ExpectProblem(Post("/v1/reports/acknowledge", body), 400, detail);
        }
    }
    EXPECT_TRUE(agent_.acknowledged.empty());
    EXPECT_EQ(7U, agent_.acknowledged_up_to);
}

TEST_F(HttpTest, StatusAndHealthSayHowItIs) {
    agent_.status.version = "1.2.3";
    agent_.status.plugin_status = 2;
    agent_.status.uptime = std::chrono::seconds(12);
    agent_.status.result_directory = "/x/result";
    agent_.status.scripts_waiting = 6;
    agent_.status.store = {5, 4, 9, kNoon, 77, 31, {{CommandState::kReported, 8}}, ""};
    EXPECT_EQ(R"({"version":"1.2.3","plugin_status":2,"plugin_version":"","uptime_seconds":12,)"
              R"("commands":{"received":0,"delivered":0,"refused":0,"reported":8,"interrupted":0},"last_sequence":31,)"
              R"("reports":{"stored":5,"pending":4,"last_cursor":9,"oldest_pending":"time"},"scripts_waiting":6,)"
              R"("store":{"bytes":77,"fault":null},"data_directory":"","policy_directory":"",)"
              R"("process_directory":"","result_directory":"/x/result"})",
              WithoutTimes(Get("/v1/status").Body()));
    EXPECT_EQ(RequiredMembers("Status"), Members(Get("/v1/status").Body()));
    EXPECT_EQ(R"({"status":"ok"})", Get("/v1/health").text);

    agent_.status.plugin_status = 1;
    agent_.status.store.fault = "no space";
    const Reply failing = Get("/v1/health");
    EXPECT_EQ(503, failing.status);
    EXPECT_EQ("application/json", failing.Type());
    EXPECT_EQ(2U, failing.Body()["problems"].size());
    agent_.fault = "torn page";
    EXPECT_THAT(Get("/v1/health").text, HasSubstr("torn page"));
    for (const char* target : {"/v1/status", "/metrics", "/v1/commands", "/v1/commands/a", "/v1/reports"}) {
        ExpectProblem(Get(target), 503, "torn page");
    }
}

TEST_F(HttpTest, EveryErrorIsAProblemThatNamesItsCause) {
    const Reply unknown = Get("/v2/%3Cx%3E");
    EXPECT_EQ(R"({"type":"about:blank","title":"Not Found","status":404,"detail":"There is no path /v2/<x>."})",
              unknown.Body().dump());
    EXPECT_EQ(RequiredMembers("Problem"), Members(unknown.Body()));
    EXPECT_THAT(Request("DELETE", "/v1/commands").head, testing::StartsWith("HTTP/1.1 405"));
    EXPECT_EQ("POST, GET", Request("DELETE", "/v1/commands").Header("Allow"));
    for (const std::string target :
         {"v1/reports?after=x", "v1/reports?after=-1", "v1/reports?after=", "v1/reports?after=99999999999999999999",
          "v1/reports?wait=61", "v1/reports?wait=1.5", "v1/reports?wait", "v1/reports?wait=0&wait=0",
          "v1/reports?wiat=1", "v1/reports?limit=0", "v1/results?limit=1001", "v1/results?source=file",
          "v1/commands?id=1", "v1/status?x=%00%ff", "metrics?x=1"}) {
        const size_t name = target.find('?') + 1;
        ExpectProblem(Get("/" + target), 400, "\"" + target.substr(name, target.find('=') - name) + "\"");
    }
    ExpectProblem(Get("/v1/reports?source=disk"), 400, "plugin, file, agent");
    ExpectProblem(Get("/v1/reports?acknowledged=yes"), 400, "false, true");
    ExpectProblem(Get("/v1/commands?state=done"), 400, "received, delivered, refused, reported, interrupted");
}

// The document keeps to a form that is read line by line: paths at two spaces, methods at four, one parameter a line.
TEST(OpenApiTest, DocumentAndRoutesAreOfOneMind) {
    const std::string document = ReadFile(QXPAGENT_OPENAPI);
    const auto count = [&](const char* line) {
        const std::regex regex(line);
        return std::distance(std::sregex_iterator(document.begin(), document.end(), regex), std::sregex_iterator());
    };
    std::ptrdiff_t parameters = 0;
    for (const Api::Route& route : Api::Routes()) {
        const size_t at = document.find("\n  " + std::string(route.path) + ":\n");
        ASSERT_NE(std::string::npos, at) << route.path;
        const std::string path = document.substr(at, document.find("\n  /", at + 1) - at);
        EXPECT_THAT(path, HasSubstr(route.method == "GET" ? "\n    get:" : "\n    post:")) << route.path;
        for (const auto& parameter : route.parameters) {
            EXPECT_THAT(path, HasSubstr("{name: " + std::string(parameter) + ", in: query")) << route.path;
            ++parameters;
        }
    }
    EXPECT_EQ(std::ssize(Api::Routes()), count("\n    (get|put|post|delete|patch):"));
    EXPECT_EQ(parameters, count("in: query"));
}

}  // namespace
}  // namespace qxpagent
