// The exported entry points and the life of the plugin object, over the built library.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <set>

#include "tests/plugin/plugin_host.h"

namespace {

constexpr auto NOT_READY = static_cast<int>(0xE0010000);
constexpr auto NO_TABLE = static_cast<int>(0xE0010001);
constexpr auto INVALID = static_cast<int>(0xE0010002);

using Records = std::vector<std::string>;

class EntryPointsTest : public testing::Test {
protected:
    void Create() { host_.object = static_cast<PluginObjInterface*>(host_.create_object(PLUGIN_CLSID)); }

    PluginHost host_;
};

TEST_F(EntryPointsTest, ExactlyTheNineSymbolsAreExported) {
    const std::string listing = host_.Root() / "symbols";
    // NOLINTNEXTLINE(cert-env33-c): a fixed command
    ASSERT_EQ(system(("nm -D --defined-only '" + host_.LibraryPath() + "' > '" + listing + "'").c_str()), 0);
    std::ifstream lines(listing);
    std::set<std::string> names;
    for (std::string address, type, name; lines >> address >> type >> name;) {
        names.insert(name);
    }
    EXPECT_EQ(names, (std::set<std::string>{"CreateObject", "DestroyObject", "InitializePlugin", "UninitializePlugin",
                                            "create_plugin", "destroy_plugin", "g_szRsaModulus",
                                            "g_szRsaPublicExponent", "runonce_plugin"}));
    EXPECT_EQ(strlen(*host_.Symbol<const char* const*>("g_szRsaModulus")), 256U);
    EXPECT_STREQ(*host_.Symbol<const char* const*>("g_szRsaPublicExponent"), "10001");
    EXPECT_EQ(host_.Symbol<int (*)()>("InitializePlugin")(), 0);
    host_.Symbol<void (*)()>("UninitializePlugin")();
}

TEST_F(EntryPointsTest, TheExactClassIdAloneMakesTheOneTableAndEndsThePlugin) {
    void* table = host_.create_plugin(PLUGIN_CLSID);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(host_.create_plugin(PLUGIN_CLSID), table);
    int (*slots[15])();
    memcpy(&slots, table, sizeof(slots));
    EXPECT_STREQ(static_cast<PluginFunTable*>(table)->get_version(), "1.0.125");
    for (const size_t reserved : {1, 2, 8, 9, 10, 11, 12, 13, 14}) {
        EXPECT_EQ(slots[reserved](), 0) << reserved;
    }
    EXPECT_EQ(std::set(std::begin(slots), std::end(slots)).size(), 15U) << "each slot has its own function";

    EXPECT_EQ(host_.destroy_plugin(PLUGIN_CLSID), 0) << "nothing is running";
    EXPECT_TRUE(host_.LogWith("uninit").empty());
    host_.Launch();
    for (const char* other : {"f87fc278-d443-4c25-95cb-58d6c48e9128", "F87FC278-D443-4C25-95CB-58D6C48E9128x", "F8",
                              static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(host_.create_plugin(other), nullptr);
        EXPECT_EQ(host_.destroy_plugin(other), -1);
    }
    EXPECT_TRUE(host_.LogWith("qxpmaint_stop").empty());
    EXPECT_EQ(host_.destroy_plugin(PLUGIN_CLSID), 0);
    EXPECT_EQ(host_.LogWith("qxpmaint qxpmaint_stop ok").size(), 1U);
    EXPECT_EQ(host_.LogWith("qxpmaint uninit ok").size(), 1U);
    const std::string create = "qxpmaint create_plugin clsid";
    const std::string destroy = "qxpmaint destroy_plugin clsid";
    EXPECT_EQ(host_.LogWith(create).front(), "info 93 5 " + create + "[" + PLUGIN_CLSID + "] ok");
    EXPECT_EQ(host_.LogWith("clsid[F8] is"), (Records{"error 93 3 **" + create + "[F8] is not support",
                                                      "error 93 3 **" + destroy + "[F8] is not support"}));
    EXPECT_EQ(host_.LogWith("clsid is NULL"),
              (Records{"error 93 3 **" + create + " is NULL", "error 93 3 **" + destroy + " is NULL"}));
}

TEST_F(EntryPointsTest, ObjectsThatCannotBeMadeAreRefusedAndLogged) {
    EXPECT_EQ(host_.create_object(nullptr), nullptr);
    EXPECT_EQ(host_.create_object("x"), nullptr);
    const std::string object = "qxpadapterplugin CqxpmaintCreateObject::CreateObject ";
    const std::string trace = "trace qxadapterplugin 6 " + object;
    const std::string error = "error qxadapterplugin 4 **" + object;
    const std::string manager = "error qxadapterplugin 4 **qxpadapterplugin CqxpmaintMgr::CreateObject Error ";
    EXPECT_EQ(host_.LogWith(""),
              (Records{trace + "Begin pszName[null]", manager + "pszName is NULL", error + "Error FALSE pszName[null]",
                       trace + "Begin pszName[x]", "debug 93 0 qxpmaint create_plugin in",
                       "error 93 3 **qxpmaint create_plugin clsid[x] is not support",
                       manager + "create_plugin pPluginFun is NULL", error + "Error FALSE pszName[x]"}));
    // Freed whatever the name: a leak is what the address sanitizer sees.
    Create();
    host_.destroy_object(nullptr, host_.object);
    Create();
    host_.destroy_object("x", host_.object);
    host_.object = nullptr;
    host_.destroy_object(PLUGIN_CLSID, nullptr);
    EXPECT_EQ(host_.LogWith("DestroyObject Begin pszName[null]").size(), 1U);
    EXPECT_EQ(host_.LogWith("*qxpadapterplugin CqxpmaintMgr::DestroyObject Error destroy_plugin iRet[ff").size(), 1U);
}

TEST_F(EntryPointsTest, OperationsKeepTheirOrderAndTellTheirState) {
    Create();
    PluginObjInterface& object = *host_.object;
    EXPECT_EQ(object.Info(nullptr), -1);
    EXPECT_EQ(object.Info(&object), 0);
    EXPECT_EQ(object.GetStatus(), 0U);
    EXPECT_EQ(object.GetCtx(nullptr), nullptr);
    EXPECT_EQ(object.Start(), NOT_READY) << "no endpoint";
    EXPECT_EQ(object.Stop(), NOT_READY);
    EXPECT_EQ(object.Initialize(nullptr), INVALID);
    EXPECT_EQ(object.GetStatus(), 0U);
    const std::string manager = "error qxadapterplugin 4 **qxpadapterplugin CqxpmaintMgr::";
    EXPECT_EQ(host_.LogWith("Error m_pCompCtx is NULL"),
              (Records{manager + "Start Error m_pCompCtx is NULL", manager + "Stop Error m_pCompCtx is NULL"}));

    object.SetCtx(&host_.endpoint);
    object.SetCtx(nullptr);
    EXPECT_EQ(object.GetCtx(&object), &host_.endpoint);
    EXPECT_EQ(object.Initialize(&host_.init_block), 0);
    EXPECT_EQ(object.GetStatus(), 1U);
    for (int round = 0; round < 2; ++round) {  // a stopped plugin starts again
        EXPECT_EQ(object.Start(), 0);
        EXPECT_EQ(object.GetStatus(), 2U);
        EXPECT_EQ(object.Stop(), 0);
        EXPECT_EQ(object.GetStatus(), 3U);
    }
    object.Uninitialize();

    // A fresh, empty manager from here on.
    EXPECT_EQ(object.GetStatus(), 0U);
    EXPECT_EQ(object.GetCtx(nullptr), nullptr);
    EXPECT_EQ(object.Initialize(&host_.init_block), NO_TABLE);
    EXPECT_EQ(object.Start(), NOT_READY);
    EXPECT_EQ(object.Stop(), NOT_READY);
    object.Uninitialize();
    EXPECT_EQ(host_.LogWith("m_pPluginFun is NULL").size(), 4U);
    host_.destroy_object(PLUGIN_CLSID, host_.object);
    host_.object = nullptr;

    host_.Launch();
    host_.Shutdown();
    EXPECT_EQ(host_.LogWith("qxpmaint qxpmaint_start ok").size(), 3U) << "a second life in the same process";
}

TEST_F(EntryPointsTest, TheHostsProcessIsLeftAsItWas) {
    const auto state = [] {
        std::string text = std::filesystem::current_path().string() + "\n";
        for (char** entry = environ; *entry; ++entry) {
            text += std::string(*entry) + "\n";
        }
        std::ifstream status("/proc/self/status");
        for (std::string line; std::getline(status, line);) {
            for (const char* name : {"Umask", "SigBlk", "SigIgn", "SigCgt"}) {
                text += line.starts_with(name) ? line + "\n" : "";
            }
        }
        return text;
    };
    const mode_t umask_before = umask(0027);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    // What the first life leaves open for good (the log), a second does not open again.
    host_.Launch();
    EXPECT_EQ(host_.LogWith("g_lCheckCycle[1]").size(), 1U) << "read from the configuration";
    for (const char* directory : {"policyfile", "policyprocess", "result"}) {
        const auto mode = std::filesystem::status(host_.Data() / directory).permissions();
        EXPECT_EQ(mode, std::filesystem::perms{0755}) << directory;
    }
    host_.Shutdown();
    const std::string before = state();
    const auto descriptors = CountEntries("/proc/self/fd");
    const auto threads = CountEntries("/proc/self/task");
    host_.Launch();
    ASSERT_TRUE(host_.SendCommand(MakePolicy(host_.signer, "7", "RunScriptNormal", {{.body = "true\n"}})));
    host_.WaitForReports(1);
    EXPECT_EQ(state(), before);
    host_.Shutdown();
    EXPECT_EQ(state(), before);
    EXPECT_EQ(CountEntries("/proc/self/fd"), descriptors);
    EXPECT_TRUE(WaitUntil([&] { return CountEntries("/proc/self/task") == threads; })) << "a thread was left behind";
    umask(umask_before);
}

}  // namespace
