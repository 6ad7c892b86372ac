#include <curl/curl.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <future>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "agent/api.h"
#include "agent/http_server.h"
#include "agent/report_store.h"
#include "agent/startup_error.h"
#include "agent/unix_listener.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/agent_test_support.h"

namespace qxpagent {
namespace {

using Json = nlohmann::ordered_json;

class FakeAgent final : public AgentControl {
public:
    SubmitResult Submit(const std::string& id, std::string document) override {
        submitted_id = id;
        submitted = std::move(document);
        return submit_result;
    }
    std::optional<bool> RunOnce(const std::string& name) override {
        if (name == "stopped.json") {
            return std::nullopt;
        }
        if (name == "slow.json") {
            running.Set();
            EXPECT_TRUE(finish.Wait());
        }
        if (name == "together.json") {
            if (++together == 64) {
                all_together.Set();
            }
            EXPECT_TRUE(finish.Wait());
        }
        return name == "good.json";
    }
    AgentStatus Status() const override {
        AgentStatus status;
        status.version = "1.2.3";
        status.plugin_status = 2;
        status.uptime = std::chrono::seconds(12);
        status.result_directory = "/x/result";
        return status;
    }

    SubmitResult submit_result = SubmitResult::kDelivered;
    std::string submitted_id;
    std::string submitted;
    std::atomic<int> together{0};
    Happening all_together;
    Happening running;
    Happening finish;
};

struct Reply {
    CURLcode transport = CURLE_OK;
    long status = 0;
    std::string type;
    std::string allow;
    std::string text;

    Json Body() const { return Json::parse(text, nullptr, false); }
    std::string Detail() const { return type == "application/problem+json" ? Body().value("detail", "") : ""; }
};

size_t AppendBody(char* data, size_t size, size_t count, void* reply) {
    static_cast<Reply*>(reply)->text.append(data, size * count);
    return size * count;
}

size_t NoteHeader(char* data, size_t size, size_t count, void* reply) {
    const std::string line(data, size * count);
    if (line.starts_with("Allow: ")) {
        static_cast<Reply*>(reply)->allow = line.substr(7, line.find('\r') - 7);
    }
    return size * count;
}

class HttpTest : public testing::Test {
protected:
    void Serve(const HttpLimits& limits = {}) {
        listener_ = std::make_unique<UnixListener>(socket_);
        server_ = std::make_unique<HttpServer>(*listener_, api_, limits);
    }

    Reply Request(const std::string& method, const std::string& target, const std::string& body = "",
                  const char* header = nullptr) const {
        Reply reply;
        const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
        const std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(
            header != nullptr ? curl_slist_append(nullptr, header) : nullptr, curl_slist_free_all);
        const std::string url = "http://agent" + target;
        curl_easy_setopt(curl.get(), CURLOPT_UNIX_SOCKET_PATH, socket_.c_str());
        curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, 30L);
        curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
        curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, AppendBody);
        curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &reply);
        curl_easy_setopt(curl.get(), CURLOPT_HEADERFUNCTION, NoteHeader);
        curl_easy_setopt(curl.get(), CURLOPT_HEADERDATA, &reply);
        if (method != "GET") {
            curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
            curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, body.data());
            curl_easy_setopt(curl.get(), CURLOPT_CUSTOMREQUEST, method.c_str());
        }
        reply.transport = curl_easy_perform(curl.get());
        curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &reply.status);
        const char* type = nullptr;
        curl_easy_getinfo(curl.get(), CURLINFO_CONTENT_TYPE, &type);
        reply.type = type != nullptr ? type : "";
        return reply;
    }
    Reply Get(const std::string& target) const { return Request("GET", target); }
    Reply Post(const std::string& target, const std::string& body) const { return Request("POST", target, body); }
    std::future<Reply> GetLater(const std::string& target) const {
        return std::async(std::launch::async, [this, target] { return Get(target); });
    }

    void AddReport(const std::string& id, const std::string& text) {
        Report report;
        report.id = id;
        report.text = text;
        report.json_data_type = 2;
        report.value = 1;
        reports_.Append(std::move(report));
    }

    int Connect() const {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        socket_.string().copy(address.sun_path, sizeof(address.sun_path) - 1);
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(0, connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
        return fd;
    }

    const TempDir directory_;
    const std::filesystem::path socket_ = directory_.Path() / "agent.sock";
    FakeAgent agent_;
    MemoryReportStore reports_;
    Api api_{agent_, reports_};
    std::unique_ptr<UnixListener> listener_;
    std::unique_ptr<HttpServer> server_;
};

TEST_F(HttpTest, CommandsAreCheckedAndDeliveredAsTheyStand) {
    Serve();
    const std::string document = "{ \"ID\" : \"c-\\u00e9\", \"Command\":\"RunScriptNormal\", \"x\":[1.50] }\n";
    const Reply delivered = Post("/v1/commands", document);
    EXPECT_EQ(202, delivered.status);
    EXPECT_EQ("application/json", delivered.type);
    EXPECT_EQ(R"({"id":"c-é","delivered":true})", delivered.text);
    EXPECT_EQ(document, agent_.submitted) << "not a byte differs";
    EXPECT_EQ("c-é", agent_.submitted_id);
    EXPECT_EQ(202, Post("/v1/commands", R"({"a":{"ID":1},"b":["ID"],"ID":"7"})").status) << "only the root's ID counts";

    agent_.submitted.clear();
    const std::vector<std::pair<std::string, std::string>> wrong = {
        {"", "empty"},
        {"{", "not one JSON document"},
        {R"({"ID":"1"} x)", "not one JSON document"},
        {std::string(600, '[') + std::string(600, ']'), "not one JSON document"},
        {std::string("{\"ID\":\"1\"}\0", 11), "NUL"},
        {"[]", "\"ID\""},
        {R"({"id":"1"})", "\"ID\""},
        {R"({"ID":7})", "\"ID\" must be a string"},
        {R"({"ID":true})", "\"ID\" must be a string"},
        {R"({"ID":{"ID":"x"}})", "\"ID\" must be a string"},
        {R"({"ID":7,"ID":"x"})", "\"ID\" must be a string"},
        {R"({"ID":null})", "\"ID\""},
        {R"({"ID":""})", "\"ID\" must not be empty"},
    };
    for (const auto& [body, detail] : wrong) {
        const Reply reply = Post("/v1/commands", body);
        EXPECT_EQ(400, reply.status) << body;
        EXPECT_NE(std::string::npos, reply.Detail().find(detail)) << body << " got " << reply.Detail();
    }
    EXPECT_EQ("", agent_.submitted);

    const auto status_of = [&](SubmitResult result) {
        agent_.submit_result = result;
        return Post("/v1/commands", R"({"ID":"1"})").status;
    };
    EXPECT_EQ(503, status_of(SubmitResult::kNotRunning));
    EXPECT_EQ(503, status_of(SubmitResult::kBusy));
    EXPECT_EQ(504, status_of(SubmitResult::kNotAcknowledged));
    EXPECT_EQ(500, status_of(SubmitResult::kFailed));
}

TEST_F(HttpTest, EveryErrorIsAProblemThatNamesItsCause) {
    Serve();
    const Reply unknown = Get("/v2/%3Cx%3E");
    EXPECT_EQ(404, unknown.status);
    EXPECT_EQ(
        (Json{
            {"type", "about:blank"}, {"title", "Not Found"}, {"status", 404}, {"detail", "There is no path /v2/<x>."}}),
        unknown.Body());
    const Reply method = Request("DELETE", "/v1/commands");
    EXPECT_EQ(405, method.status);
    EXPECT_EQ("POST", method.allow);
    EXPECT_EQ("GET", Post("/v1/status", "{}").allow);
    const std::vector<std::pair<std::string, std::string>> wrong = {
        {"/v1/reports?after=x", "after"},   {"/v1/reports?after=-1", "after"},
        {"/v1/reports?after=", "after"},    {"/v1/reports?after=99999999999999999999", "after"},
        {"/v1/reports?wait=61", "wait"},    {"/v1/reports?wait=1.5", "wait"},
        {"/v1/reports?wait", "wait"},       {"/v1/reports?wait=0&wait=0", "wait"},
        {"/v1/reports?wiat=1", "\"wiat\""}, {"/v1/status?x=%00%ff", "\"x\""},
    };
    for (const auto& [target, detail] : wrong) {
        const Reply reply = Get(target);
        EXPECT_EQ(400, reply.status) << target;
        EXPECT_NE(std::string::npos, reply.Detail().find(detail)) << target << " got " << reply.Detail();
    }
}

TEST_F(HttpTest, ABodyOverTheLimitIsRefusedWhicheverWayItIsSent) {
    Serve();
    const std::string large((size_t{64} << 10) + 1, ' ');
    EXPECT_EQ(413, Post("/v1/runonce", large).status);
    const Reply chunked = Request("POST", "/v1/runonce", large, "Transfer-Encoding: chunked");
    EXPECT_EQ(413, chunked.status);
    EXPECT_EQ("application/problem+json", chunked.type);
    EXPECT_EQ(400, Post("/v1/runonce", large.substr(1)).status) << "the limit itself is allowed";

    // A client that is still sending is heard out, one that asks first or announces too much is answered at once.
    const auto answer_to = [this](const std::string& request) {
        const int fd = Connect();
        EXPECT_EQ(static_cast<ssize_t>(request.size()), send(fd, request.data(), request.size(), MSG_NOSIGNAL));
        std::string answer(12, '\0');
        answer.resize(static_cast<size_t>(std::max<ssize_t>(0, recv(fd, answer.data(), 12, MSG_WAITALL))));
        close(fd);
        return answer;
    };
    const std::string head = "POST /v1/commands HTTP/1.1\r\nHost: a\r\n";
    EXPECT_EQ("HTTP/1.1 413", answer_to(head + "Expect: 100-continue\r\nContent-Length: 104857601\r\n\r\n"));
    EXPECT_EQ("HTTP/1.1 413", answer_to(head + "Content-Length: 1000000000000\r\n\r\n"));
    EXPECT_EQ("HTTP/1.1 413", answer_to("POST /v1/runonce HTTP/1.1\r\nHost: a\r\nContent-Length: 100000\r\n\r\n" +
                                        std::string(100000, ' ')));
    std::string document = R"({"ID":"big","padding":")" + std::string(size_t{20} << 20, 'x') + "\"}";
    EXPECT_EQ(202, Post("/v1/commands", document).status);
    EXPECT_EQ(document, agent_.submitted);
}

TEST_F(HttpTest, RunOnceAnswersWhenTheCallReturns) {
    Serve({.idle = std::chrono::seconds(1)});
    EXPECT_EQ(R"({"name":"good.json","accepted":true})", Post("/v1/runonce", R"({"name":"good.json"})").text);
    EXPECT_EQ(R"({"name":"bad.json","accepted":false})", Post("/v1/runonce", R"({"name":"bad.json"})").text);
    EXPECT_EQ(503, Post("/v1/runonce", R"({"name":"stopped.json"})").status);
    for (const char* body : {R"({"name":""})", R"({"name":"a/b.json"})", R"({"name":"a\nb.json"})",
                             R"({"name":"a\u007f.json"})", R"({"name":"a\u0000"})", R"({"name":5})", "{}"}) {
        const Reply reply = Post("/v1/runonce", body);
        EXPECT_EQ(400, reply.status) << body;
        EXPECT_NE(std::string::npos, reply.Detail().find("\"name\"")) << body;
    }

    auto slow = std::async(std::launch::async, [&] { return Post("/v1/runonce", R"({"name":"slow.json"})"); });
    ASSERT_TRUE(agent_.running.Wait());
    // A client that sends half a request is cut off after the idle time; the call above takes longer than that.
    const int fd = Connect();
    EXPECT_EQ(4, send(fd, "POST", 4, MSG_NOSIGNAL));
    char byte = 0;
    EXPECT_EQ(0, recv(fd, &byte, 1, 0));
    close(fd);
    agent_.finish.Set();
    const Reply reply = slow.get();
    EXPECT_EQ(200, reply.status);
    EXPECT_FALSE(reply.Body().value("accepted", true));
}

TEST_F(HttpTest, ReportsComeWithTheirDocumentOrTheirText) {
    Serve();
    EXPECT_EQ(R"({"reports":[],"cursor":5})", Get("/v1/reports?after=5").text);
    AddReport("a b&c", R"({"ID":"a b&c","z":1,"a":[null]})");
    AddReport("", "{\"ID\":\xff");
    AddReport("deep", std::string(100000, '['));
    const Json all = Get("/v1/reports").Body();
    ASSERT_EQ(3U, all["reports"].size());
    EXPECT_EQ(3, all["cursor"]);
    Json first = all["reports"][0];
    EXPECT_EQ(29U, first["received"].get<std::string>().size());
    first["received"] = "";
    EXPECT_EQ(R"({"cursor":1,"id":"a b&c","received":"","json_data_type":2,"value":1,)"
              R"("document":{"ID":"a b&c","z":1,"a":[null]}})",
              first.dump());
    EXPECT_TRUE(all["reports"][1]["document"].is_null());
    EXPECT_EQ("{\"ID\":\xef\xbf\xbd", all["reports"][1]["text"]) << "bytes that are not UTF-8 are replaced";
    EXPECT_TRUE(all["reports"][2]["document"].is_null());
    const Json one = Get("/v1/reports?id=a%20b%26c&after=0").Body();
    EXPECT_EQ(1U, one["reports"].size());
    EXPECT_EQ(1, one["cursor"]);

    const Json status = Get("/v1/status").Body();
    EXPECT_EQ((Json{{"stored", 3}, {"last_cursor", 3}}), status["reports"]);
    EXPECT_EQ("/x/result", status["result_directory"]);
    EXPECT_EQ(12, status["uptime_seconds"]);
}

TEST_F(HttpTest, SixtyFourRequestsAreServedAtOnce) {
    Serve();
    std::vector<std::future<Reply>> calls;
    calls.reserve(64);
    for (int i = 0; i < 64; ++i) {  // each of them returns when all of them are there
        calls.push_back(
            std::async(std::launch::async, [this] { return Post("/v1/runonce", R"({"name":"together.json"})"); }));
    }
    ASSERT_TRUE(agent_.all_together.Wait());
    const Reply refused = Get("/v1/status");
    EXPECT_EQ(503, refused.status);
    EXPECT_NE(std::string::npos, refused.Detail().find("Too many requests"));
    agent_.finish.Set();
    for (auto& call : calls) {
        EXPECT_EQ(200, call.get().status);
    }
}

TEST_F(HttpTest, ALongPollOutlastsTheIdleTimeAndEndsWithItsReport) {
    Serve({.idle = std::chrono::seconds(1)});
    EXPECT_EQ(R"({"reports":[],"cursor":0})", Get("/v1/reports?id=wanted&wait=2").text);
    auto poll = GetLater("/v1/reports?id=wanted&wait=60");
    AddReport("other", "{}");
    AddReport("wanted", "{}");
    EXPECT_EQ(2, poll.get().Body()["cursor"]);
}

TEST_F(HttpTest, AStopWakesLongPollsAndRemovesTheSocket) {
    Serve();
    AddReport("first", "{}");
    auto poll = GetLater("/v1/reports?after=1&wait=60");
    const int idle = Connect();
    EXPECT_EQ(200, Get("/v1/status").status);
    reports_.StopWaiting();
    server_->Stop();
    EXPECT_FALSE(std::filesystem::exists(socket_));
    const Reply reply = poll.get();
    // Either it was being handled, and then it has its answer, or it came too late to be accepted.
    EXPECT_TRUE(reply.transport != CURLE_OK || reply.text == R"({"reports":[],"cursor":1})") << reply.text;
    char byte = 0;
    EXPECT_EQ(0, recv(idle, &byte, 1, 0));
    close(idle);
    server_->Stop();
}

TEST_F(HttpTest, EveryDescriptorIsCloseOnExec) {
    const auto descriptors = [] {
        std::map<int, std::string> open;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code gone;  // the listing's own
            const auto target = std::filesystem::read_symlink(entry, gone);
            if (!gone && fcntl(std::stoi(entry.path().filename()), F_GETFD) >= 0) {
                open.emplace(std::stoi(entry.path().filename()), target);
            }
        }
        return open;
    };
    const std::map<int, std::string> before = descriptors();
    Serve();
    const int fd = Connect();
    const std::string request =
        "POST /v1/runonce HTTP/1.1\r\nHost: a\r\nContent-Length: 20\r\n\r\n{\"name\":\"slow.json\"}";
    EXPECT_EQ(static_cast<ssize_t>(request.size()), send(fd, request.data(), request.size(), MSG_NOSIGNAL));
    ASSERT_TRUE(agent_.running.Wait());  // so that an accepted connection is among them
    int opened = 0;
    for (const auto& [number, target] : descriptors()) {
        if (!before.contains(number)) {
            ++opened;
            EXPECT_TRUE((fcntl(number, F_GETFD) & FD_CLOEXEC) != 0) << target;
        }
    }
    EXPECT_GE(opened, 4) << "the lock, the listener, the server's end, the client's end";
    agent_.finish.Set();
    close(fd);
}

TEST(UnixListenerTest, ReplacesTheDeadAndSparesTheLiving) {
    const TempDir directory;
    const std::filesystem::path path = directory.Path() / "agent.sock";
    const auto refusal = [](const std::filesystem::path& socket_path) -> std::string {
        try {
            const UnixListener listener(socket_path);
        } catch (const StartupError& error) {
            return error.what();
        }
        return "none";
    };
    const auto expect_refusal = [&](const std::filesystem::path& socket_path, const char* part) {
        const std::string text = refusal(socket_path);
        EXPECT_NE(std::string::npos, text.find(part)) << text;
    };
    {
        const UnixListener listener(path);
        struct stat status {};
        ASSERT_EQ(0, stat(path.c_str(), &status));
        EXPECT_EQ(S_IFSOCK | 0600U, status.st_mode);
        expect_refusal(path, "Another agent is running");
        std::filesystem::remove(directory.Path() / "agent.sock.lock");
        expect_refusal(path, "Another process is serving");
        EXPECT_TRUE(std::filesystem::exists(path));
    }
    EXPECT_FALSE(std::filesystem::exists(path));

    // What an agent that was killed leaves behind: a name that nobody listens on.
    {
        UnixListener listener(path);
        std::filesystem::rename(path, directory.Path() / "kept");
    }
    std::filesystem::rename(directory.Path() / "kept", path);
    EXPECT_EQ("none", refusal(path));

    directory.Write("agent.sock", "precious");
    expect_refusal(path, "is not a socket");
    EXPECT_EQ("precious", ReadFile(path));
    expect_refusal(directory.Path() / "missing" / "agent.sock", "Create its directory");
    expect_refusal(directory.Path() / std::string(120, 'x'), "longer than 107");
}

TEST(UnixListenerTest, DoesNotRemoveWhatHasTakenItsPlace) {
    const TempDir directory;
    const std::filesystem::path path = directory.Path() / "agent.sock";
    {
        const UnixListener listener(path);
        std::filesystem::remove(path);
        directory.Write("agent.sock", "another");
    }
    EXPECT_EQ("another", ReadFile(path));
}

}  // namespace
}  // namespace qxpagent
