#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <list>
#include <stdexcept>
#include <thread>

#include "agent/bus/components.h"
#include "agent/bus/endpoint.h"
#include "agent/bus/message_bus.h"
#include "agent/config/settings.h"
#include "tests/unit/agent/test_support.h"

namespace qxpagent {
namespace {

using testing::FieldsAre;

constexpr GUID kAlice = ParseGuid("00000000-0000-0000-0000-00000000000A");
constexpr GUID kBob = ParseGuid("00000000-0000-0000-0000-00000000000B");
constexpr long kType = 7;
constexpr long kOtherType = 8;
constexpr unsigned int kLong = 60000;

const unsigned char* Bytes(const char* text) {
    return reinterpret_cast<const unsigned char*>(text);
}

// Alice sends, Bob receives.
class BusTest : public testing::Test {
protected:
    BusTest() {
        EXPECT_EQ(kBusOk, alice_.Initialize(kAlice));
        EXPECT_EQ(kBusOk, bob_.Initialize(kBob));
    }

    struct Outcome {
        int result;
        unsigned int status;
        std::string reply;
    };
    Outcome Ask(const GUID& target, long type, const char* text, unsigned int timeout = kLong) {
        unsigned int status = 999;
        unsigned char* reply = nullptr;
        unsigned int length = 0;
        const int result = alice_.SendRequest(target, type, Bytes(text), static_cast<unsigned int>(std::strlen(text)),
                                              &status, &reply, &length, timeout);
        Outcome outcome{result, status, std::string(reinterpret_cast<const char*>(reply), length)};
        EXPECT_EQ(reply != nullptr ? kBusOk : kBusBadArgument, alice_.FreeReply(reply));
        EXPECT_EQ(kBusBadArgument, alice_.FreeReply(reply)) << "released already";
        return outcome;
    }
    int Send(const std::string& body, CompletionLog& log, long type = kType, unsigned int timeout = kLong) {
        return alice_.SendAsync(kBob, type, Bytes(body.data()), static_cast<unsigned int>(body.size()), &log, nullptr,
                                nullptr, timeout);
    }
    // Bob gets the messages of a type.
    void OnMessage(std::function<void(const Received&)> function, long type = kType) {
        sinks_.emplace_back(std::move(function));
        ASSERT_EQ(kBusOk, bob_.RegisterReceive(type, &sinks_.back(), &bob_));
    }
    static int ReplyAs(Endpoint& endpoint, const char* text, void* token, int status = 0) {
        return endpoint.Reply(status, kType, Bytes(text), static_cast<unsigned int>(std::strlen(text)), token);
    }

    std::list<FunctionSink> sinks_;
    MessageBus bus_{{.delivery_threads = 2, .queued_messages = 4, .queued_bytes = 100}};
    Endpoint alice_{bus_};
    Endpoint bob_{bus_};
};

TEST_F(BusTest, ARequestCarriesEverythingThereAndBack) {
    OnMessage([&bob = bob_](const Received& message) {
        EXPECT_TRUE(SameId(kAlice, message.sender));
        EXPECT_EQ(&bob, message.context);
        const int replied = ReplyAs(bob, message.body == "ping" ? "pong" : "", message.token, 42);
        EXPECT_EQ(kBusOk, replied);
    });
    EXPECT_THAT(Ask(kBob, kType, "ping"), FieldsAre(kBusOk, 42U, "pong"));
    EXPECT_EQ("", Ask(kBob, kType, "else").reply);

    EXPECT_EQ(kBusUndelivered, Ask(kBob, kOtherType, "").result);
    EXPECT_EQ(kBusUndelivered, Ask(kManagerId, kType, "").result);
    ASSERT_EQ(kBusOk, bob_.UnregisterReceive(kType));
    EXPECT_EQ(kBusUndelivered, Ask(kBob, kType, "ping").result);
}

TEST_F(BusTest, NamesAndRegistrationsAreExclusive) {
    FunctionSink sink([](const Received&) {});
    Endpoint impostor(bus_);
    EXPECT_EQ(kBusNameTaken, impostor.Initialize(kBob));
    EXPECT_EQ(kBusNotAttached, impostor.RegisterReceive(kType, &sink, nullptr));
    EXPECT_EQ(kBusNotAttached, impostor.SendAsync(kBob, kType, nullptr, 0, nullptr, nullptr, nullptr, kLong));
    EXPECT_EQ(kBusNameTaken, bob_.Initialize(kManagerId)) << "attached already";
    EXPECT_EQ(kBusBadArgument, bob_.RegisterReceive(kType, nullptr, nullptr));
    EXPECT_EQ(kBusOk, bob_.RegisterReceive(kType, &sink, nullptr));
    EXPECT_EQ(kBusTypeTaken, bob_.RegisterReceive(kType, &sink, nullptr));
    EXPECT_EQ(kBusOk, bob_.Uninitialize());
    EXPECT_EQ(kBusUndelivered, Ask(kBob, kType, "").result);
    EXPECT_EQ(kBusOk, impostor.Initialize(kBob));
    EXPECT_EQ(kBusNotRegistered, impostor.UnregisterReceive(kType)) << "registrations end with the name";
    EXPECT_EQ(kBusBadArgument, alice_.SendAsync(kBob, kType, nullptr, 3, nullptr, nullptr, nullptr, kLong));
}

TEST_F(BusTest, AReplyTokenIsGoodOnceForItsReceiverInItsTime) {
    void* token = nullptr;
    OnMessage([&](const Received& message) {
        token = message.token;
        if (message.body == "forget") {
            return;
        }
        EXPECT_EQ(kBusStaleToken, ReplyAs(alice_, "foreign", message.token));
        EXPECT_EQ(kBusStaleToken, ReplyAs(bob_, "made up", &token));
        EXPECT_EQ(kBusOk, ReplyAs(bob_, "first", message.token));
        EXPECT_EQ(kBusStaleToken, ReplyAs(bob_, "second", message.token));
        throw std::runtime_error("after the answer, which counts");
    });
    for (int round = 0; round < 20; ++round) {  // the sender may wake before or after the receiver fails
        EXPECT_EQ("first", Ask(kBob, kType, "answer").reply);
    }
    EXPECT_EQ(kBusBadArgument, ReplyAs(bob_, "null", nullptr));

    EXPECT_EQ(kBusTimedOut, Ask(kBob, kType, "forget", 50).result);
    EXPECT_EQ(kBusStaleToken, ReplyAs(bob_, "late", token));

    // A receiver may keep the token of a request and answer after its callback has returned, from any thread.
    Happening delivered;
    const auto keep = [&](const Received& message) {
        token = message.token;
        delivered.Set();
    };
    OnMessage(keep, kOtherType);
    const std::jthread answering([&] {
        EXPECT_TRUE(delivered.Wait());
        EXPECT_EQ(kBusOk, ReplyAs(bob_, "deferred", token));
    });
    EXPECT_EQ("deferred", Ask(kBob, kOtherType, "").reply);
}

TEST_F(BusTest, UnregisterReturnsOnlyWhenNoDeliveryIsInFlight) {
    Gate gate;
    std::atomic<bool> finished{false};
    OnMessage([&](const Received& message) {
        if (message.body == "probe") {
            ReplyAs(bob_, "", message.token);
            return;
        }
        EXPECT_TRUE(gate.Pass());
        finished = true;
    });
    CompletionLog log;
    ASSERT_EQ(kBusOk, Send("", log));
    ASSERT_TRUE(gate.reached.Wait());
    const std::jthread unregistering([&] {
        EXPECT_EQ(kBusOk, bob_.UnregisterReceive(kType));
        EXPECT_TRUE(finished);
    });
    while (Ask(kBob, kType, "probe").result != kBusUndelivered) {  // until the thread is in the function
    }
    const std::jthread detaching([&] {
        EXPECT_EQ(kBusOk, bob_.Uninitialize());
        EXPECT_TRUE(finished) << "a delivery that outlives its registration still counts";
    });
    gate.open.Set();
    EXPECT_EQ(kBusOk, log.WaitFor(1).at(0).outcome);
}

TEST_F(BusTest, UnregisterFromWithinDeliveriesThatOverlapDoesNotDeadlock) {
    std::atomic<int> inside{0};
    Happening both;
    Happening leave;
    OnMessage([&](const Received&) {
        if (++inside == 2) {
            both.Set();
        }
        EXPECT_TRUE(both.Wait());
        bob_.UnregisterReceive(kType);
        bob_.UnregisterReceive(kType);
        EXPECT_TRUE(leave.Wait());
        --inside;
    });
    CompletionLog log;
    Send("", log);
    Send("", log);
    ASSERT_TRUE(both.Wait());
    const std::jthread outside([&] {
        bob_.UnregisterReceive(kType);
        EXPECT_EQ(0, inside) << "from outside, every delivery is waited for";
    });
    leave.Set();
    EXPECT_EQ(2U, log.WaitFor(2).size());
}

TEST_F(BusTest, EachSendIsCompletedOnceWithItsOutcome) {
    OnMessage([&](const Received& message) {
        if (message.body == "throw") {
            throw std::runtime_error("on purpose");
        }
        if (message.body == "throw an int") {
            throw 1;  // NOLINT(hicpp-exception-baseclass)
        }
        EXPECT_EQ(kBusOk, ReplyAs(bob_, "got it", message.token));
    });
    CompletionLog log;
    unsigned long number = 0;
    int context = 0;
    std::string body = "hello";
    ASSERT_EQ(kBusOk, alice_.SendAsync(kBob, kType, Bytes(body.data()), 5, &log, &context, &number, kLong));
    body.assign("XXXXX");  // the bus has its own copy
    EXPECT_THAT(log.WaitFor(1).at(0), FieldsAre(kBusOk, kType, "got it", number, &context));

    Send("throw", log);
    EXPECT_EQ(kBusReceiverFailed, log.WaitFor(2).at(1).outcome);
    Send("throw an int", log);
    EXPECT_EQ(kBusReceiverFailed, log.WaitFor(3).at(2).outcome);
    Send("", log, kOtherType);
    EXPECT_EQ(kBusUndelivered, log.WaitFor(4).at(3).outcome);
    bus_.Shutdown();
    EXPECT_EQ(4U, log.WaitFor(4).size()) << "none was completed twice";
}

TEST_F(BusTest, TheQueueIsBoundedAndExpiresWhileEveryThreadIsBusy) {
    Happening release;
    std::atomic<int> delivered{0};
    OnMessage([&](const Received&) {
        ++delivered;
        EXPECT_TRUE(release.Wait());
    });
    CompletionLog busy;
    Send("", busy);
    Send("", busy);
    ASSERT_TRUE(WaitUntil([&] { return delivered == 2; }));
    EXPECT_EQ(kBusTimedOut, Ask(kBob, kType, "late", 50).result);

    CompletionLog refused;
    CompletionLog queued;
    CompletionLog taken;
    ASSERT_EQ(kBusOk, bus_.RegisterDirect(kBob, kOtherType, [](std::string_view) { return true; }));
    EXPECT_EQ(kBusOk, Send("", taken, kOtherType, 1));
    EXPECT_EQ(kBusQueueFull, Send(std::string(101, 'x'), refused)) << "100 bytes is the limit";
    EXPECT_EQ(kBusOk, Send(std::string(60, 'x'), queued, kType, 1));
    EXPECT_EQ(kBusTimedOut, queued.WaitFor(1).at(0).outcome);
    EXPECT_EQ(kBusOk, Send(std::string(100, 'x'), queued)) << "what expired makes room";
    EXPECT_EQ(kBusQueueFull, Send("y", refused));
    EXPECT_EQ(kBusOk, Send("", queued));
    EXPECT_EQ(kBusOk, Send("", queued));
    EXPECT_EQ(kBusQueueFull, Send("", refused)) << "4 messages is the limit";

    release.Set();
    bus_.Shutdown();  // delivers what is queued
    EXPECT_EQ(kBusOk, taken.WaitFor(1).at(0).outcome) << "what was taken never expires";
    const auto completed = [](int outcome) { return testing::Field(&CompletionLog::Entry::outcome, outcome); };
    EXPECT_THAT(queued.WaitFor(4),
                testing::ElementsAre(completed(kBusTimedOut), completed(kBusOk), completed(kBusOk), completed(kBusOk)));
    EXPECT_EQ(5, delivered) << "what timed out in the queue never is";
    EXPECT_EQ(kBusShutDown, Send("", refused));
    EXPECT_EQ(2U, busy.WaitFor(2).size());
}

TEST_F(BusTest, ShutdownEndsARequestThatNobodyAnswers) {
    Happening delivered;
    OnMessage([&](const Received&) { delivered.Set(); });
    const std::jthread asking([&] { EXPECT_EQ(kBusShutDown, Ask(kBob, kType, "", 3600000).result); });
    EXPECT_TRUE(delivered.Wait());
    bus_.Shutdown();
}

TEST(BusStressTest, NoSinkIsCalledAfterItWasUnregisteredAndNoCompletionIsLost) {
    constexpr int kSenders = 3;
    constexpr size_t kMessages = 5000;
    MessageBus bus;
    Endpoint receiver(bus);
    ASSERT_EQ(kBusOk, receiver.Initialize(kBob));
    CompletionLog log;
    std::atomic<bool> done{false};
    std::thread registering([&] {
        while (!done) {
            auto alive = std::make_unique<bool>(true);
            FunctionSink sink([flag = alive.get()](const Received&) { EXPECT_TRUE(*flag); });
            EXPECT_EQ(kBusOk, receiver.RegisterReceive(kType, &sink, nullptr));
            std::this_thread::yield();
            EXPECT_EQ(kBusOk, receiver.UnregisterReceive(kType));
        }  // sink and flag die here
    });
    const auto send = [&] {
        for (size_t sent = 0; sent < kMessages;) {
            const int result = receiver.SendAsync(kBob, kType, Bytes("x"), 1, &log, nullptr, nullptr, kLong);
            sent += result == kBusOk ? 1 : 0;
            EXPECT_TRUE(result == kBusOk || result == kBusQueueFull) << result;
        }
    };
    std::vector<std::jthread> senders;
    std::generate_n(std::back_inserter(senders), kSenders, [&] { return std::jthread(send); });
    senders.clear();
    EXPECT_EQ(kSenders * kMessages, log.WaitFor(kSenders * kMessages).size());
    done = true;
    registering.join();
}

TEST_F(BusTest, ThePluginIsAskedAndToldInItsOwnTerms) {
    ServerData server_data(bus_);
    Endpoint plugin(bus_);
    ASSERT_EQ(kBusOk, plugin.Initialize(kPluginId));
    EXPECT_EQ(kBusUndelivered, server_data.Send("{}")) << "the plugin does not take commands yet";

    const char* acknowledgement = "success";
    std::string told;
    FunctionSink sink([&](const Received& message) {
        told = message.body;
        ReplyAs(plugin, acknowledgement, message.token);
    });
    ASSERT_EQ(kBusOk, plugin.RegisterReceive(kCommandMessage, &sink, nullptr));
    EXPECT_EQ(kBusOk, server_data.Send(R"({"ID":"7"})"));
    EXPECT_EQ(R"({"ID":"7"})", told);
    acknowledgement = "what?";
    EXPECT_EQ(kBusReceiverFailed, server_data.Send("{}"));

    for (const auto& [address, said] : {std::pair("", R"({"onlineflag":"0","ip":"","port":""})"),
                                        {"10.0.0.5:8443", R"({"onlineflag":"1","ip":"10.0.0.5","port":"8443"})"}}) {
        MessageBus asked;
        const AgentConnect connect(asked, ParseServerAddress(address));
        EXPECT_EQ(kBusOk, asked.Attach(kPluginId));
        BusAnswer answer;
        ASSERT_EQ(kBusOk, asked.Request(kPluginId, kAgentConnectId, kConnectQueryMessage, "", DEADLINE, answer));
        EXPECT_EQ(said, answer.bytes);
        asked.Shutdown();
    }
}

TEST(ServerAddressTest, IsCheckedAsAWhole) {
    EXPECT_EQ("server.example", ParseServerAddress("server.example:1")->ip);
    EXPECT_EQ("fe80::1", ParseServerAddress("[fe80::1]:443")->ip);
    EXPECT_EQ("65535", ParseServerAddress("10.0.0.5:65535")->port);
    for (const char* wrong : {"", ":", "host", "host:", ":1", "host:0", "host:65536", "host:-1", "host:1x", "[]:1",
                              "fe80::1:443", "ho st:1", "host\":1"}) {
        EXPECT_FALSE(ParseServerAddress(wrong).has_value()) << wrong;
    }
}

}  // namespace
}  // namespace qxpagent
