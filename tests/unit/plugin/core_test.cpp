// The plugin core: parameters and configuration, directory listings, refused commands, report sending.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <set>
#include <vector>

#include "plugin/core/command.h"
#include "plugin/core/loader.h"
#include "plugin/core/plugin_core.h"
#include "plugin/core/plugin_state.h"
#include "plugin/core/report_sender.h"
#include "plugin/manager/maint_mgr.h"
#include "qxhost/json.h"
#include "tests/support/temp_dir.h"

namespace {
bool g_bEncodesToNothing = false;
}  // namespace

// In place of the host's: a library that returns an empty text for what needs no encoding.
extern "C" char* QxJsonEncodeStr(const char* text) {
    const auto encode = reinterpret_cast<decltype(&QxJsonEncodeStr)>(dlsym(RTLD_NEXT, "QxJsonEncodeStr"));
    return g_bEncodesToNothing ? strdup("") : encode(text);
}

namespace qxpmaint_impl {
namespace {

std::vector<std::string> g_sent;

int KeepSent(int type, const char* name1, const char* name2, int value, const unsigned char* data,
             unsigned int length) {
    EXPECT_EQ(type, 2);
    EXPECT_STREQ(name1, "kestrel");
    EXPECT_STREQ(name2, "qxpmaint");
    EXPECT_EQ(value, 1);
    g_sent.emplace_back(reinterpret_cast<const char*>(data), length);
    return 5;  // a failing callback changes nothing
}

class CoreTest : public testing::Test {
protected:
    CoreTest() {
        g_sent.clear();
        memset(g_szAgentType, 0, sizeof g_szAgentType);
        memset(g_szConfPath, 0, sizeof g_szConfPath);
        g_lCheckCycle = 10;
    }
    ~CoreTest() override { uninit(); }

    int Init(const std::string& kv) {
        param_ = {};
        param_.notify_to_mgr = [](int, const unsigned char*) {};
        param_.send_to_mgr = KeepSent;
        param_.kv = kv.c_str();
        return qxpmaint_init(&param_);
    }

    // Init reading an INI file with this content.
    int InitWith(const std::string& ini) { return Init("conf_path=" + directory_.Write("test.conf", ini)); }

    TempDir directory_;
    PluginInitParam param_{};
};

TEST_F(CoreTest, InitStringItems) {
    EXPECT_TRUE(analyze_set_init_kv("agent_type=KSTL:other=1:conf_path=../etc/plugins/a/b.conf"));
    EXPECT_STREQ(g_szAgentType, "KSTL");
    EXPECT_STREQ(g_szConfPath, "../etc/plugins/a/b.conf");
    EXPECT_TRUE(analyze_set_init_kv("agent_type=:conf_path=x::agent_type=Y"));
    EXPECT_STREQ(g_szConfPath, "x");
    EXPECT_STREQ(g_szAgentType, "KSTL") << "an item without a value sets nothing, an empty item ends the scan";
    EXPECT_TRUE(
        analyze_set_init_kv(("conf_path=" + std::string(300, 'p') + ":agent_type=" + std::string(80, 't')).c_str()));
    EXPECT_EQ(g_szConfPath, std::string(255, 'p'));
    EXPECT_EQ(g_szAgentType, std::string(63, 't'));
    EXPECT_FALSE(analyze_set_init_kv(""));
    EXPECT_FALSE(analyze_set_init_kv(nullptr));
}

TEST_F(CoreTest, ConfigurationFile) {
    EXPECT_EQ(InitWith("[QXPMAINT]\nCheckCycle = 3\nother=9\n[other]\ncheckcycle=9\n"), 0);
    EXPECT_EQ(g_lCheckCycle.load(), 3);
    uninit();
    EXPECT_EQ(InitWith("[qxpmaint]\ncheckcycle=abc\ncheckcycle=0\n"), 0);
    EXPECT_EQ(g_lCheckCycle.load(), 3) << "no number keeps what is set";
    uninit();
    EXPECT_EQ(InitWith("[qxpmaint]\ncheckcycle=-5\n"), 0);
    EXPECT_EQ(g_lCheckCycle.load(), -5);
}

TEST_F(CoreTest, InitFailuresLeaveThePluginUninitialised) {
    EXPECT_EQ(qxpmaint_init(nullptr), -1);
    param_.send_to_mgr = KeepSent;
    EXPECT_EQ(qxpmaint_init(&param_), -1) << "incomplete";
    EXPECT_EQ(Init("conf_path=" + (directory_ / "missing.conf")), -2);
    EXPECT_EQ(InitWith("[qxpmaint\n"), -2);
    EXPECT_EQ(param_.plugin_recv, nullptr);
    EXPECT_FALSE(g_bInited);

    memset(g_szConfPath, 0, sizeof g_szConfPath);
    EXPECT_EQ(Init("agent_type=KSTL"), 0);
    EXPECT_EQ(param_.plugin_recv, plugin_recv_handler);
    EXPECT_EQ(param_.plugin_connect("h", 65535), 0);
    EXPECT_EQ(qxpmaint_init(nullptr), 0) << "once initialised, init does not look at its argument";
    EXPECT_TRUE(std::filesystem::is_directory(g_szPolicyProcessPath));
}

TEST_F(CoreTest, JsonFilesOfADirectory) {
    for (const char* name : {"a.JSON", "b.json.bak", ".json", "json", "c.json"}) {
        directory_.Write(name, "x");
    }
    std::filesystem::create_directory(directory_ / "d.json");
    std::filesystem::create_symlink("c.json", directory_ / "e.json");
    ASSERT_EQ(mkfifo((directory_ / "f.json").c_str(), 0600), 0);
    std::list<_FilePathInfo> files;
    EXPECT_TRUE(GetDirJsonFileList(directory_.Path().c_str(), files));
    std::set<std::string> paths;
    for (const auto& file : files) {
        EXPECT_EQ(file.strFullPath.Str(), directory_ / file.strFileName.Str());
        paths.insert(file.strFileName.Str());
    }
    EXPECT_EQ(paths, (std::set<std::string>{".json", "a.JSON", "c.json", "f.json"}));
    EXPECT_FALSE(GetDirJsonFileList((directory_ / "missing").c_str(), files));
    EXPECT_FALSE(GetDirJsonFileList("", files));
    EXPECT_FALSE(GetDirJsonFileList(nullptr, files));
}

std::string Refusal(const std::string& command) {
    return R"({"ID":"7","msg_type":"4","data_type":")" + command + "\"}";
}

TEST_F(CoreTest, RefusedCommandsAreAnsweredWhenTheyHaveAnId) {
    ASSERT_EQ(Init("agent_type=KSTL"), 0);
    const auto replyTo = [](const char* message) {
        g_sent.clear();
        EXPECT_EQ(plugin_recv_handler(message), 0);
        return g_sent.empty() ? std::string("(none)") : g_sent.front();
    };
    for (const std::string command : {"Reboot", "runscriptnormal", "RunScriptNormal"}) {
        EXPECT_EQ(replyTo((R"({"ID":"7","Command":")" + command + "\"}").c_str()), Refusal(command));
    }
    EXPECT_EQ(replyTo(R"({"ID":7})"), Refusal(""));
    EXPECT_EQ(replyTo(R"({"ID":"7","Command":"RunScriptFile","param":{"scriptinfo":[]}})"), Refusal("RunScriptFile"));
    EXPECT_EQ(replyTo("{\"ID\":\"\xc3\xa9\",\"Command\":\"x\"}"), R"({"ID":"\u00e9","msg_type":"4","data_type":"x"})");
    const std::string longId(300, 'i');
    EXPECT_EQ(replyTo(("{\"ID\":\"" + longId + "\"}").c_str()), ("{\"ID\":\"" + longId).substr(0, 255));
    for (const char* unanswered : {"", "not json", "{}", R"({"ID":"","Command":"Reboot"})",
                                   R"({"ID":"\u00007","Command":"Reboot"})", R"({"Command":"Reboot"})"}) {
        EXPECT_EQ(replyTo(unanswered), "(none)") << unanswered;
    }
    EXPECT_EQ(plugin_recv_handler(nullptr), 0);
    uninit();
    EXPECT_EQ(replyTo(R"({"ID":"7","Command":"Reboot"})"), "(none)");
}

TEST_F(CoreTest, ReportsAreSentOrWritten) {
    EXPECT_FALSE(SendReportDataToServer("{}", true, "early")) << "no file either without a callback";
    ASSERT_EQ(Init("agent_type=KSTL"), 0);
    ASSERT_LT(directory_.Path().string().size(), sizeof g_szResultFilePath);
    snprintf(g_szResultFilePath, sizeof g_szResultFilePath, "%s", directory_.Path().c_str());
    g_u64ResultFileIndex = 0;

    EXPECT_TRUE(SendReportDataToServer("{\"a\":\"\xc3\xa9\"}", false, "x"));
    EXPECT_TRUE(SendReportDataToServer("{\"n\":1}", true, "res_"));
    EXPECT_TRUE(SendReportDataToServer("\xff", true, "res_"));
    EXPECT_EQ(ReadFile(directory_ / "res_1.json"), "{\"n\":1}");
    EXPECT_EQ(ReadFile(directory_ / "res_2.json"), "\\ufffd");
    EXPECT_FALSE(SendReportDataToServer("{}", true, "no/such/"));
    EXPECT_FALSE(SendReportDataToServer("", false, "x"));
    EXPECT_FALSE(SendReportDataToServer(nullptr, false, "x"));
    std::filesystem::create_symlink("/dev/full", directory_ / "full4.json");
    EXPECT_FALSE(SendReportDataToServer("{}", true, "full")) << "a full disk is an error";
    g_bEncodesToNothing = true;
    EXPECT_TRUE(SendReportDataToServer("{\"a\":1}", false, "x"));
    EXPECT_EQ(g_sent, (std::vector<std::string>{R"({"a":"\u00e9"})", R"({"a":1})"})) << "plain text as it is";
    g_bEncodesToNothing = false;
}

TEST_F(CoreTest, OnlyInitMakesAManagerAndRunOnceUsesItsFileUp) {
    constexpr char POLICY[] = R"({"ID":"7","Command":"RunScriptNormal"})";
    const auto run_once = [this] {
        snprintf(g_szPolicyProcessPath, sizeof g_szPolicyProcessPath, "%s", directory_.Path().c_str());
        return RunOnceScriptTask("p.json");
    };
    const std::string file = directory_.Write("p.json", "no policy");
    for (const char* time : {"before init", "after uninit"}) {
        EXPECT_FALSE(run_once());
        EXPECT_TRUE(std::filesystem::exists(file)) << time;
        plugin_recv_handler(POLICY);
        EXPECT_FALSE(AcceptPolicyFile(POLICY)) << "stays where it is " << time;
        EXPECT_EQ(CMaintMgr::Present(), nullptr) << time;
        ASSERT_EQ(Init("agent_type=KSTL"), 0);
        uninit();
    }
    ASSERT_EQ(Init("agent_type=KSTL"), 0);
    EXPECT_TRUE(AcceptPolicyFile(POLICY));
    EXPECT_FALSE(run_once());
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(CoreTest, NoOtherProcessIsTakenForTheWarden) {
    EXPECT_FALSE(IsWardenProc(0));
    EXPECT_FALSE(IsWardenProc(getpid()));
}

}  // namespace
}  // namespace qxpmaint_impl
