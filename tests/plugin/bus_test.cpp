// What the plugin tells of its dealings on the bus, and deliveries beside its end. What it does there is the adapter's
// own test.

#include <gtest/gtest.h>

#include <atomic>
#include <regex>
#include <thread>

#include "tests/plugin/plugin_host.h"

namespace {

class BusTest : public testing::Test {
protected:
    PluginHost host_;
    int token_ = 0;
};

TEST_F(BusTest, QueriesMessagesAndStrangersAreTold) {
    const auto start = [&](const ScriptedEndpoint::Script& script) {
        host_.object->Stop();
        host_.endpoint.script = script;
        EXPECT_EQ(host_.object->Start(), 0);
    };
    host_.endpoint.script.reply = R"({"onlineflag":"1","ip":"10.0.0.5","port":"8443"})";
    host_.Launch();
    EXPECT_TRUE(host_.SendCommand(R"({"ID":"7","Command":"Reboot"})"));
    EXPECT_TRUE(host_.endpoint.Deliver(1000, AGENT_CONNECT, R"({"ip":"10.0.0.5","port":"443"})"));
    EXPECT_TRUE(host_.endpoint.Deliver(1001, AGENT_CONNECT, ""));
    EXPECT_TRUE(host_.endpoint.Deliver(1000, AGENT_CONNECT, "{}"));
    EXPECT_TRUE(host_.endpoint.Deliver(20001, MANAGER, "{}"));
    host_.Shutdown();
    EXPECT_FALSE(host_.SendCommand("{}"));
    host_.endpoint.script = {};
    host_.Launch();
    start({.initialize = 0x2a, .request = 0x1b});
    start({.reply = R"({"onlineflag":"0","ip":"10.0.0.5","port":"8443"})"});

    const std::string start_text = "qxpadapterplugin CqxpmaintMgr::Start ";
    const std::string query = "qxpadapterplugin CqxpmaintMgr::GetServerConnectInfo ";
    const std::string receive = "qxpadapterplugin CqxpmaintReceive::ReceiveCallback ";
    const std::string server = "stComponentID[FAB922A8-736E-4CB5-A666-4FD849A3049A]";
    const std::string agent = "stComponentID[ABC9A772-602C-45F4-9AAC-7096FD9BEDA4]";
    const std::string info = "info qxadapterplugin 2 ";
    const std::string warn = "warn qxadapterplugin 3 *";
    std::vector<std::string> told;
    for (const std::string& record : host_.LogWith("adapterplugin CqxpmaintMgr::")) {
        if (!record.starts_with("trace") && record.find("Object ") == std::string::npos) {
            told.push_back(std::regex_replace(record, std::regex(R"( Tick\[.*|0x.*)"), ""));
        }
    }
    const std::string empty = info + query + "retrun empty uiLength[0] pReply[(nil)]";
    EXPECT_EQ(told,
              (std::vector<std::string>{
                  info + query + "bStatus[1] strFlag[1] strServerIp[10.0.0.5] wPort[8443]",
                  info + start_text + "plugin_connect strServerIp[10.0.0.5] wPort[8443]", empty,
                  warn + start_text + "Warn Initialize iRet[2a] guid[F87FC278-D443-4C25-95CB-58D6C48E9128]",
                  warn + query + "Error AgentGetConnect iRet[1b]",
                  info + query + "bStatus[1] strFlag[0] strServerIp[10.0.0.5] wPort[8443]",
                  info + start_text +
                      "not call connect strServerIp[10.0.0.5] wPort[8443] dwFlag[0] strFlag[0] plugin_connect["}));
    EXPECT_EQ(host_.LogWith("CqxpmaintReceive::ReceiveCallback"),
              (std::vector<std::string>{
                  info + receive + R"(plugin_recv Begin strMsg[{"ID":"7","Command":"Reboot"}] )" + server,
                  info + receive + "plugin_recv End iRet[0] " + server,
                  info + receive + "plugin_connect Begin strIp[10.0.0.5] wPort[443] " + agent,
                  info + receive + "plugin_connect End iRet[0] strIp[10.0.0.5] wPort[443] " + agent,
                  info + receive + "plugin_disconnect Begin " + agent,
                  info + receive + "plugin_disconnect End iRet[0] " + agent,
                  warn + receive + "Error plugin_connect wrap_cJSON_Parse " + agent + " strData[{}]",
                  warn + receive +
                      "Error not find i64MsgType[20001] uiDataLength[2] "
                      "stComponentID[9946467F-0102-46E8-ACAC-B9EFE3CD68FD]"}));
    EXPECT_EQ(host_.LogWith("qxpmaint connect ").front(), "info 93 5 qxpmaint connect 10.0.0.5:8443");
    EXPECT_EQ(host_.LogWith("qxpmaint disconnect"), std::vector<std::string>{"warn 93 2 *qxpmaint disconnect"});
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
