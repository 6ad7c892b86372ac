#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "agent/manager.h"
#include "agent/message_bus.h"
#include "agent/report_envelope.h"
#include "agent/report_store.h"
#include "agent/time_text.h"
#include "tests/unit/agent_test_support.h"

namespace qxpagent {
namespace {

constexpr std::chrono::hours kForEver{24};

Report ReportOf(const std::string& id, const std::string& text = "{}") {
    Report report;
    report.id = id;
    report.text = text;
    return report;
}

std::vector<uint64_t> Cursors(ReportStore& store, const ReportQuery& query) {
    std::vector<uint64_t> cursors;
    for (const auto& report : store.Fetch(query)) {
        cursors.push_back(report->cursor);
    }
    return cursors;
}

using List = std::vector<uint64_t>;

TEST(ReportStoreTest, FindsByIdAndCursorAndDropsTheOldest) {
    MemoryReportStore store({.reports = 4, .bytes = size_t{1} << 20});
    EXPECT_EQ(List{}, Cursors(store, {}));
    for (const char* id : {"a", "b", "a", "b"}) {
        store.Append(ReportOf(id));
    }
    EXPECT_EQ((List{1, 2, 3, 4}), Cursors(store, {}));
    EXPECT_EQ((List{3, 4}), Cursors(store, {std::nullopt, 2}));
    EXPECT_EQ((List{3}), Cursors(store, {"a", 1}));
    EXPECT_EQ(List{}, Cursors(store, {"", 0}));
    EXPECT_EQ(List{}, Cursors(store, {std::nullopt, UINT64_MAX}));
    EXPECT_EQ(5U, store.Append(ReportOf("a")));
    EXPECT_EQ((List{2, 3, 4, 5}), Cursors(store, {}));
    EXPECT_EQ(6U, store.Append(ReportOf("big", std::string(size_t{2} << 20, 'x'))));
    EXPECT_EQ((List{6}), Cursors(store, {})) << "even one that is over the limit alone is kept";
    EXPECT_EQ(1U, store.Counts().stored);
    EXPECT_EQ(6U, store.Counts().last_cursor);
}

TEST(ReportStoreTest, OneAnswerIsBoundedAndTheNextGoesOn) {
    MemoryReportStore store;
    for (size_t i = 0; i < ReportStore::kMostReports + 1; ++i) {
        store.Append(ReportOf("a"));
    }
    EXPECT_EQ(ReportStore::kMostReports, store.Fetch({}).size());
    EXPECT_EQ((List{ReportStore::kMostReports + 1}), Cursors(store, {std::nullopt, ReportStore::kMostReports}));

    const std::string half(ReportStore::kMostBytes / 2, 'x');
    for (int i = 0; i < 3; ++i) {
        store.Append(ReportOf("half", half));
    }
    EXPECT_EQ(2U, store.Fetch({"half"}).size());
}

TEST(ReportStoreTest, AWaitEndsWithAMatchItsTimeOrTheStop) {
    MemoryReportStore store;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(List{}, Cursors(store, {std::nullopt, 0, std::chrono::milliseconds(20)}));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(20));

    // Each side waits for the other's report: a wake-up that is lost ends the game.
    constexpr int kRounds = 200;
    const auto play = [&](const char* mine, const char* theirs, bool serves) {
        uint64_t seen = 0;
        for (int round = 0; round < kRounds; ++round) {
            if (serves || round > 0) {
                store.Append(ReportOf(mine));
            }
            const List answer = Cursors(store, {theirs, seen, kDeadline});
            ASSERT_EQ(1U, answer.size()) << mine << " in round " << round;
            seen = answer.back();
        }
        store.Append(ReportOf(mine));
    };
    std::thread other([&] { play("pong", "ping", false); });
    play("ping", "pong", true);
    other.join();

    std::thread stopped([&] { EXPECT_EQ(List{}, Cursors(store, {"never", 0, kForEver})); });
    store.StopWaiting();
    stopped.join();
    EXPECT_EQ(List{}, Cursors(store, {"never", 0, kForEver}));
    EXPECT_EQ(size_t{kRounds} + 1, store.Fetch({"ping", 0, kForEver}).size()) << "what is there can still be read";
}

std::string Envelope(const std::string& text, char type = 2, int value = 1) {
    std::string bytes(kEnvelopeHeaderBytes, '\0');
    bytes[0] = type;
    bytes.replace(4, sizeof(value), reinterpret_cast<const char*>(&value), sizeof(value));
    bytes[8] = 1;
    for (size_t i = 0; i < 4; ++i) {
        bytes[144 + i] = static_cast<char>(text.size() >> (8 * i));
    }
    return bytes + text + '\0';
}

TEST(ReportEnvelopeTest, EveryByteIsAccountedFor) {
    const std::string good = Envelope("{}", 1, -7);
    ASSERT_EQ(151U, good.size());
    const auto envelope = DecodeReportEnvelope(good);
    ASSERT_TRUE(envelope.has_value());
    EXPECT_EQ(1U, envelope->json_data_type);
    EXPECT_EQ(-7, envelope->value);
    EXPECT_EQ("{}", envelope->text);

    for (size_t size = 0; size < good.size(); ++size) {
        EXPECT_FALSE(DecodeReportEnvelope(good.substr(0, size)).has_value()) << size;
    }
    EXPECT_FALSE(DecodeReportEnvelope(good + '\0').has_value());
    EXPECT_FALSE(DecodeReportEnvelope(Envelope("{}", 0)).has_value());
    EXPECT_FALSE(DecodeReportEnvelope(Envelope("{}", 3)).has_value());
    std::string unterminated = good;
    unterminated.back() = 'x';
    EXPECT_FALSE(DecodeReportEnvelope(unterminated).has_value());
    std::string huge = good;
    huge.replace(144, 4, 4, '\xff');
    EXPECT_FALSE(DecodeReportEnvelope(huge).has_value());
}

TEST(ManagerTest, StoresReportsFromTheBusAndSurvivesMalformedOnes) {
    MemoryReportStore store;
    MessageBus bus({.delivery_threads = 1});
    {
        Manager manager(bus, store);
        ASSERT_EQ(kBusOk, bus.Attach(kPluginId));
        CompletionLog log;
        for (const std::string& body : {Envelope(R"({"ID":"c1"})"), std::string("short"), std::string(),
                                        Envelope("not json"), Envelope(R"({"ID":"say \"hi\""})")}) {
            ASSERT_EQ(kBusOk, bus.Post(kPluginId, kManagerId, kReportMessage, body, {&log, nullptr, 0}, kDeadline));
        }
        ASSERT_EQ(5U, log.WaitFor(5).size());
    }
    const auto reports = store.Fetch({});
    ASSERT_EQ(3U, reports.size());
    EXPECT_EQ("c1", reports[0]->id);
    EXPECT_EQ("", reports[1]->id);
    EXPECT_EQ("not json", reports[1]->text);
    EXPECT_EQ("say \"hi\"", reports[2]->id);
    const auto age = std::chrono::system_clock::now() - reports[0]->received;
    EXPECT_TRUE(age >= std::chrono::seconds(0) && age < kDeadline);
}

TEST(LocalTimeTextTest, IsRfc3339WithTheOffsetOfThePlace) {
    const std::chrono::system_clock::time_point time{std::chrono::milliseconds(1795224090007)};
    const char* const zone = getenv("TZ");
    const std::string saved = zone != nullptr ? zone : "";
    const auto in_zone = [&](const char* name) {
        setenv("TZ", name, 1);
        tzset();
        return LocalTimeText(time);
    };
    EXPECT_EQ("2026-11-21T01:21:30.007+00:00", in_zone("UTC"));
    EXPECT_EQ("2026-11-21T09:21:30.007+08:00", in_zone("XST-8"));
    EXPECT_EQ("2026-11-20T21:51:30.007-03:30", in_zone("XST3:30"));
    zone != nullptr ? setenv("TZ", saved.c_str(), 1) : unsetenv("TZ");
    tzset();
}

}  // namespace
}  // namespace qxpagent
