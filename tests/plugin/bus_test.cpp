// What the plugin does on the bus: registration, the connect query, dispatch, acknowledgement and reports.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>

#include "tests/plugin/plugin_host.h"

namespace {

using Records = std::vector<LogRecord>;

const std::string ADAPTER = "qxadapterplugin";

std::vector<std::string> Operations(const std::vector<BusCall>& calls) {
    std::vector<std::string> names(calls.size());
    std::transform(calls.begin(), calls.end(), names.begin(), [](const BusCall& call) {
        return call.operation + (call.type ? " " + std::to_string(call.type) : "");
    });
    return names;
}

class BusTest : public testing::Test {
protected:
    // The adapter's notices and warnings about messages, without traces.
    Records Dispatched() {
        Records records = host_.LogWith("CqxpmaintReceive::ReceiveCallback");
        EXPECT_TRUE(std::all_of(records.begin(), records.end(), [](const auto& r) { return r.source == ADAPTER; }));
        return records;
    }

    PluginHost host_;
    int token_ = 0;
};

TEST_F(BusTest, StartRegistersAsksAndConnectsAndStopUndoesIt) {
    host_.endpoint.script.reply = R"({"onlineflag":"1","ip":"10.0.0.5","port":"8443"})";
    host_.Launch();
    const std::vector<BusCall> calls = host_.endpoint.Calls();
    ASSERT_EQ(Operations(calls),
              (std::vector<std::string>{"Initialize", "RegisterReceive 20001", "RegisterReceive 1000",
                                        "RegisterReceive 1001", "SendRequest 10012", "FreeReply"}));
    EXPECT_TRUE(calls[0].component == PLUGIN);
    for (size_t i = 1; i <= 3; ++i) {
        EXPECT_EQ(calls[i].sink, calls[1].sink);
        EXPECT_EQ(calls[i].context, &host_.endpoint);
    }
    EXPECT_TRUE(calls[4].component == AGENT_CONNECT);
    EXPECT_EQ(calls[4].data, "");
    EXPECT_EQ(calls[4].timeout, 5000U);
    EXPECT_EQ(host_.LogWith("qxpmaint connect"), (Records{{"info", "93", 5, "qxpmaint connect 10.0.0.5:8443"}}));
    const Records query = host_.LogWith("CqxpmaintMgr::GetServerConnectInfo");
    ASSERT_EQ(query.size(), 1U);
    EXPECT_EQ(query[0].text.find("qxpadapterplugin CqxpmaintMgr::GetServerConnectInfo bStatus[1] strFlag[1] "
                                 "strServerIp[10.0.0.5] wPort[8443] Tick["),
              0U);
    EXPECT_EQ(host_.LogWith("CqxpmaintMgr::Start plugin_connect"),
              (Records{{"info", ADAPTER, 2,
                        "qxpadapterplugin CqxpmaintMgr::Start plugin_connect strServerIp[10.0.0.5] wPort[8443]"}}));

    host_.object->Stop();
    std::vector<std::string> operations = Operations(host_.endpoint.Calls());
    operations.erase(operations.begin(), operations.begin() + static_cast<long>(calls.size()));
    EXPECT_EQ(operations, (std::vector<std::string>{"UnregisterReceive 20001", "UnregisterReceive 1000",
                                                    "UnregisterReceive 1001", "Uninitialize"}));
    EXPECT_FALSE(host_.SendCommand("{}"));
}

TEST_F(BusTest, AFailedQueryOrAnOfflineAgentOrATakenNameStopsNoStart) {
    host_.endpoint.script = {.initialize = 0x2a, .request = 0x1b};
    host_.Launch();
    EXPECT_EQ(host_.endpoint.Calls("RegisterReceive").size(), 0U);
    EXPECT_EQ(host_.LogWith("Warn Initialize"),
              (Records{{"warn", ADAPTER, 3,
                        "*qxpadapterplugin CqxpmaintMgr::Start Warn Initialize iRet[2a] "
                        "guid[F87FC278-D443-4C25-95CB-58D6C48E9128]"}}));
    const Records failed = host_.LogWith("AgentGetConnect");
    ASSERT_EQ(failed.size(), 1U);
    EXPECT_EQ(failed[0].level, 3);
    EXPECT_EQ(failed[0].text.find(
                  "*qxpadapterplugin CqxpmaintMgr::GetServerConnectInfo Error AgentGetConnect iRet[1b] Tick["),
              0U);
    host_.object->Stop();

    host_.endpoint.script = {.reply = R"({"onlineflag":"0","ip":"10.0.0.5","port":"8443"})"};
    EXPECT_EQ(host_.object->Start(), 0);
    const Records offline = host_.LogWith("not call connect");
    ASSERT_EQ(offline.size(), 1U);
    EXPECT_EQ(offline[0].level, 2);
    EXPECT_EQ(offline[0].text.find("qxpadapterplugin CqxpmaintMgr::Start not call connect strServerIp[10.0.0.5] "
                                   "wPort[8443] dwFlag[0] strFlag[0] plugin_connect[0x"),
              0U);
    EXPECT_TRUE(host_.LogWith("qxpmaint connect").empty());

    // A notice that came before a start makes its query needless.
    EXPECT_TRUE(host_.endpoint.Deliver(1000, AGENT_CONNECT, "not json", &token_));
    host_.object->Stop();
    EXPECT_EQ(host_.object->Start(), 0);
    EXPECT_EQ(host_.endpoint.Calls("SendRequest").size(), 2U);
}

TEST_F(BusTest, ARefusedCommandIsAcknowledgedAndAnsweredInAnEnvelope) {
    host_.Launch();
    const std::string command = R"({"ID":"7","Command":"Reboot"})";
    EXPECT_TRUE(host_.SendCommand(command, &token_));
    const std::string reply = R"({"ID":"7","msg_type":"4","data_type":"Reboot"})";
    EXPECT_EQ(host_.WaitForReports(1), std::vector<std::string>{reply});
    const BusCall sent = host_.endpoint.Calls("SendAsync").at(0);
    EXPECT_TRUE(sent.component == MANAGER);
    EXPECT_EQ(sent.type, 20300);
    EXPECT_EQ(sent.timeout, 60000U);
    const Envelope envelope = DecodeEnvelope(sent.data);
    EXPECT_EQ(envelope.type, 2U);
    EXPECT_EQ(envelope.value4, 1);
    EXPECT_EQ(envelope.value8, 1);
    EXPECT_EQ(envelope.name1 + envelope.name2, "");

    const BusCall acknowledged = host_.endpoint.Calls("Reply").at(0);
    EXPECT_EQ(acknowledged.data, "success");
    EXPECT_EQ(acknowledged.type, 20001);
    EXPECT_EQ(acknowledged.status, 0);
    EXPECT_EQ(acknowledged.context, &token_);
    const std::string from = "stComponentID[FAB922A8-736E-4CB5-A666-4FD849A3049A]";
    EXPECT_EQ(Dispatched(),
              (Records{{"info", ADAPTER, 2,
                        "qxpadapterplugin CqxpmaintReceive::ReceiveCallback plugin_recv Begin strMsg[" + command +
                            "] " + from},
                       {"info", ADAPTER, 2,
                        "qxpadapterplugin CqxpmaintReceive::ReceiveCallback plugin_recv End iRet[0] " + from}}));

    // No ID, no reply; but an acknowledgement.
    EXPECT_TRUE(host_.SendCommand(R"({"Command":"Reboot"})", &token_));
    EXPECT_TRUE(host_.SendCommand("", &token_));
    EXPECT_TRUE(host_.SendCommand(std::string("\0\0", 2), &token_));
    EXPECT_TRUE(host_.SendCommand(command));
    EXPECT_EQ(host_.endpoint.Calls("Reply").size(), 4U);
    EXPECT_EQ(host_.endpoint.Calls("SendAsync").size(), 2U);
}

TEST_F(BusTest, NoticesAndStrangersAreTold) {
    host_.Launch();
    EXPECT_TRUE(host_.endpoint.Deliver(1000, AGENT_CONNECT, R"({"ip":"10.0.0.5","port":"443"})"));
    EXPECT_TRUE(host_.endpoint.Deliver(1001, AGENT_CONNECT, ""));
    EXPECT_TRUE(host_.endpoint.Deliver(1000, AGENT_CONNECT, "{}", &token_));
    EXPECT_TRUE(host_.endpoint.Deliver(20001, MANAGER, "{}", &token_));
    const std::string who = "qxpadapterplugin CqxpmaintReceive::ReceiveCallback ";
    const std::string agent = "stComponentID[ABC9A772-602C-45F4-9AAC-7096FD9BEDA4]";
    EXPECT_EQ(
        Dispatched(),
        (Records{{"info", ADAPTER, 2, who + "plugin_connect Begin strIp[10.0.0.5] wPort[443] " + agent},
                 {"info", ADAPTER, 2, who + "plugin_connect End iRet[0] strIp[10.0.0.5] wPort[443] " + agent},
                 {"info", ADAPTER, 2, who + "plugin_disconnect Begin " + agent},
                 {"info", ADAPTER, 2, who + "plugin_disconnect End iRet[0] " + agent},
                 {"warn", ADAPTER, 3, "*" + who + "Error plugin_connect wrap_cJSON_Parse " + agent + " strData[{}]"},
                 {"warn", ADAPTER, 3,
                  "*" + who +
                      "Error not find i64MsgType[20001] uiDataLength[2] "
                      "stComponentID[9946467F-0102-46E8-ACAC-B9EFE3CD68FD]"}}));
    EXPECT_EQ(host_.LogWith("*qxpmaint disconnect"), (Records{{"warn", "93", 2, "*qxpmaint disconnect"}}));
    EXPECT_EQ(host_.endpoint.Calls("Reply").size(), 2U);
}

TEST_F(BusTest, DeliveriesMayOverlapEachOtherAndTheEndOfTheHost) {
    host_.Launch();
    std::atomic<bool> ending{false};
    std::array<std::future<int>, 4> senders;
    for (size_t sender = 0; sender < senders.size(); ++sender) {
        senders.at(sender) = std::async(std::launch::async, [&, sender] {
            int delivered = 0;
            while (!ending) {
                const bool handled = sender == 0
                                         ? host_.endpoint.Deliver(1000, AGENT_CONNECT, R"({"ip":"10.0.0.5"})", &token_)
                                         : host_.SendCommand(R"({"ID":"7","Command":"Reboot"})", &token_);
                delivered += handled ? 1 : 0;
            }
            return delivered;
        });
    }
    EXPECT_TRUE(host_.endpoint.WaitForCalls("Reply", 50));
    host_.Shutdown();
    host_.Launch();
    EXPECT_TRUE(host_.endpoint.WaitForCalls("Reply", host_.endpoint.Calls("Reply").size() + 50));
    host_.Shutdown();
    ending = true;
    size_t delivered = 0;
    for (std::future<int>& sender : senders)
        delivered += static_cast<size_t>(sender.get());
    EXPECT_EQ(host_.endpoint.Calls("Reply").size(), delivered) << "every delivery is acknowledged once";
}

TEST_F(BusTest, AnAcceptedPolicyIsReportedFromTheRun) {
    host_.Launch();
    EXPECT_TRUE(host_.SendCommand(
        MakePolicy(host_.signer, "policy", "RunScriptNormal",
                   {{.id = "a", .body = "echo hello\n"}, {.id = "b", .body = "echo forged\n", .signed_right = false}}),
        &token_));
    const Json report = ParseJson(host_.WaitForReports(1).at(0));
    EXPECT_EQ(Text(report, "ID"), "policy");
    EXPECT_EQ(Text(report, "data.result.0.scriptid"), "a");
    EXPECT_EQ(Text(report, "data.result.0.run_outdata"), "hello\n");
    EXPECT_EQ(Text(report, "data.result.1.scriptid"), "") << "the forged script was not run";
    EXPECT_EQ(host_.LogWith("VerifySignContent fail strID[policy]").size(), 1U);
}

}  // namespace
