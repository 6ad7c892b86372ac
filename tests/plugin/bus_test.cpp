// What the plugin tells of its dealings on the bus, and deliveries beside its end. What it does there is the adapter's
// own test.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/plugin/plugin_host.h"

namespace {

using Records = std::vector<LogRecord>;

const std::string ADAPTER = "qxadapterplugin";

class BusTest : public testing::Test {
protected:
    // The only record with a part, up to its Tick or an address.
    LogRecord Told(const std::string& part) {
        Records records = host_.LogWith(part);
        EXPECT_EQ(records.size(), 1U) << part;
        if (records.empty()) {
            return {};
        }
        records[0].text = records[0].text.substr(0, records[0].text.find(" Tick["));
        records[0].text = records[0].text.substr(0, records[0].text.find("0x"));
        return records[0];
    }

    PluginHost host_;
    int token_ = 0;
};

TEST_F(BusTest, TheConnectQueryIsToldWithItsOutcome) {
    const std::string who = "qxpadapterplugin CqxpmaintMgr::";
    host_.endpoint.script.reply = R"({"onlineflag":"1","ip":"10.0.0.5","port":"8443"})";
    host_.Launch();
    EXPECT_EQ(Told("qxpmaint connect"), (LogRecord{"info", "93", 5, "qxpmaint connect 10.0.0.5:8443"}));
    EXPECT_EQ(Told("::GetServerConnectInfo").text,
              who + "GetServerConnectInfo bStatus[1] strFlag[1] strServerIp[10.0.0.5] wPort[8443]");
    EXPECT_EQ(Told("::Start plugin_connect"),
              (LogRecord{"info", ADAPTER, 2, who + "Start plugin_connect strServerIp[10.0.0.5] wPort[8443]"}));
    host_.object->Stop();
    EXPECT_FALSE(host_.SendCommand("{}"));

    host_.endpoint.script = {.initialize = 0x2a, .request = 0x1b};
    EXPECT_EQ(host_.object->Start(), 0);
    EXPECT_EQ(Told("Warn Initialize"),
              (LogRecord{"warn", ADAPTER, 3,
                         "*" + who + "Start Warn Initialize iRet[2a] guid[F87FC278-D443-4C25-95CB-58D6C48E9128]"}));
    EXPECT_EQ(Told("AgentGetConnect"),
              (LogRecord{"warn", ADAPTER, 3, "*" + who + "GetServerConnectInfo Error AgentGetConnect iRet[1b]"}));
    host_.object->Stop();

    host_.endpoint.script = {.reply = R"({"onlineflag":"0","ip":"10.0.0.5","port":"8443"})"};
    EXPECT_EQ(host_.object->Start(), 0);
    EXPECT_EQ(Told("not call connect"),
              (LogRecord{"info", ADAPTER, 2,
                         who + "Start not call connect strServerIp[10.0.0.5] wPort[8443] dwFlag[0] strFlag[0] "
                               "plugin_connect["}));
}

TEST_F(BusTest, CommandsNoticesAndStrangersAreTold) {
    host_.Launch();
    const std::string command = R"({"ID":"7","Command":"Reboot"})";
    EXPECT_TRUE(host_.SendCommand(command));
    EXPECT_TRUE(host_.endpoint.Deliver(1000, AGENT_CONNECT, R"({"ip":"10.0.0.5","port":"443"})"));
    EXPECT_TRUE(host_.endpoint.Deliver(1001, AGENT_CONNECT, ""));
    EXPECT_TRUE(host_.endpoint.Deliver(1000, AGENT_CONNECT, "{}"));
    EXPECT_TRUE(host_.endpoint.Deliver(20001, MANAGER, "{}"));
    const std::string who = "qxpadapterplugin CqxpmaintReceive::ReceiveCallback ";
    const std::string server = "stComponentID[FAB922A8-736E-4CB5-A666-4FD849A3049A]";
    const std::string agent = "stComponentID[ABC9A772-602C-45F4-9AAC-7096FD9BEDA4]";
    EXPECT_EQ(
        host_.LogWith("CqxpmaintReceive::ReceiveCallback"),
        (Records{{"info", ADAPTER, 2, who + "plugin_recv Begin strMsg[" + command + "] " + server},
                 {"info", ADAPTER, 2, who + "plugin_recv End iRet[0] " + server},
                 {"info", ADAPTER, 2, who + "plugin_connect Begin strIp[10.0.0.5] wPort[443] " + agent},
                 {"info", ADAPTER, 2, who + "plugin_connect End iRet[0] strIp[10.0.0.5] wPort[443] " + agent},
                 {"info", ADAPTER, 2, who + "plugin_disconnect Begin " + agent},
                 {"info", ADAPTER, 2, who + "plugin_disconnect End iRet[0] " + agent},
                 {"warn", ADAPTER, 3, "*" + who + "Error plugin_connect wrap_cJSON_Parse " + agent + " strData[{}]"},
                 {"warn", ADAPTER, 3,
                  "*" + who +
                      "Error not find i64MsgType[20001] uiDataLength[2] "
                      "stComponentID[9946467F-0102-46E8-ACAC-B9EFE3CD68FD]"}}));
    EXPECT_EQ(Told("*qxpmaint disconnect"), (LogRecord{"warn", "93", 2, "*qxpmaint disconnect"}));
}

TEST_F(BusTest, DeliveriesMayOverlapEachOtherAndTheEndOfTheHost) {
    host_.Launch();
    std::atomic<bool> ending{false};
    std::atomic<size_t> delivered{0};
    std::vector<std::jthread> senders;
    senders.reserve(4);
    for (int sender = 0; sender < 4; ++sender) {
        senders.emplace_back([&, notices = sender == 0] {
            while (!ending) {
                delivered += notices ? host_.endpoint.Deliver(1000, AGENT_CONNECT, R"({"ip":"10.0.0.5"})", &token_)
                                     : host_.SendCommand(R"({"ID":"7","Command":"Reboot"})", &token_);
            }
        });
    }
    EXPECT_TRUE(host_.endpoint.WaitForCalls("Reply", 50));
    host_.Shutdown();
    host_.Launch();
    EXPECT_TRUE(host_.endpoint.WaitForCalls("Reply", host_.endpoint.Calls("Reply").size() + 50));
    host_.Shutdown();
    ending = true;
    senders.clear();  // waits for them
    EXPECT_EQ(host_.endpoint.Calls("Reply").size(), delivered) << "every delivery is acknowledged once";
}

}  // namespace
