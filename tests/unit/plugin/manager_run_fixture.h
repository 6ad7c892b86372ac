#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <map>
#include <mutex>

#include "plugin/core/plugin_core.h"
#include "plugin/manager/maint_mgr.h"
#include "plugin/manager/thread_gate.h"
#include "qxhost/json.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"
#include "tests/unit/plugin/descriptor_limit.h"

/// A time-out in seconds that is 0 as 32 bits of milliseconds.
inline constexpr unsigned int OVER_AT_ONCE = 1U << 29U;

inline std::mutex g_reportsLock;
inline std::list<std::string> g_reports;  // guarded by g_reportsLock

inline int KeepReport(int /*type*/, const char* /*name1*/, const char* /*name2*/, int /*value*/,
                      const unsigned char* data, unsigned int length) {
    const std::lock_guard lock(g_reportsLock);
    g_reports.emplace_back(reinterpret_cast<const char*>(data), length);
    return 0;
}

inline void ForgetReports() {
    const std::lock_guard lock(g_reportsLock);
    g_reports.clear();
}

struct Result {
    std::string script;
    std::string result;
    std::string output;
    std::string seconds;
    std::string end;
};

/// A working manager over a temporary directory, whose reports are kept. Afterwards nothing may be left: no thread of
/// the plugin, no descriptor, no child.
class RunTest : public testing::Test {
protected:
    RunTest() {
        ForgetReports();
        InitManager();
        descriptors_ = CountEntries("/proc/self/fd");
    }

    ~RunTest() override {
        qxpmaint_impl::uninit();
        EXPECT_EQ(gate_->Count(), 0U);
        EXPECT_EQ(CountEntries("/proc/self/fd"), descriptors_before_);
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was left behind";
    }

    void InitManager() {
        PluginInitParam param{};
        param.notify_to_mgr = [](int, const unsigned char*) {};
        param.send_to_mgr = KeepReport;
        param.kv = "agent_type=KSTL";
        EXPECT_EQ(qxpmaint_impl::qxpmaint_init(&param), 0);
        manager_ = CMaintMgr::Instance();
        manager_->Start();
        gate_ = manager_->Gate();
    }

    _MaintPolicyDetail Script(const std::string& body, const std::string& id = "script") {
        _MaintPolicyDetail script;
        script.strID = "policy";
        script.strScriptId = id;
        script.strType = "sh";
        script.strText = body;
        script.strPath = directory_.Path().string();
        return script;
    }

    void Launch(const _MaintPolicyDetail& script) { manager_->RunNewScript({script}); }

    std::string WriteProgram(const std::string& body, const std::string& id) {
        std::string path = directory_.Write("alone-" + id, "#!/bin/bash\n" + body + "\n");
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
        return path;
    }
    // Runs a program as the very child of this process, without a shell between that would hold the output open.
    void LaunchProgram(const std::string& path, const std::string& id, unsigned int time_out = 0) {
        auto script = Script("", id);
        script.strType = "exe";
        script.dwTimeOut = time_out;
        manager_->CreateRunScript("exec " + path, "", manager_->GetSequenceIndex(), script);
    }
    void LaunchAlone(const std::string& body) { LaunchProgram(WriteProgram(body, "script"), "script"); }

    // Disposes of finished runs until none is listed, and returns what was reported, by script.
    std::map<std::string, Result> Collect() {
        EXPECT_TRUE(WaitUntil([&] {
            manager_->DisposeScriptList(MT_RUNCOMPLETE);
            return manager_->GetPRunScriptListSize() == 0;
        }));
        std::map<std::string, Result> results;
        for (const Result& result : Reported()) {
            results[result.script] = result;
        }
        return results;
    }

    // Disposes of finished runs until one is reported, which is the first.
    Result WaitForReport() {
        EXPECT_TRUE(WaitUntil([&] {
            manager_->DisposeScriptList(MT_RUNCOMPLETE);
            return !Reported().empty();
        }));
        return Reported().at(0);
    }

    static std::vector<Result> Reported() {
        std::vector<Result> results;
        const std::lock_guard lock(g_reportsLock);
        for (const std::string& text : g_reports) {
            qxtools::CPJsonParse json;
            EXPECT_TRUE(json.LoadBuffer(text.c_str())) << text;
            std::list<void*> runs;
            json.GetAllNode(json.GetNode(json.GetNode(nullptr, "data"), "result"), runs);
            for (void* run : runs) {
                const auto value = [&](const char* key) { return json.GetValue(json.GetNode(run, key)).Str(); };
                results.push_back({value("scriptid"), value("run_result"), value("run_outdata"),
                                   value("run_runningtime"), value("run_endtime")});
            }
        }
        return results;
    }

    // The pid that a script has written to a file of this name.
    pid_t PidIn(const std::string& name) {
        std::string text;
        EXPECT_TRUE(WaitUntil([&] { return (text = ReadFile(directory_ / name)).find('\n') != std::string::npos; }));
        return static_cast<pid_t>(std::stol(text));
    }

    // All threads of the manager have ended.
    bool WaitThreadsGone() { return gate_->WaitEmpty(std::chrono::steady_clock::now() + DEADLINE); }

    void ExpectGone(pid_t pid) {
        EXPECT_TRUE(WaitUntil([&] { return !ProcessRuns(pid); })) << "process " << pid << " is left";
    }

    TempDir directory_;
    CMaintMgr* manager_ = nullptr;
    std::shared_ptr<CThreadGate> gate_;
    const long descriptors_before_ = CountEntries("/proc/self/fd");
    long descriptors_ = 0;  ///< with an idle manager
};
