#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "tests/plugin/plugin_host.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"

/// Policies through the loaded plugin.
class RunPolicyTest : public testing::Test {
protected:
    RunPolicyTest() { WriteFile(host_.Root() / "etc/plugins/qxpmaint/qxpmaint.conf", "[qxpmaint]\ncheckcycle=1\n"); }

    static void WriteFile(const std::filesystem::path& path, const std::string& content) {
        std::filesystem::create_directories(path.parent_path());
        // Complete before it has its name: the loader takes whatever it finds.
        const std::filesystem::path hidden = path.parent_path() / "writing";
        std::ofstream(hidden, std::ios::binary) << content;
        std::filesystem::rename(hidden, path);
    }

    std::string Policy(const std::string& id, const std::vector<ScriptSpec>& scripts,
                       const std::string& command = "RunScriptNormal") {
        return MakePolicy(host_.signer, id, command, scripts);
    }

    static std::vector<ScriptSpec> Sleepers(size_t count) { return {count, {.body = "exec sleep 1000"}}; }
    static ScriptSpec Echo(const std::string& id) { return {.id = id, .body = "echo " + id}; }

    static long Threads(const std::string& name) { return CountThreads(name); }
    static bool WaitForRuns(long count) {
        return WaitUntil([&] { return Threads("qxmaintr") == count; });
    }

    // The pass that launches a policy ends with a look at the time-outs: all its runs are listed then.
    bool WaitForLaunch(size_t count) {
        return WaitUntil([&] { return host_.LogWith("strDisposeType[MT_RUNTIMEOUT]").size() == count; });
    }

    std::string WaitForResultFile(const std::string& name) {
        std::string content;
        const auto path = host_.Data() / "result" / name;
        EXPECT_TRUE(WaitUntil([&] { return (content = ReadFile(path)).ends_with("}"); })) << path;
        return content;
    }

    PluginHost host_;
};
