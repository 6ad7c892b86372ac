#include <gmock/gmock.h>

#include <csignal>
#include <future>

#include "agent/bus/endpoint.h"
#include "agent/service/plugin_module.h"
#include "base/startup_error.h"
#include "qxhost/init_block.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/agent/test_support.h"

namespace qxpagent {
namespace {

// A plugin that records its calls. One at a time: entry points are plain functions.
struct FakePlugin {
    std::string calls;
    bool refuse_create = false;
    int initialize_result = 0;
    int start_result = 0;
    bool pipe_signal_blocked = true;
    Gate run_once;
};
FakePlugin* g_fake = nullptr;

int Called(const char* name, int result = 0) {
    g_fake->calls.append(name).append(" ");
    return result;
}

PluginEntryPoints FakeEntryPoints() {
    static PluginObjInterface object = {
        [](void* block) {
            Called(static_cast<QxInitBlock*>(block)->pszInitParam == nullptr ? "default" : "given");
            return Called("Initialize", g_fake->initialize_result);
        },
        [] { Called("Uninitialize"); },
        [] { return Called("Start", g_fake->start_result); },
        [] { return Called("Stop"); },
        [] { return g_fake->calls.ends_with("Stop ") ? 3U : 2U; },
        [](void*) -> void* { return nullptr; },
        [](void*) { Called("SetCtx"); },
        [](void*) { return 0; },
    };
    PluginEntryPoints entry_points;
    entry_points.create_plugin = [](const char*) -> void* {
        static const char* (*table[])() = {[] { return "9.9"; }};
        return static_cast<void*>(table);
    };
    entry_points.create_object = [](const char* name) -> void* {
        Called(name == std::string(PLUGIN_CLSID) ? "CreateObject" : name);
        return g_fake->refuse_create ? nullptr : &object;
    };
    entry_points.destroy_object = [](const char*, void*) { Called("DestroyObject"); };
    entry_points.runonce_plugin = [](char* name) {
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        g_fake->pipe_signal_blocked = sigismember(&mask, SIGPIPE) == 1;
        EXPECT_TRUE(g_fake->run_once.Pass());
        return name == std::string("good.json") ? 0 : -1;
    };
    return entry_points;
}

class PluginModuleTest : public testing::Test {
protected:
    PluginModuleTest() { g_fake = &fake_; }
    ~PluginModuleTest() override { g_fake = nullptr; }

    FakePlugin fake_;
    MessageBus bus_;
    Endpoint endpoint_{bus_};
};

TEST_F(PluginModuleTest, GoesThroughItsLifeInOrder) {
    {
        PluginModule plugin(FakeEntryPoints());
        EXPECT_EQ(std::nullopt, plugin.RunOnce("good.json")) << "not started";
        plugin.Start(endpoint_, "");
        EXPECT_EQ(2U, plugin.Status());
        EXPECT_EQ("9.9", plugin.Version());
        plugin.Stop();
        EXPECT_EQ(3U, plugin.Status());
        EXPECT_TRUE(plugin.Finish());
        EXPECT_EQ(4U, plugin.Status());
    }
    EXPECT_EQ("CreateObject SetCtx default Initialize Start Stop Uninitialize DestroyObject ", fake_.calls);
}

TEST_F(PluginModuleTest, AStepThatFailsUndoesExactlyTheStepsBefore) {
    const auto calls_of_failed_start = [&] {
        fake_.calls.clear();
        PluginModule plugin(FakeEntryPoints());
        EXPECT_THROW(plugin.Start(endpoint_, "agent_type=X"), qxpbase::StartupError);
        EXPECT_EQ(std::nullopt, plugin.RunOnce("good.json"));
        return fake_.calls;
    };
    fake_.start_result = -1;
    EXPECT_EQ("CreateObject SetCtx given Initialize Start Stop Uninitialize DestroyObject ", calls_of_failed_start());
    fake_.initialize_result = -2;
    EXPECT_EQ("CreateObject SetCtx given Initialize DestroyObject ", calls_of_failed_start());
    fake_.refuse_create = true;
    EXPECT_EQ("CreateObject ", calls_of_failed_start());
}

TEST_F(PluginModuleTest, RunningOnceDelaysTheEndAndIsRefusedAfterTheStop) {
    PluginModule plugin(FakeEntryPoints());
    plugin.Start(endpoint_, "");
    auto run = std::async(std::launch::async, [&] {
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
        const auto accepted = plugin.RunOnce("good.json");
        pthread_sigmask(SIG_SETMASK, nullptr, &pipe);
        EXPECT_TRUE(sigismember(&pipe, SIGPIPE)) << "the caller's mask is restored";
        return accepted;
    });
    ASSERT_TRUE(fake_.run_once.reached.Wait());
    plugin.Stop();
    EXPECT_EQ(std::nullopt, plugin.RunOnce("good.json"));
    auto finish = std::async(std::launch::async, [&] { return plugin.Finish(); });
    fake_.run_once.open.Set();
    EXPECT_TRUE(finish.get());
    EXPECT_EQ(std::optional<bool>(true), run.get());
    EXPECT_FALSE(fake_.pipe_signal_blocked) << "scripts would inherit it";
}

TEST(LoadPluginTest, SaysInOneLineWhatIsWrong) {
    const TempDir directory;
    const auto expect_refusal = [](const std::string& path, const char* why) {
        EXPECT_THAT([&] { LoadPlugin(path); }, testing::ThrowsMessage<qxpbase::StartupError>(testing::HasSubstr(why)));
    };
    expect_refusal(directory / "none.so", "none.so is missing");
    expect_refusal(directory.Write("text.so", "no library"), "cannot be loaded");
    expect_refusal("/lib/x86_64-linux-gnu/libm.so.6", "does not export create_plugin");
}

}  // namespace
}  // namespace qxpagent
