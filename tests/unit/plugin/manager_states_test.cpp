// The table of a run's life, walked row by row: real runs take every row from every state, and what comes of them is
// what the rows on their way say.

#include <dlfcn.h>
#include <sys/resource.h>

#include <new>
#include <set>

#include "plugin/manager/run_states.h"
#include "qxhost/event.h"
#include "tests/unit/plugin/manager_run_fixture.h"
#include "tests/unit/test_barrier.h"

namespace {
std::atomic<int> g_signals{0};
}  // namespace

// In place of the host's.
extern "C" bool QxSetEvent(void* event) {
    g_signals += event != nullptr ? 1 : 0;
    return reinterpret_cast<decltype(&QxSetEvent)>(dlsym(RTLD_NEXT, "QxSetEvent"))(event);
}

namespace {

using enum ERunState;
using enum ERunEvent;

enum class Act { kNothing, kPutAway, kTimeOut, kCancel, kThrow, kStopWorking };

/// What is done on the run's thread when it reaches a place.
struct Step {
    std::string point;
    Act act = Act::kNothing;
};

/// What comes of a run.
struct Expected {
    const char* result;  ///< Empty: nothing is reported.
    const char* output;  ///< Null: whatever was read by then.
    int signals;
    bool asked = false;  ///< The script was asked to end.
};

/// How a run is led through its life: what happens to it, and how that is brought about.
struct Path {
    std::string script;
    std::vector<Step> steps;  ///< One after the other.
    int listed_at;            ///< The step before which the run is listed; -1: after its thread has ended.
    std::vector<ERunEvent> events;
    Expected expected;
    bool working = true;
};

// A script that lives on, and says whether it was asked to end.
constexpr char kLives[] = "trap 'touch \"$d/asked\"; exit' TERM; echo half; touch \"$d/ready\"; sleep 1000 & wait";
constexpr char kLivesMute[] =
    "trap 'touch \"$d/asked\"; exit' TERM; echo half; exec >&- 2>&-; touch \"$d/ready\"; sleep 1000 & wait";
constexpr char kPrints[] = "echo half; touch \"$d/ready\"";
constexpr char kPrintsOn[] = "touch \"$d/ready\"; while echo y; do sleep 0.01; done";
constexpr char kNoProcess[] = "";
constexpr char kNoThread[] = "sleep 1000";

const Step kCancelReading{"run reading", Act::kCancel};
const Step kThrowStoring{"run storing", Act::kThrow};

const std::vector<Path> kPaths{
    {kPrints, {}, -1, {BEGINS, OUTPUT_ENDED, PROCESS_EXITED, MAY_STORE, LISTED, COMPLETED}, {"1", "half\n", 2}},
    {kPrints, {}, -1, {BEGINS, OUTPUT_ENDED, PROCESS_EXITED, MAY_STORE, LISTED, PUT_AWAY}, {"", "", 2}},
    {kPrints,
     {{"run stored", Act::kThrow}},
     -1,
     {BEGINS, OUTPUT_ENDED, PROCESS_EXITED, MAY_STORE, FINISH_FAILED, LISTED, COMPLETED},
     {"1", "half\n", 2}},
    {kNoThread, {}, -1, {NO_THREAD, LISTED, COMPLETED}, {"0", "", 1}},

    {kPrintsOn,
     {{"run attached"}},
     0,
     {LISTED, NOT_WORKING, PROCESS_EXITED, MAY_STORE, COMPLETED},
     {"0", "", 0},
     false},
    {kPrintsOn,
     {{"run reading", Act::kStopWorking}},
     0,
     {BEGINS, LISTED, NOT_WORKING, PROCESS_EXITED, MAY_STORE, COMPLETED},
     {"1", nullptr, 1}},
    {kNoProcess, {{"run attached"}}, 0, {LISTED, NO_STREAM, MAY_STORE, COMPLETED}, {"0", "", 0}, false},
    {kNoProcess, {{"run reading"}}, 0, {BEGINS, LISTED, NO_STREAM, MAY_STORE, COMPLETED}, {"1", "", 1}},

    {kLives, {kCancelReading}, 0, {BEGINS, LISTED, CANCELLED, MAY_STORE, COMPLETED}, {"0", nullptr, 1, true}},
    {kLivesMute,
     {{"run waiting", Act::kCancel}},
     0,
     {BEGINS, OUTPUT_ENDED, LISTED, CANCELLED, MAY_STORE, COMPLETED},
     {"0", "half\n", 1, true}},
    {kLives,
     {{"run reading", Act::kThrow}},
     0,
     {BEGINS, LISTED, STEP_FAILED, MAY_STORE, COMPLETED},
     {"0", nullptr, 1, true}},
    {kLivesMute,
     {{"run waiting", Act::kThrow}},
     0,
     {BEGINS, OUTPUT_ENDED, LISTED, STEP_FAILED, MAY_STORE, COMPLETED},
     {"0", "half\n", 1, true}},
    {kLives, {{"run beginning", Act::kThrow}}, 0, {LISTED, FINISH_FAILED, MAY_STORE, COMPLETED}, {"0", "", 1}},
    {kPrints,
     {kThrowStoring},
     0,
     {BEGINS, OUTPUT_ENDED, PROCESS_EXITED, LISTED, FINISH_FAILED, MAY_STORE, COMPLETED},
     {"0", "", 1}},
    {kLives,
     {kCancelReading, kThrowStoring},
     1,
     {BEGINS, CANCELLED, LISTED, FINISH_FAILED, MAY_STORE, COMPLETED},
     {"0", "", 1, true}},

    {kLives, {{"run attached", Act::kPutAway}}, 0, {LISTED, PUT_AWAY, STOP_SEEN, STOP_AT_END}, {"", "", 0, true}},
    {kLives,
     {{"run reading", Act::kPutAway}},
     0,
     {BEGINS, LISTED, PUT_AWAY, STOP_SEEN, STOP_AT_END},
     {"", "", 1, true}},
    {kLivesMute,
     {{"run waiting", Act::kPutAway}},
     0,
     {BEGINS, OUTPUT_ENDED, LISTED, PUT_AWAY, STOP_SEEN, STOP_AT_END},
     {"", "", 1, true}},
    {kPrints,
     {{"run over", Act::kPutAway}},
     0,
     {BEGINS, OUTPUT_ENDED, PROCESS_EXITED, LISTED, PUT_AWAY, STOP_SEEN, STOP_AT_END},
     {"", "", 1}},
    {kPrints,
     {{"run storing", Act::kPutAway}},
     0,
     {BEGINS, OUTPUT_ENDED, PROCESS_EXITED, LISTED, PUT_AWAY, STOP_AT_END},
     {"", "", 1}},
    {kLives,
     {kCancelReading, {"run storing", Act::kPutAway}},
     1,
     {BEGINS, CANCELLED, LISTED, PUT_AWAY, STOP_AT_END},
     {"", "", 1, true}},
    {kLives,
     {{"run beginning", Act::kThrow}, {"process scan", Act::kPutAway}},
     1,
     {FINISH_FAILED, LISTED, PUT_AWAY, STOP_AT_END},
     {"", "", 1}},
    {kLives,
     {{"run reading", Act::kPutAway}, kThrowStoring},
     0,
     {BEGINS, LISTED, PUT_AWAY, STOP_SEEN, FINISH_FAILED, STOP_AT_END},
     {"", "", 1, true}},
    {kLives,
     {{"run reading", Act::kPutAway}, {"run stored", Act::kThrow}},
     0,
     {BEGINS, LISTED, PUT_AWAY, STOP_SEEN, STOP_AT_END, FINISH_FAILED},
     {"", "", 1, true}},
};

// Taken with so many runs beside them that time-outs count. Reported as they were then.
const std::vector<Path> kTimeOutPaths{
    {kPrints, {}, -1, {BEGINS, OUTPUT_ENDED, PROCESS_EXITED, MAY_STORE, LISTED, TIMED_OUT}, {"1", "half\n", 2}},
    {kLives,
     {{"run reading", Act::kTimeOut}},
     0,
     {BEGINS, LISTED, TIMED_OUT, STOP_SEEN, STOP_AT_END},
     {"0", "", 1, true}},
    {kLivesMute,
     {{"run waiting", Act::kTimeOut}},
     0,
     {BEGINS, OUTPUT_ENDED, LISTED, TIMED_OUT, STOP_SEEN, STOP_AT_END},
     {"0", "", 1, true}},
    {kPrints,
     {{"run storing", Act::kTimeOut}},
     0,
     {BEGINS, OUTPUT_ENDED, PROCESS_EXITED, LISTED, TIMED_OUT, STOP_AT_END},
     {"0", "", 1}},
    {kLives,
     {kCancelReading, {"run storing", Act::kTimeOut}},
     1,
     {BEGINS, CANCELLED, LISTED, TIMED_OUT, STOP_AT_END},
     {"0", "", 1, true}},
    {kLives,
     {kCancelReading, kThrowStoring, {"process scan", Act::kTimeOut}},
     2,
     {BEGINS, CANCELLED, FINISH_FAILED, LISTED, TIMED_OUT, STOP_AT_END},
     {"0", "", 1, true}},
};

class RunStatesTest : public RunTest {
protected:
    RunStatesTest() {
        current_ = this;
        g_pfnTestPoint = [](const char* point) { current_->Reach(point); };
    }
    ~RunStatesTest() override { g_pfnTestPoint = nullptr; }

    void Walk(const Path& path) {
        Follow(path.events);
        for (const char* name : {"ready", "asked"}) {
            std::filesystem::remove(directory_ / name);
        }
        {
            const std::lock_guard lock(g_reportsLock);
            g_reports.clear();
        }
        manager_->SetWork(path.working ? 1 : 0);
        path_ = &path;
        next_ = 0;
        reached_ = false;
        listed_before_ = manager_->GetPRunScriptListSize();
        g_signals = 0;
        LaunchOn(path);
        EXPECT_TRUE(WaitThreadsGone());
        path_ = nullptr;
        const ERunEvent last = path.events.back();
        if (last == COMPLETED || last == TIMED_OUT || last == PUT_AWAY) {
            manager_->DisposeScriptList(last == COMPLETED   ? MT_RUNCOMPLETE
                                        : last == TIMED_OUT ? MT_RUNTIMEOUT
                                                            : MT_STOPPLUGIN);
        }
        EXPECT_EQ(next_, path.steps.size()) << "not all places were reached";
        EXPECT_EQ(g_signals, path.expected.signals);
        EXPECT_EQ(std::filesystem::exists(directory_ / "asked"), path.expected.asked) << "or killed without";
        EXPECT_EQ(manager_->GetPRunScriptListSize(), listed_before_.load());
        // One less after a shortage: the reserve is taken again at the next launch.
        EXPECT_LE(CountEntries("/proc/self/fd"), idle_descriptors_) << "stream closed";
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "child reaped";
        CheckReport(path.expected, last);
    }

    std::set<std::pair<const RunRow*, ERunState>> walked_;
    long idle_descriptors_ = descriptors_;

private:
    // The rows on the way count as walked.
    void Follow(const std::vector<ERunEvent>& events) {
        ERunState state = CREATED;
        for (const ERunEvent event : events) {
            const auto table = RunTable();
            const auto row = std::find_if(table.begin(), table.end(), [&](const RunRow& candidate) {
                return candidate.eEvent == event && candidate.stFrom.Has(state);
            });
            ASSERT_NE(row, table.end()) << "event " << static_cast<int>(event) << " from " << static_cast<int>(state);
            walked_.emplace(&*row, state);
            state = row->eTo == SAME ? state : row->eTo;
        }
    }

    static void CheckReport(const Expected& expected, ERunEvent last) {
        const std::vector<Result> results = Reported();
        ASSERT_EQ(results.size(), *expected.result != '\0' ? 1U : 0U);
        if (results.empty()) {
            return;
        }
        EXPECT_EQ(results[0].result, expected.result);
        EXPECT_EQ(results[0].end.empty(), last != COMPLETED) << "a run that timed out has no end time";
        if (expected.output != nullptr) {
            EXPECT_EQ(results[0].output, expected.output);
        }
    }

    void LaunchOn(const Path& path) {
        auto script = Script("", "walked");
        script.strType = "exe";
        script.dwTimeOut = 1U << 29U;  // in milliseconds a multiple of 2^32: over at once
        const std::string file =
            directory_.Write("walked", "#!/bin/bash\nd='" + directory_.Path().string() + "'\n" + path.script + "\n");
        std::filesystem::permissions(file, std::filesystem::perms::owner_all);
        rlimit before{};
        getrlimit(RLIMIT_NOFILE, &before);
        const rlimit none{0, before.rlim_max};
        pthread_attr_t usual;
        pthread_getattr_default_np(&usual);
        pthread_attr_t huge = usual;
        pthread_attr_setstacksize(&huge, size_t{1} << 47U);
        if (path.script == kNoProcess) {
            setrlimit(RLIMIT_NOFILE, &none);
        } else if (path.script == kNoThread) {
            pthread_setattr_default_np(&huge);
        }
        manager_->CreateRunScript("exec " + file, "", manager_->GetSequenceIndex(), script);
        setrlimit(RLIMIT_NOFILE, &before);
        pthread_setattr_default_np(&usual);
    }

    void Reach(const std::string& point) {
        const Path* path = path_;
        if (path == nullptr) {
            return;
        }
        if (point == "launch listing") {
            EXPECT_TRUE(path->listed_at < 0 ? WaitThreadsGone() : WaitUntil([this] { return reached_.load(); }));
            return;
        }
        if (next_ == path->steps.size() || path->steps[next_].point != point) {
            return;
        }
        const Step& step = path->steps[next_];
        if (path->script != kNoProcess) {
            WaitUntil([this] { return std::filesystem::exists(directory_ / "ready"); });
        }
        if (static_cast<int>(next_++) == path->listed_at) {
            reached_ = true;
            WaitUntil([this] { return manager_->GetPRunScriptListSize() == listed_before_ + 1; });
        }
        switch (step.act) {
            case Act::kNothing:
                break;
            case Act::kPutAway:
                manager_->DisposeScriptList(MT_STOPPLUGIN);
                break;
            case Act::kTimeOut:
                manager_->DisposeScriptList(MT_RUNTIMEOUT);
                break;
            case Act::kCancel:
                pthread_cancel(pthread_self());
                break;
            case Act::kThrow:
                throw std::bad_alloc();
            case Act::kStopWorking:
                manager_->SetWork(0);
                break;
        }
    }

    static inline RunStatesTest* current_ = nullptr;
    std::atomic<const Path*> path_{nullptr};
    std::atomic<size_t> next_{0};
    std::atomic<bool> reached_{false};
    std::atomic<unsigned int> listed_before_{0};
};

TEST_F(RunStatesTest, EveryRowIsWalkedFromEveryState) {
    const auto walk = [this](const std::vector<Path>& paths) {
        for (size_t path = 0; path < paths.size(); ++path) {
            SCOPED_TRACE(testing::Message() << "path " << path << " of " << paths.size());
#ifdef __SANITIZE_THREAD__
            if (paths[path].script == kNoThread) {
                continue;  // the sanitizer gives every thread a stack of its own choice
            }
#endif
            Walk(paths[path]);
        }
    };
    walk(kPaths);
    for (unsigned int run = 0; run < CMaintMgr::MaxRunThreadCount; ++run) {
        manager_->RunNewScript({Script("true")});
    }
    EXPECT_TRUE(WaitThreadsGone());
    idle_descriptors_ = CountEntries("/proc/self/fd");
    walk(kTimeOutPaths);
    manager_->DisposeScriptList(MT_STOPPLUGIN);

    for (const RunRow& row : RunTable()) {
        for (const ERunState state : {CREATED, READING, WAITING, EXITED, ABANDONED, KILLED, STOPPED, FINISHED, GONE}) {
#ifdef __SANITIZE_THREAD__
            if (row.eEvent == NO_THREAD) {
                continue;
            }
#endif
            EXPECT_EQ(walked_.contains({&row, state}), row.stFrom.Has(state))
                << "event " << static_cast<int>(row.eEvent) << " from " << static_cast<int>(state);
        }
    }
}

}  // namespace
