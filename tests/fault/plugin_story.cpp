// A life of the plugin in a host, under faults: plugin_story brief|timeout. Exit code 0 when nothing was lost, leaked
// or left unsaid; otherwise a line for each of it. See qxpfault.cpp for what makes calls fail.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iostream>

#include "tests/plugin/plugin_host.h"
#include "tests/support/wait.h"

namespace fs = std::filesystem;

namespace {

/// How long a silent log tells that nothing comes any more: longer than the cycle of the loader.
constexpr std::chrono::milliseconds QUIET{2500};
/// A time-out ends scripts only when there are more than this, and some may fail to start.
constexpr int SLEEPERS = 36;

struct Script {
    std::string id;
    std::string policy;
};

class Story {
public:
    Story() : log_(open((host_.Root() / "log").c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600)) {
        host_.create_plugin(PLUGIN_CLSID);  // the log is open from here on
        descriptors_ = CountEntries("/proc/self/fd");
        arm_ = reinterpret_cast<unsigned (*)(int)>(dlsym(RTLD_DEFAULT, "qxp_faults_arm"));
    }

    int Tell(bool with_timeout) {
        PutFile("policyfile/file.json", MakePolicy("file", "RunScriptNormal", {Quick("file")}));
        PutFile("policyprocess/once.json", MakePolicy("once", "RunScriptProcess", {Quick("once")}));
        Arm(1);
        Launch();
        Send("pair", "RunScriptNormal", {Quick("sh"), Quick("exe")});
        Send("kept", "RunScriptFile", {Quick("kept")});
        char once[] = "once.json";
        host_.runonce_plugin(once);
        AwaitOutcomes(true);
        if (with_timeout) {
            EndSleepersByTimeOut();  // after the run-once, which would wait for those that are left
        }
        Send("held", "RunScriptNormal", {Sleeper("held", "0")}, false);
        WaitUntil([&] { return Ran({"held", ""}) || IsQuiet(); });
        Shutdown();
        const unsigned failed = Arm(0);
        CheckNothingIsLeft();
        for (const Script& script : scripts_) {
            Check(script);
        }
        if (const char* expected = getenv("QXP_FAULT_EXPECTED"); expected && failed > 0 && !SaysOneOf(expected)) {
            Complain(std::string("the log has none of ") + expected);
        }
        if (complaints_ != 0 && getenv("QXP_FAULT_LOG")) {
            std::cout << Log();
        }
        return complaints_ == 0 ? 0 : 1;
    }

private:
    unsigned Arm(int on) { return arm_ ? arm_(on) : 0; }

    void Complain(const std::string& what) {
        ++complaints_;
        std::cout << "  " << what << '\n';
    }

    // An object that the plugin could not take back is the host's still, which may try again.
    void Shutdown() {
        PluginObjInterface* const object = host_.object;
        host_.Shutdown();
        if (Says("DestroyObject Error pAdapterMgr is NULL")) {
            host_.destroy_object(PLUGIN_CLSID, object);
        }
    }

    // What fails at first is tried again, as a host may.
    void Launch() {
        for (int turn = 0; turn < 2; ++turn) {
            try {
                return host_.Launch();
            } catch (const std::exception&) {
                Shutdown();
            }
        }
    }

    // Every script leaves a mark when it runs; its output is whole when it ends with "end ID".
    ScriptSpec Quick(const std::string& id) {
        ScriptSpec script;
        script.id = id;
        script.type = id == "exe" ? "exe" : "sh";
        script.body = "#!/bin/sh\necho begin " + id + "\n: > " + (host_.Root() / ("ran." + id)).string() +
                      "\necho end " + id + "\n";
        script.check_ret = "end " + id;
        return script;
    }
    // With a child of its own that holds the output open.
    ScriptSpec Sleeper(const std::string& id, const std::string& timeout) {
        ScriptSpec script;
        script.id = id;
        script.body = ": > " + (host_.Root() / ("ran." + id)).string() + "\nsleep 1000 & exec sleep 1000\n";
        script.timeout = timeout;
        script.check_ret = "never printed";
        return script;
    }
    std::string MakePolicy(const std::string& id, const std::string& command, const std::vector<ScriptSpec>& scripts) {
        for (const ScriptSpec& script : scripts) {
            scripts_.push_back({script.id, id});
        }
        return ::MakePolicy(host_.signer, id, command, scripts);
    }
    void Send(const std::string& id, const std::string& command, const std::vector<ScriptSpec>& scripts,
              bool await = true) {
        if (!host_.SendCommand(MakePolicy(id, command, scripts))) {
            refused_ = true;  // it is not on the bus: nothing was accepted
        }
        if (await) {
            AwaitOutcomes();
        }
    }
    void PutFile(const std::string& name, const std::string& content) {
        fs::create_directories((host_.Data() / name).parent_path());
        std::ofstream(host_.Data() / (name + ".new")) << content;
        fs::rename(host_.Data() / (name + ".new"), host_.Data() / name);
    }

    // They end when a policy comes after their time. Those that then are too few for that are left to the stop.
    void EndSleepersByTimeOut() {
        std::vector<ScriptSpec> sleepers;
        sleepers.reserve(SLEEPERS);
        for (int i = 0; i < SLEEPERS; ++i) {
            sleepers.push_back(Sleeper("sleeper" + std::to_string(i), "2"));
        }
        const size_t first = scripts_.size();
        Send("sleepers", "RunScriptNormal", sleepers, false);
        const auto all_run = [&] {
            return std::all_of(scripts_.begin() + static_cast<long>(first), scripts_.end(),
                               [&](const Script& script) { return Ran(script); });
        };
        WaitUntil([&] { return all_run() || IsQuiet(); });
        const auto time_over = std::chrono::steady_clock::now() + std::chrono::milliseconds(2100);
        WaitUntil([&] { return std::chrono::steady_clock::now() > time_over; });
        Send("tick", "RunScriptNormal", {Quick("tick")});
    }

    // Reads what the log has got since the last time. The story's own descriptor: the process may have no other.
    const std::string& Log() {
        char part[65536];
        ssize_t got = 0;
        while ((got = pread(log_, part, sizeof part, static_cast<off_t>(text_.size()))) > 0) {
            text_.append(part, static_cast<size_t>(got));
        }
        for (size_t end = 0; (end = text_.find('\n', read_)) != std::string::npos; read_ = end + 1) {
            TakeLine(text_.substr(read_, end - read_));
        }
        return text_;
    }
    void TakeLine(const std::string& line) {
        if (line.find(" maintloadfile/") == std::string::npos) {  // which says the same in every cycle
            grown_ = std::chrono::steady_clock::now();
        }
        if (line.find(" error ") < line.find('/') || line.find(" warn ") < line.find('/')) {
            errors_.push_back(line);
        }
        if (line.find("pszSendData[") != std::string::npos) {
            sent_.push_back(line);
        }
    }
    bool IsQuiet() {
        Log();
        return std::chrono::steady_clock::now() - grown_ > QUIET;
    }
    bool Says(const std::string& part) { return Log().find(part) != std::string::npos; }
    bool SaysOneOf(const std::string& parts) {
        std::istringstream in(parts);
        for (std::string part; std::getline(in, part, '|');) {
            if (Says(part)) {
                return true;
            }
        }
        return false;
    }
    static bool Has(const std::vector<std::string>& lines, const std::string& part) {
        return std::any_of(lines.begin(), lines.end(),
                           [&](const std::string& line) { return line.find(part) != std::string::npos; });
    }

    bool Ran(const Script& script) const { return access((host_.Root() / ("ran." + script.id)).c_str(), F_OK) == 0; }
    bool IsNamed(const Script& script) {
        return Has(errors_, "strScriptId[" + script.id + "]") || Has(errors_, "strID[" + script.policy + "]");
    }
    bool IsTold(const Script& script) {
        Log();
        return Has(sent_, R"("scriptid":")" + script.id + '"') || IsNamed(script);
    }
    void AwaitOutcomes(bool once_too = false) {
        const bool over = WaitUntil([&] {
            return std::all_of(
                       scripts_.begin(), scripts_.end(),
                       [&](const Script& script) { return (script.id == "once" && !once_too) || IsTold(script); }) ||
                   IsQuiet();
        });
        if (!over) {
            Complain("the plugin does not come to rest");
        }
    }

    // The reports that name a script: those that were sent and those in files.
    std::vector<Json> ReportsOf(const Script& script) {
        if (runs_.empty()) {
            for (const BusCall& call : host_.endpoint.Calls("SendAsync")) {
                TakeReport(call.data.substr(148, call.data.size() - 149));  // out of its envelope
            }
            std::error_code none;  // without the directory there are no files
            for (const auto& file : fs::directory_iterator(host_.Data() / "result", none)) {
                TakeReport(ReadFile(file.path()));
            }
        }
        std::vector<Json> found;
        std::copy_if(runs_.begin(), runs_.end(), std::back_inserter(found),
                     [&](const Json& run) { return run.at("scriptid") == script.id; });
        return found;
    }
    // A refusal and a file that a fault has cut hold no runs.
    void TakeReport(const std::string& text) {
        const Json report = Json::parse(text, nullptr, false);
        if (report.contains("data")) {
            runs_.insert(runs_.end(), report["data"]["result"].begin(), report["data"]["result"].end());
        }
    }

    void Check(const Script& script) {
        const auto reports = ReportsOf(script);
        const bool ran = Ran(script);
        if (reports.size() > 1) {
            Complain(script.id + ": reported more than once");
        }
        for (const Json& report : reports) {
            const std::string output = report.at("run_outdata");
            if (report.at("run_result") == "1" &&
                (!ran || output != "begin " + script.id + "\nend " + script.id + "\n")) {
                Complain(script.id + ": a success with the output [" + output + "]");
            }
        }
        // What a stop ends has no report by design: a line about its end names it.
        if (reports.empty() && ran && !IsNamed(script) && !Says("strScriptId[" + script.id + "]")) {
            Complain(script.id + ": ran, and nothing tells of it");
        }
        if (reports.empty() && !ran && !refused_ && errors_.empty() &&
            !fs::exists(host_.Data() / "policyfile/file.json")) {
            Complain(script.id + ": neither ran nor is there an error");
        }
    }

    void CheckNothingIsLeft() {
        const auto our_threads = [] {
            return std::any_of(fs::directory_iterator("/proc/self/task"), fs::directory_iterator(),
                               [](const auto& task) {
                                   const std::string name = ReadFile(task.path() / "comm");
                                   return name.starts_with("qx") || name.starts_with("maint");
                               });
        };
        if (Says("processes may be left of pid[")) {
            std::cout << "processes may be left\n";
            return;
        }
        if (!WaitUntil([&] { return !our_threads(); }, std::chrono::seconds(10))) {
            Complain("a thread is left");
        }
        if (waitpid(-1, nullptr, WNOHANG) != -1) {
            Complain("a child process is left");
        }
        if (const long open = CountEntries("/proc/self/fd"); open != descriptors_) {
            Complain("descriptors are left: " + std::to_string(open) + " instead of " + std::to_string(descriptors_));
        }
        for (const auto& file : fs::directory_iterator(host_.Data())) {
            if (file.is_regular_file()) {
                Complain("a script file is left: " + file.path().filename().string());
            }
        }
    }

    PluginHost host_;
    const int log_;
    long descriptors_ = 0;
    unsigned (*arm_)(int) = nullptr;
    std::vector<Script> scripts_;
    std::vector<Json> runs_;  // as reported
    bool refused_ = false;
    std::string text_;
    size_t read_ = 0;
    std::vector<std::string> errors_;
    std::vector<std::string> sent_;  // lines with a report
    std::chrono::steady_clock::time_point grown_ = std::chrono::steady_clock::now();
    int complaints_ = 0;
};

}  // namespace

int main(int argc, char** argv) try {
    setenv("QXPMAINT_TEST_STOP_POLL_MS", "5", 1);
    setenv("QXPMAINT_TEST_WORK_WAIT_MS", "500", 1);
    setenv("QXPMAINT_TEST_CLOSE_WAIT_MS", "40000", 1);  // never given up for want of a processor
    return Story().Tell(argc > 1 && strcmp(argv[1], "timeout") == 0);
} catch (const std::exception& error) {
    std::cout << error.what() << '\n';
    return 2;
}
