#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>

#include "tests/unit/agent/http_fixture.h"

namespace qxpagent {
namespace {

const std::string kRunOnce = "POST /v1/runonce HTTP/1.1\r\nHost: a\r\n";

TEST_F(HttpTest, ABodyOverTheLimitIsRefusedWhicheverWayItIsSent) {
    const std::string large((size_t{64} << 10) + 1, ' ');
    EXPECT_EQ(413, Post("/v1/runonce", large).status);
    const Reply chunked(Raw(kRunOnce + "Transfer-Encoding: chunked\r\n\r\n10001\r\n" + large + "\r\n0\r\n\r\n"));
    EXPECT_EQ(413, chunked.status);
    EXPECT_EQ("application/problem+json", chunked.Type());
    EXPECT_EQ(400, Post("/v1/runonce", large.substr(1)).status) << "the limit itself is allowed";
    agent_.submit_outcome = {SubmitStatus::kTaken, "", CommandRecord{}};

    // A client that is still sending is heard out, one that asks first or announces too much is answered at once.
    const auto answer_to = [this](const std::string& request) { return Raw(request, 12); };
    const std::string head = "POST /v1/commands HTTP/1.1\r\nHost: a\r\n";
    EXPECT_EQ("HTTP/1.1 413", answer_to(head + "Expect: 100-continue\r\nContent-Length: 104857601\r\n\r\n"));
    EXPECT_EQ("HTTP/1.1 413", answer_to(head + "Content-Length: 1000000000000\r\n\r\n"));
    EXPECT_EQ("HTTP/1.1 413", answer_to(kRunOnce + "Content-Length: 100000\r\n\r\n" + std::string(100000, ' ')));
    std::string document = R"({"ID":"big","padding":")" + std::string(size_t{20} << 20, 'x') + "\"}";
    EXPECT_EQ(202, Post("/v1/commands", document).status);
    EXPECT_EQ(document, agent_.submitted);
}

TEST_F(HttpTest, ARequestWhoseEndNobodyKnowsIsAnsweredOnceAndIsTheLast) {
    const std::string body = R"({"name":"good.json"})";
    for (const std::string framing :
         {"Content-Length: 20\r\nContent-Length: 20", "Content-Length: 20\r\nContent-Length: 5",
          "Transfer-Encoding: chunked\r\nContent-Length: 20", "Transfer-Encoding: gzip",
          "Transfer-Encoding: gzip, chunked", "Content-Length: 20x", "Content-Length: -20", "Content-Length: 20, 20",
          "Content-Length: 99999999999999999999"}) {
        const std::string answer = Raw(fmt::format("{}{}\r\n\r\n{}", kRunOnce, framing, body));
        EXPECT_THAT(answer, testing::MatchesRegex("HTTP/1.1 (400|413|501) .*\r\n\r\n\\{[^\n]*\\}")) << framing;
        EXPECT_EQ(answer.rfind("HTTP/1.1"), 0U) << framing;
    }
    EXPECT_EQ("HTTP/1.1 200", Raw(kRunOnce + "Content-Length: 20\r\n\r\n" + body, 12));
}

TEST_F(HttpTest, WhoeverDripsIsCutOffAndShutsOutNobody) {
    Serve({.connections = 4, .head = std::chrono::seconds(1), .body = std::chrono::seconds(1)});
    for (const std::string& start :
         {std::string("GET /v1/status HTTP/1.1\r\nX: "), kRunOnce + "Content-Length: 9999\r\n\r\n"}) {
        std::vector<int> connections;
        for (int i = 0; i < 5; ++i) {
            connections.push_back(Connect());
            send(connections.back(), start.data(), start.size(), MSG_NOSIGNAL);
        }
        EXPECT_EQ("HTTP/1.1 503", Raw("", 12)) << "there are as many as there may be";
        for (const int connection : connections) {
            EXPECT_TRUE(WaitUntil([&] { return send(connection, "x", 1, MSG_NOSIGNAL) < 0; })) << start;
            close(connection);
        }
        EXPECT_TRUE(WaitUntil([&] { return Get("/v1/status").status == 200; }));
    }
}

TEST(ConnectionLimiterTest, NobodyTakesWhatIsForOthers) {
    constexpr uid_t kRoot = 0;
    qxphttp::ConnectionLimiter limiter(
        {.requests = 3, .connections = 5, .user_connections = 2, .body_bytes = 100, .user_body_bytes = 60},
        [](qxphttp::Severity, const std::string&) {});
    int next = 1000;
    const auto connect = [&](uid_t user) { return limiter.Admit(next++, user); };
    EXPECT_TRUE(connect(101) && connect(101));
    EXPECT_FALSE(connect(101)) << "its own two are used";
    EXPECT_TRUE(connect(102) && connect(102) && connect(103));
    EXPECT_FALSE(connect(104)) << "the five of all are used";
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(connect(kRoot)) << i;
    }
    EXPECT_FALSE(connect(kRoot));
    limiter.Forget(1000);
    limiter.Forget(1000);
    EXPECT_TRUE(connect(104));
    EXPECT_FALSE(connect(101)) << "one was given up, and is another's now";

    for (const uid_t user : {101, 102, 103}) {
        EXPECT_TRUE(limiter.AddRequest(user));
        EXPECT_TRUE(limiter.AddRequest(kRoot));
    }
    EXPECT_FALSE(limiter.AddRequest(104));
    EXPECT_FALSE(limiter.AddRequest(kRoot));
    limiter.RemoveRequest(104);
    limiter.RemoveRequest(101);
    EXPECT_TRUE(limiter.AddRequest(104));

    EXPECT_TRUE(limiter.AddBody(101, 60));
    EXPECT_FALSE(limiter.AddBody(101, 1));
    EXPECT_FALSE(limiter.AddBody(102, 41));
    EXPECT_TRUE(limiter.AddBody(102, 40));
    EXPECT_TRUE(limiter.AddBody(kRoot, 100));
    EXPECT_FALSE(limiter.AddBody(kRoot, 1));
    limiter.RemoveBody(101, 60);
    EXPECT_TRUE(limiter.AddBody(102, 20));
}

TEST_F(HttpTest, RunOnceAnswersWhenTheCallReturns) {
    Serve({.idle = std::chrono::seconds(1)});
    EXPECT_EQ(R"({"name":"good.json","accepted":true})", Post("/v1/runonce", R"({"name":"good.json"})").text);
    EXPECT_EQ(R"({"name":"bad.json","accepted":false})", Post("/v1/runonce", R"({"name":"bad.json"})").text);
    EXPECT_EQ(503, Post("/v1/runonce", R"({"name":"stopped.json"})").status);
    for (const char* body :
         {R"({"name":""})", R"({"name":"a/b.json"})", R"({"name":"a\nb.json"})", R"({"name":"a\u007f.json"})",
          R"({"name":"a\u0085.json"})", R"({"name":".."})", R"({"name":"a\u0000"})", R"({"name":5})", "{}"}) {
        ExpectProblem(Post("/v1/runonce", body), 400, "\"name\"");
    }

    auto slow = std::async(std::launch::async, [&] { return Post("/v1/runonce", R"({"name":"slow.json"})"); });
    ASSERT_TRUE(WaitUntil([&] { return agent_.running == 1; }));
    // A client that sends half a request is cut off after the idle time; the call above takes longer than that.
    EXPECT_EQ("", Raw("POST"));
    agent_.finish.Set();
    EXPECT_EQ(R"({"name":"slow.json","accepted":false})", slow.get().text);
}

TEST_F(HttpTest, SixtyFourRequestsAreServedAtOnce) {
    constexpr int kCalls = 64;
    std::vector<std::future<Reply>> calls;
    calls.reserve(kCalls);
    for (int i = 0; i < kCalls; ++i) {  // each of them returns when all of them are there
        calls.push_back(
            std::async(std::launch::async, [this] { return Post("/v1/runonce", R"({"name":"slow.json"})"); }));
    }
    ASSERT_TRUE(WaitUntil([&] { return agent_.running == kCalls; }));
    const Reply refused = Get("/v1/status");
    ExpectProblem(refused, 503, "Too many requests");
    EXPECT_EQ("2", refused.Header("Retry-After"));
    agent_.finish.Set();
    for (auto& call : calls) {
        EXPECT_EQ(200, call.get().status);
    }
}

TEST_F(HttpTest, ALongPollOutlastsTheIdleTimeAndEndsWithItsReport) {
    Serve({.idle = std::chrono::seconds(1)});
    EXPECT_EQ(R"({"reports":[],"cursor":0})", Get("/v1/reports?id=wanted&wait=2").text);
    EXPECT_EQ(std::chrono::seconds(2), agent_.report_query.wait);
    auto poll = std::async(std::launch::async, [this] { return Get("/v1/reports?wait=60"); });
    agent_.AddReport({});
    EXPECT_EQ(1, poll.get().Body()["cursor"]);
}

TEST_F(HttpTest, AStopWakesLongPollsAndRemovesTheSocket) {
    auto poll = std::async(std::launch::async, [this] { return Get("/v1/reports?after=1&wait=60"); });
    ASSERT_TRUE(agent_.waiting.Wait());
    const int idle = Connect();
    EXPECT_EQ(200, Get("/v1/status").status);
    agent_.changed.Set();
    server_->Stop();
    EXPECT_FALSE(std::filesystem::exists(socket_));
    EXPECT_EQ(R"({"reports":[],"cursor":1})", poll.get().text);
    char byte = 0;
    EXPECT_EQ(0, recv(idle, &byte, 1, 0));
    close(idle);
    server_->Stop();
}

TEST_F(HttpTest, EveryDescriptorIsCloseOnExec) {
    const auto inherited = [] {
        int open = 0;
        for (int fd = 0; fd < 1024; ++fd) {
            open += fcntl(fd, F_GETFD) == 0 ? 1 : 0;
        }
        return open;
    };
    auto slow = std::async(std::launch::async, [&] { return Post("/v1/runonce", R"({"name":"slow.json"})"); });
    ASSERT_TRUE(WaitUntil([&] { return agent_.running == 1; }));  // so that an accepted connection is among them
    const int serving = inherited();
    agent_.finish.Set();
    slow.get();
    StopServing();
    EXPECT_EQ(inherited(), serving);
}

}  // namespace
}  // namespace qxpagent
