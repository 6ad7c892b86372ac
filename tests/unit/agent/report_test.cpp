#include <gmock/gmock.h>

#include <thread>

#include "agent/bus/components.h"
#include "agent/bus/endpoint.h"
#include "agent/bus/message_bus.h"
#include "base/time_text.h"
#include "tests/unit/agent/store_fixture.h"

namespace qxpagent {
namespace {

using testing::_;
using testing::FieldsAre;

TEST(ReportEnvelopeTest, EveryByteIsAccountedFor) {
    const std::string good = Envelope("{}", 1, -7);
    ASSERT_EQ(151U, good.size());
    EXPECT_THAT(DecodeReportEnvelope(good), testing::Optional(FieldsAre(1U, -7, "{}")));

    for (size_t size = 0; size < good.size(); ++size) {
        EXPECT_FALSE(DecodeReportEnvelope(good.substr(0, size)).has_value()) << size;
    }
    std::string huge = good;
    huge.replace(144, 4, 4, '\xff');
    for (const std::string& bad :
         {good + '\0', Envelope("{}", 0), Envelope("{}", 3), good.substr(0, good.size() - 1) + 'x', huge}) {
        EXPECT_FALSE(DecodeReportEnvelope(bad).has_value()) << bad;
    }
}

class ManagerTest : public StoreTest {
protected:
    ManagerTest() { EXPECT_EQ(kBusOk, plugin_.Initialize(kPluginId)); }

    int Send(const std::string& text, CompletionLog* log = nullptr, const GUID& target = kManagerId) {
        const std::string body = Envelope(text);
        return plugin_.SendAsync(target, kReportMessage, reinterpret_cast<const unsigned char*>(body.data()),
                                 static_cast<unsigned int>(body.size()), log, nullptr, nullptr, 60000);
    }

    std::atomic<int> stored_{0};
    ReportIntake intake_{*store_,
                         counters_,
                         [](const std::string& id) { return id == "delivering"; },
                         [this] { ++stored_; },
                         {.reports = 3}};
    MessageBus bus_{{.delivery_threads = 1, .queued_messages = 2}};
    Manager manager_{bus_, [this](std::string_view body) { return intake_.AcceptMessage(body); }};
    Endpoint plugin_{bus_};
};

TEST_F(ManagerTest, AReportIsStoredWhenTheSendOfItReturns) {
    CompletionLog log;
    for (const std::string text : {R"({"ID":"c1"})", "not json", R"({"ID":"say \"hi\""})"}) {
        const uint64_t before = store_->Figures().reports;
        while (Send(text, &log) == kBusQueueFull) {  // until the completions before have been told
            ASSERT_EQ(before, store_->Figures().reports) << "a send that is refused stores nothing";
        }
        ASSERT_EQ(before + 1, store_->Figures().reports) << text;
    }
    EXPECT_EQ(kBusOk, log.WaitFor(3).at(0).outcome);
    EXPECT_EQ(3, stored_);
    const auto reports = store_->ListReports({});
    const auto is = [](const char* id, const char* text) {
        return FieldsAre(_, id, ReportSource::kPlugin, "", _, std::nullopt, 2U, 1, text, strlen(text));
    };
    ASSERT_THAT(reports, testing::ElementsAre(is("c1", R"({"ID":"c1"})"), is("", "not json"),
                                              is("say \"hi\"", R"({"ID":"say \"hi\""})")));
    const auto age = std::chrono::system_clock::now() - reports[0].received;
    EXPECT_TRUE(age > std::chrono::seconds(-1) && age < DEADLINE);
    EXPECT_EQ(kBusOk, Send("{}")) << "without anybody to tell";

    const unsigned char malformed[] = {1, 2, 3};
    EXPECT_NE(kBusOk, plugin_.SendAsync(kManagerId, kReportMessage, malformed, 3, &log, nullptr, nullptr, 60000));
    bus_.Shutdown();
    EXPECT_EQ(kBusShutDown, Send("{}", &log));
    EXPECT_EQ(3U, log.WaitFor(3).size()) << "a send that is refused is not completed";
    EXPECT_EQ(4U, store_->Figures().reports);
}

TEST_F(ManagerTest, ARefusalIsBelievedOnlyForACommandThatIsBeingDelivered) {
    for (const char* id : {"running", "delivering"}) {
        Deliver(id);
        EXPECT_EQ(kBusOk, Send(R"({"ID":")" + std::string(id) + R"(","msg_type":"4","data_type":"x"})"));
    }
    EXPECT_EQ(CommandState::kDelivered, Find("running").state);
    EXPECT_EQ(CommandState::kRefused, Find("delivering").state);
    EXPECT_EQ(2U, store_->Figures().reports) << "both are kept";
}

TEST_F(ManagerTest, AReportThatTheStoreDoesNotTakeWaitsWithThoseBehindIt) {
    auto lock = Lock();
    for (const char* text : {R"({"ID":"1"})", R"({"ID":"2"})"}) {
        EXPECT_EQ(kBusOk, Send(text));
    }
    EXPECT_EQ(2U, intake_.StoreWaiting());
    lock.reset();
    EXPECT_EQ(kBusOk, Send(R"({"ID":"3"})")) << "and does not overtake them";
    EXPECT_NE(kBusOk, Send(R"({"ID":"4"})")) << "there is room for three";
    EXPECT_EQ(0U, store_->Figures().reports);
    EXPECT_EQ(0U, intake_.StoreWaiting());
    const auto is = [](const char* id) { return testing::Field(&Report::id, id); };
    EXPECT_THAT(store_->ListReports({}), testing::ElementsAre(is("1"), is("2"), is("3")));
    EXPECT_THAT(intake_.ExtractLost(), testing::ElementsAre(testing::Field(&ReportContent::id, "4")));
    EXPECT_THAT(intake_.ExtractLost(), testing::IsEmpty());
    EXPECT_EQ(1, counters_.reports_lost.Value());
    EXPECT_EQ(kBusOk, Send("{}")) << "there is room again";
}

TEST_F(ManagerTest, TheBusEndsOnlyWhenAReportThatIsBeingTakenIsCompleted) {
    constexpr GUID kSlow = ParseGuid("00000000-0000-0000-0000-00000000000C");
    Gate gate;
    ASSERT_EQ(kBusOk, bus_.Attach(kSlow));
    ASSERT_EQ(kBusOk, bus_.RegisterDirect(kSlow, kReportMessage, [&](std::string_view) { return gate.Pass(); }));
    FunctionSink sink([](const Received&) {});
    EXPECT_EQ(kBusTypeTaken, bus_.Register(kSlow, kReportMessage, &sink, nullptr));
    CompletionLog log;
    const std::jthread sending([&] { EXPECT_EQ(kBusOk, Send("{}", &log, kSlow)); });
    ASSERT_TRUE(gate.reached.Wait());
    const std::jthread leaving([&] {
        EXPECT_EQ(kBusOk, bus_.Detach(kSlow));
        EXPECT_TRUE(gate.open.IsSet()) << "a receiver is not left while it is at work";
    });
    std::jthread ending([&] { bus_.Shutdown(); });
    while (Send("{}") != kBusShutDown) {  // until the bus is ending
    }
    gate.open.Set();
    ending.join();
    EXPECT_EQ(1U, log.WaitFor(1).size());
}

TEST(ReportDocumentTest, IsReadAsFarAsItGoes) {
    const ReportContent content = ReadReport(
        R"({"ID":"c","msg_type":"1","data":{"result":[)"
        R"({"scriptid":"a","run_result":"1","run_outdata":"\u00e9x","run_starttime":"s","run_runningtime":"7",)"
        R"("run_endtime":"e","filepath":"/f"},{"scriptid":"b","run_result":"0","run_endtime":""},{}]}})");
    EXPECT_THAT(content, FieldsAre(true, "c", false,
                                   testing::ElementsAre(FieldsAre("a", "s", "/f", true, false, 7U, 3U),
                                                        FieldsAre("b", "", "", false, true, 0U, 0U),
                                                        FieldsAre("", "", "", false, true, 0U, 0U))));
    EXPECT_TRUE(ReadReport(R"({"ID":"c","msg_type":"4"})").refusal);
    EXPECT_TRUE(ReadReport("[]").readable);
    EXPECT_FALSE(ReadReport("{").readable);
    EXPECT_FALSE(ReadReport(std::string("{}\0", 3)).readable);
}

TEST(LocalTimeTextTest, IsRfc3339WithTheOffsetOfThePlace) {
    const std::chrono::system_clock::time_point time{std::chrono::milliseconds(1795224090007)};
    for (const auto& [zone, text] : {std::pair("UTC", "2026-11-21T01:21:30.007+00:00"),
                                     {"XST-8", "2026-11-21T09:21:30.007+08:00"},
                                     {"XST3:30", "2026-11-20T21:51:30.007-03:30"}}) {
        setenv("TZ", zone, 1);
        tzset();
        EXPECT_EQ(text, qxpbase::LocalTimeText(time));
    }
    unsetenv("TZ");
    tzset();
}

}  // namespace
}  // namespace qxpagent
