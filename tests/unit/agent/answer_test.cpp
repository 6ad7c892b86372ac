// Answers with large texts in them, from the store to the socket.
#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <iostream>
#include <string>

#include "agent/store/store.h"
#include "tests/support/allocated.h"
#include "tests/unit/agent/http_fixture.h"

namespace qxpagent {
namespace {

/// An agent whose reports are in a store.
class StoredAgent final : public FakeAgent {
public:
    explicit StoredAgent(const std::filesystem::path& file) : store({.path = file}) {}
    std::vector<Report> ListReports(const ReportQuery& query) override { return store.ListReports(query); }

    Store store;
};

class AnswerTest : public HttpTest {
protected:
    AnswerTest() { Serve(stored_api_); }
    ~AnswerTest() override { server_.reset(); }

    void Store(const std::string& id, const std::string& text) {
        Report report;
        report.id = id;
        report.received = std::chrono::system_clock::now();
        stored_.store.Append(report, text, ReadReport(text));
    }

    StoredAgent stored_{directory_.Path() / "agent.db"};
    Api stored_api_{stored_};
};

TEST_F(AnswerTest, TextsComeAsTheyAreStoredAndTheAnswerStaysOneDocument) {
    const std::string document = "{ \"ID\":\"d\",\n\"n\":1.50,\"o\":\"" + std::string(3000000, 'x') + "\\u00e9\" }\n";
    Store("d", document);
    Store("mark", "\xef\xbb\xbf{\"a\":1}");
    Store("nothing", "");
    // Characters of two bytes lie across every slice, from an odd place on.
    std::string words = "no JSON \x01\"\\ ";
    std::string expected = words;
    for (int i = 0; i < 200000; ++i) {
        words += i == 100000 ? "\xff" : "é";
        expected += i == 100000 ? "\xef\xbf\xbd" : "é";
    }
    Store("words", words);
    const Reply reply = Get("/v1/reports");
    EXPECT_NE(std::string::npos, reply.text.find("\"document\":" + document + "}")) << "not a byte differs";
    const auto reports = reply.Body()["reports"];
    ASSERT_EQ(4U, reports.size()) << reply.text.substr(0, 1000);
    EXPECT_EQ(R"({"a":1})", reports[1]["document"].dump());
    EXPECT_EQ("", reports[2]["text"]);
    EXPECT_TRUE(reports[3]["document"].is_null());
    EXPECT_TRUE(expected == reports[3]["text"].get<std::string>());
    EXPECT_EQ(4, reply.Body()["cursor"]);
    EXPECT_EQ(std::to_string(reply.text.size()), reply.Header("Content-Length"));

    constexpr int kMany = 800;  // more pieces than one system call takes
    for (int i = 4; i < kMany; ++i) {
        Store("n", "[" + std::to_string(i) + "]");
    }
    const auto many = Get("/v1/reports?limit=1000").Body()["reports"];
    ASSERT_EQ(kMany, many.size());
    for (int i = 4; i < kMany; ++i) {
        ASSERT_EQ(i, many[i]["document"][0]);
    }
}

// How much of an answer is '#', without keeping any of it.
size_t CountMarks(int connection, const std::string& target) {
    const std::string request = "GET " + target + " HTTP/1.1\r\nHost: agent\r\nConnection: close\r\n\r\n";
    EXPECT_EQ(static_cast<ssize_t>(request.size()), write(connection, request.data(), request.size()));
    std::array<char, 65536> buffer{};
    size_t marks = 0;
    for (ssize_t size = 0; (size = read(connection, buffer.data(), buffer.size())) > 0;) {
        marks += static_cast<size_t>(std::count(buffer.begin(), buffer.begin() + size, '#'));
    }
    close(connection);
    return marks;
}

TEST_F(AnswerTest, TheLargestReportCostsItsOwnSizeOnce) {
    if (SANITIZED) {
        GTEST_SKIP() << "a sanitizer keeps memory of its own";
    }
    constexpr size_t kValues = 63;  // as many runs as one report may have, with full output
    constexpr size_t kMarks = kValues * (size_t{2} << 20);
    {
        std::string text = R"({"ID":"large","x":[)";
        for (size_t value = 0; value < kValues; ++value) {
            text.append(value == 0 ? "\"" : ",\"").append(kMarks / kValues, '#').append("\"");
        }
        Store("large", text + "]}");
    }
    stored_.commands = {CommandRecord()};
    stored_.commands[0].id = "large";
    for (const char* target : {"/v1/reports", "/v1/commands/large"}) {
        malloc_trim(0);
        ForgetPeak();
        const size_t before = StatusBytes("VmRSS:");
        EXPECT_EQ(kMarks, CountMarks(Connect(), target)) << target;
        const size_t peak = StatusBytes("VmHWM:") - before;
        std::cout << target << ": report of " << kMarks << " bytes, peak " << peak << " bytes, "
                  << static_cast<double>(peak) / static_cast<double>(kMarks) << " times its size" << std::endl;
        EXPECT_LT(peak, kMarks + kMarks / 2) << target;
    }
}

}  // namespace
}  // namespace qxpagent
