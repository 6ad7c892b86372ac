// The adapter over a scripted bus and a table of recording functions in place of the plugin core.

#include <gtest/gtest.h>
#include <pthread.h>

#include <stdexcept>

#include "plugin/adapter/adapter_mgr.h"
#include "plugin/adapter/bus_text.h"
#include "plugin/adapter/plugin_obj.h"
#include "qxhost/init_block.h"
#include "tests/plugin/scripted_endpoint.h"

namespace {

/// What the table's functions and the handlers were called with, in order. One thread at a time.
std::vector<std::string> g_calls;
std::function<void()> g_during_recv;

int Init(PluginInitParam* param) {
    g_calls.push_back(std::string("init ") + param->kv);
    return 3;
}

int Recv(const char* message) {
    g_calls.push_back(std::string("recv ") + message);
    if (g_during_recv) {
        g_during_recv();
    }
    return 0;
}

int Connect(const char* ip, unsigned short port) {
    g_calls.push_back("connect " + std::string(ip) + ":" + std::to_string(port));
    return 0;
}

template <char Name>
int Slot() {
    g_calls.push_back(std::string(1, Name));
    return Name;
}

int Notify(int type, const char* text) {
    g_calls.push_back("notify " + std::to_string(type) + " " + text);
    return 0;
}

using Calls = std::vector<std::string>;

bool IsCancelled(std::function<void()> body) {
    const auto run = [](void* argument) -> void* {
        (*static_cast<std::function<void()>*>(argument))();
        return nullptr;
    };
    pthread_t thread{};
    void* result = nullptr;
    EXPECT_EQ(pthread_create(&thread, nullptr, run, &body), 0);
    EXPECT_EQ(pthread_join(thread, &result), 0);
    return result == PTHREAD_CANCELED;
}

class AdapterTest : public testing::Test {
protected:
    AdapterTest() {
        g_calls.clear();
        g_during_recv = nullptr;
        table_.init = Init;
        table_.start = Slot<'s'>;
        table_.stop = Slot<'t'>;
        table_.uninit = Slot<'u'>;
        manager_ = CqxpmaintMgr::Instance();
        manager_->m_pPluginFun = &table_;
        manager_->plugin_name = "F87FC278-D443-4C25-95CB-58D6C48E9128";
        manager_->SetCtx(&endpoint_);
        PluginInitParam& param = manager_->m_stPluginInit;
        param.plugin_recv = Recv;
        param.plugin_connect = Connect;
        param.plugin_disconnect = Slot<'d'>;
        param.notify_mgr_to_plugin = Notify;
        manager_->m_stReceive.m_pPluginInit = &param;
    }
    ~AdapterTest() override { CqxpmaintMgr::DestroyInstance(); }

    Calls Receive(long type, const GUID& sender, const std::string& body) {
        g_calls.clear();
        manager_->m_stReceive.ReceiveCallback(sender, type, reinterpret_cast<const unsigned char*>(body.data()),
                                              static_cast<unsigned int>(body.size()), &token_,
                                              static_cast<IXBusMREndPoint4*>(&endpoint_));
        return g_calls;
    }

    int token_ = 0;
    ScriptedEndpoint endpoint_;
    PluginFunTable table_{};
    CqxpmaintMgr* manager_;
};

TEST(GuidText, BothFormsAreReadAndOneIsWritten) {
    EXPECT_TRUE(ParseGuid("f87fc278-D443-4C25-95CB-58D6C48E9128") == PLUGIN);
    EXPECT_TRUE(ParseGuid("{F87FC278-D443-4C25-95CB-58D6C48E9128}") == PLUGIN);
    EXPECT_EQ(FormatGuid(PLUGIN), "F87FC278-D443-4C25-95CB-58D6C48E9128");
    EXPECT_TRUE(ParseGuid(nullptr) == GUID{});
    EXPECT_EQ(FormatGuid(ParseGuid("0000000A-000B-zz")), "0000000A-000B-0000-0000-000000000000");
}

// Little-endian numbers, names padded to 64 bytes with NULs, and the text with a NUL behind it.
std::string Envelope(uint32_t type, int value4, int value8, std::string name1, std::string name2,
                     const std::string& json) {
    const auto bytes = [](auto number) {
        std::string text(4, '\0');
        for (size_t at = 0; at < 4; ++at) {
            text[at] = static_cast<char>(static_cast<uint32_t>(number) >> 8 * at);
        }
        return text;
    };
    name1.resize(64);
    name2.resize(64);
    return bytes(type) + bytes(value4) + bytes(value8) + bytes(0) + name1 + name2 + bytes(json.size()) + json + '\0';
}

TEST_F(AdapterTest, EnvelopeIsLaidOutByteForByte) {
    EXPECT_EQ(CqxpmaintMgr::AdapterSendToMgr(1, "one", "two", 7, reinterpret_cast<const unsigned char*>("{}"), 2), 0);
    const BusCall call = endpoint_.Calls("SendAsync").at(0);
    EXPECT_EQ(call.data, Envelope(1, 7, 1, "", "", "{}"));
    EXPECT_TRUE(call.component == MANAGER);
    EXPECT_EQ(call.type, 20300);
    EXPECT_EQ(call.timeout, 60000U);
    EXPECT_EQ(call.context, nullptr);
    EXPECT_NE(call.sink, nullptr);

    // Many bytes of every number, and names over their limit.
    const std::string json(70000, 'j');
    EXPECT_EQ(SendJsonComboDataAsyncEx(&endpoint_, 2, std::string(70, 'a').c_str(), "b", -2, 0x01020304, json.c_str()),
              0);
    EXPECT_EQ(endpoint_.Calls("SendAsync").at(1).data, Envelope(2, -2, 0x01020304, std::string(63, 'a'), "b", json));
    EXPECT_EQ(SendJsonComboDataAsyncEx(&endpoint_, 2, "a", "", 0, 0, "{}"), 0);
    EXPECT_EQ(endpoint_.Calls("SendAsync").at(2).data, Envelope(2, 0, 0, "", "", "{}"));
}

TEST_F(AdapterTest, WhatCannotBeSentIsRefusedWithItsCode) {
    const auto send = [](int type, const std::string& data, unsigned int length) {
        return CqxpmaintMgr::AdapterSendToMgr(type, "", "", 0, reinterpret_cast<const unsigned char*>(data.c_str()),
                                              length);
    };
    EXPECT_EQ(send(3, "{}", 2), -1);
    EXPECT_EQ(send(1, "{}", 0), -1);
    EXPECT_EQ(send(1, std::string("\0x", 2), 2), -1);
    EXPECT_EQ(CqxpmaintMgr::AdapterSendToMgr(1, "", "", 0, nullptr, 2), -1);
    const auto bad = static_cast<int>(0xE0010002);
    EXPECT_EQ(SendJsonComboDataAsyncEx(nullptr, 1, "", "", 0, 0, "{}"), bad);
    EXPECT_EQ(SendJsonComboDataAsyncEx(&endpoint_, 1, nullptr, "", 0, 0, "{}"), bad);
    EXPECT_EQ(SendJsonComboDataAsyncEx(&endpoint_, 1, "", nullptr, 0, 0, "{}"), bad);
    EXPECT_EQ(SendJsonComboDataAsyncEx(&endpoint_, 1, "", "", 0, 0, nullptr), bad);
    EXPECT_EQ(SendJsonComboDataAsyncEx(&endpoint_, 1, "", "", 0, 0, ""), bad);
    EXPECT_EQ(SendJsonComboDataAsyncEx(&endpoint_, 0, "", "", 0, 0, "{}"), static_cast<int>(0xA0010001));
    EXPECT_TRUE(endpoint_.Calls().empty());

    // Bytes behind an embedded NUL are dropped; a failing or throwing host is told as such.
    endpoint_.script.send = 55;
    EXPECT_EQ(send(2, std::string("{}\0{}", 5), 5), 55);
    EXPECT_EQ(endpoint_.Calls("SendAsync").at(0).data, Envelope(2, 0, 1, "", "", "{}"));
    endpoint_.script.during_send = [] { throw std::runtime_error("host"); };
    EXPECT_EQ(send(1, "{}", 2), -1);
    CqxpmaintMgr::DestroyInstance();
    EXPECT_EQ(send(1, "{}", 2), bad) << "a manager without an endpoint";
}

TEST_F(AdapterTest, EachMessageMeetsItsHandlerAndIsAcknowledged) {
    EXPECT_EQ(Receive(20001, SERVER_DATA, "{\"a\":1}"), Calls{"recv {\"a\":1}"});
    EXPECT_EQ(Receive(20001, SERVER_DATA, std::string("\0\0", 2)), Calls{"recv "});
    EXPECT_EQ(Receive(20001, AGENT_CONNECT, "x"), Calls{});
    EXPECT_EQ(Receive(1000, SERVER_DATA, R"({"ip":"10.0.0.5"})"), Calls{});
    EXPECT_EQ(Receive(1001, SERVER_DATA, ""), Calls{});
    EXPECT_EQ(manager_->m_stReceive.connect_state_flags, 0U);
    EXPECT_EQ(Receive(1001, AGENT_CONNECT, ""), Calls{"d"});
    EXPECT_EQ(manager_->m_stReceive.connect_state_flags, 2U);
    EXPECT_EQ(Receive(1000, AGENT_CONNECT, "not json"), Calls{});
    EXPECT_EQ(manager_->m_stReceive.connect_state_flags, 3U);
    EXPECT_EQ(Receive(1000, AGENT_CONNECT, R"({"onlineflag":"0","ip":"10.0.0.5","port":"443"})"),
              Calls{"connect 10.0.0.5:443"});
    EXPECT_EQ(Receive(1000, AGENT_CONNECT, R"({"ip":"","port":"443"})"), Calls{});

    manager_->m_stReceive.msg_type_registry = {{(1L << 32) + 5, {MANAGER, SERVER_DATA}}, {6, {}}};
    EXPECT_EQ(Receive((1L << 32) + 5, SERVER_DATA, "text"), Calls{"notify 5 text"});
    EXPECT_EQ(Receive((1L << 32) + 5, AGENT_CONNECT, "text"), Calls{});
    EXPECT_EQ(Receive(6, PLUGIN, ""), Calls{"notify 6 "});

    g_during_recv = [] { throw std::runtime_error("handler"); };
    EXPECT_EQ(Receive(20001, SERVER_DATA, "{}"), Calls{"recv {}"});
    manager_->m_stPluginInit = {};
    for (const long type : {20001L, 1000L, 1001L, 6L}) {
        EXPECT_EQ(Receive(type, type == 20001 ? SERVER_DATA : AGENT_CONNECT, "{}"), Calls{});
    }
    manager_->m_stReceive.m_pPluginInit = nullptr;
    EXPECT_EQ(Receive(20001, SERVER_DATA, "{}"), Calls{});

    const std::vector<BusCall> replies = endpoint_.Calls("Reply");
    ASSERT_EQ(replies.size(), 18U);
    for (const BusCall& reply : replies) {
        EXPECT_EQ(reply.data, "success");
        EXPECT_EQ(reply.status, 0);
        EXPECT_EQ(reply.context, &token_);
    }
    EXPECT_EQ(replies.front().type, 20001);
    EXPECT_EQ(replies.at(4).type, 1001);
    manager_->m_stReceive.ReceiveCallback(SERVER_DATA, 20001, nullptr, 0, nullptr, &endpoint_);
    manager_->m_stReceive.ReceiveCallback(SERVER_DATA, 20001, nullptr, 0, &token_, nullptr);
    EXPECT_EQ(endpoint_.Calls("Reply").size(), 18U);
}

TEST_F(AdapterTest, ConnectQueryActsOnWhatTheAgentAnswers) {
    const struct {
        int result;
        unsigned int status;
        const char* reply;
        Calls calls;
    } cases[] = {
        {0, 0, R"({"onlineflag":"1","ip":"10.0.0.5","port":"8443"})", {"connect 10.0.0.5:8443", "s"}},
        {0, 0, R"({"onlineflag":"1","ip":"10.0.0.5","port":"70000"})", {"connect 10.0.0.5:4464", "s"}},
        {0, 0, R"({"onlineflag":"1","ip":"10.0.0.5","port":8443})", {"connect 10.0.0.5:0", "s"}},
        {0, 0, R"({"onlineflag":"0","ip":"10.0.0.5","port":"8443"})", {"s"}},
        {0, 0, R"({"onlineflag":1,"ip":"10.0.0.5","port":"8443"})", {"s"}},
        {0, 0, R"({"onlineflag":"1","port":"8443"})", {"s"}},
        {0, 0, "not json", {"s"}},
        {0, 0, "", {"s"}},
        {0, 9, R"({"onlineflag":"1","ip":"10.0.0.5","port":"8443"})", {"s"}},
        {9, 0, "", {"s"}},
    };
    for (const auto& test : cases) {
        g_calls.clear();
        endpoint_.script = {.request = test.result, .request_status = test.status, .reply = test.reply};
        const size_t freed = endpoint_.Calls("FreeReply").size();
        EXPECT_EQ(manager_->Start(), 's') << test.reply;
        EXPECT_EQ(g_calls, test.calls) << test.reply;
        EXPECT_EQ(endpoint_.Calls("FreeReply").size(), freed + (*test.reply ? 1 : 0)) << test.reply;
    }
    // A notice that comes in during the query is newer than the answer.
    g_calls.clear();
    endpoint_.script = {.reply = cases[0].reply};
    endpoint_.script.during_request = [this] { manager_->m_stReceive.connect_state_flags |= 1U; };
    EXPECT_EQ(manager_->Start(), 's');
    EXPECT_EQ(g_calls, Calls{"s"});
    EXPECT_EQ(manager_->Start(), 's');
    EXPECT_EQ(endpoint_.Calls("SendRequest").size(), std::size(cases) + 1) << "a notice before Start: no query";
}

TEST_F(AdapterTest, RegistryTypesAreRegisteredAndUnregisteredInOrder) {
    manager_->msg_type_registry = {{30, {}}, {-1, {}}};
    EXPECT_EQ(manager_->Start(), 's');
    EXPECT_EQ(manager_->Stop(), 't');
    EXPECT_TRUE(manager_->m_stReceive.msg_type_registry.empty());
    std::string calls;
    for (const BusCall& call : endpoint_.Calls()) {
        calls += call.operation + (call.type ? " " + std::to_string(call.type) : "") + ";";
    }
    EXPECT_EQ(calls,
              "Initialize;RegisterReceive 20001;RegisterReceive 1000;RegisterReceive 1001;RegisterReceive -1;"
              "RegisterReceive 30;SendRequest 10012;UnregisterReceive 20001;UnregisterReceive 1000;"
              "UnregisterReceive 1001;UnregisterReceive -1;UnregisterReceive 30;Uninitialize;");
    EXPECT_TRUE(endpoint_.Calls("Initialize").at(0).component == PLUGIN);
    for (const BusCall& call : endpoint_.Calls("RegisterReceive")) {
        EXPECT_EQ(call.sink, &manager_->m_stReceive);
        EXPECT_EQ(call.context, static_cast<IXBusMREndPoint4*>(&endpoint_));
    }
    const BusCall query = endpoint_.Calls("SendRequest").at(0);
    EXPECT_TRUE(query.component == AGENT_CONNECT);
    EXPECT_EQ(query.data + std::to_string(query.timeout), "5000");
    endpoint_.script.initialize = 4;
    EXPECT_EQ(manager_->Start(), 's') << "a taken name is no reason not to start";
    EXPECT_EQ(endpoint_.Calls("RegisterReceive").size(), 5U);
    EXPECT_EQ(endpoint_.Calls("SendRequest").size(), 2U);
}

TEST_F(AdapterTest, InitStringIsTheHostsOrTheDefaultAndLivesForTheCallOnly) {
    for (const char* text : {static_cast<const char*>(nullptr), "", "agent_type=X"}) {
        g_calls.clear();
        QxInitBlock block{text};
        EXPECT_EQ(CqxpmaintPluginObj::Initialize(&block), 3);
        EXPECT_EQ(g_calls,
                  Calls{text && *text ? "init agent_type=X"
                                      : "init agent_type=KSTL:conf_path=../etc/plugins/qxpmaint/qxpmaint.conf"});
        EXPECT_EQ(manager_->m_stPluginInit.kv, nullptr);
        EXPECT_NE(manager_->m_stPluginInit.send_to_mgr, nullptr);
    }
    EXPECT_EQ(CqxpmaintPluginObj::Initialize(nullptr), static_cast<int>(0xE0010002));
    manager_->Uninitialize();
    EXPECT_EQ(g_calls.back(), "u");
    EXPECT_EQ(manager_->m_stPluginInit.plugin_recv, nullptr);
    EXPECT_EQ(manager_->m_stPluginInit.send_to_mgr, nullptr);
    EXPECT_EQ(manager_->status, 4U);
}

TEST_F(AdapterTest, ExceptionsOfTheHostStop) {
    endpoint_.script.during_request = [] { throw std::runtime_error("host"); };
    EXPECT_EQ(CqxpmaintPluginObj::Start(), static_cast<int>(0xE0010003));
    EXPECT_EQ(g_calls, Calls{});
    table_.init = [](PluginInitParam*) -> int { throw std::runtime_error("init"); };
    QxInitBlock block{nullptr};
    EXPECT_EQ(CqxpmaintPluginObj::Initialize(&block), static_cast<int>(0xE0010003));
    EXPECT_EQ(manager_->m_stPluginInit.kv, nullptr) << "the default string is gone with the call";
}

TEST_F(AdapterTest, ACancelledHostThreadUnwindsToItsEnd) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "AddressSanitizer takes the frames of a forced unwinding for live ones";
#endif
    endpoint_.script.during_request = g_during_recv = [] {
        pthread_cancel(pthread_self());
        pthread_testcancel();
    };
    EXPECT_TRUE(IsCancelled([] { CqxpmaintPluginObj::Start(); }));
    EXPECT_TRUE(IsCancelled([this] { Receive(20001, SERVER_DATA, "{}"); }));
}

}  // namespace
