// The table of a run's life, walked row by row: real runs take every row from every state, and what comes of them is
// what the rows on their way say.

#include <dlfcn.h>

#include <new>
#include <set>

#include "plugin/manager/run_states.h"
#include "plugin/platform/test_point.h"
#include "qxhost/event.h"
#include "tests/unit/plugin/manager_run_fixture.h"

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

/// What comes of a run.
struct Expected {
    const char* result;  ///< Empty: nothing is reported.
    const char* output;  ///< Null: whatever was read by then.
    int signals;
    bool asked = false;  ///< The script was asked to end.
};

/// How a run is led through its life: what happens to it, and how that is brought about.
struct Path {
    using Steps = std::vector<std::pair<std::string, void (*)()>>;
    Path(const char* body, Steps acts, std::vector<ERunEvent> way, Expected end, size_t listed_before = 0)
        : script(body), steps(std::move(acts)), events(std::move(way)), expected(end), listed_at(listed_before) {}

    std::string script;
    Steps steps;  ///< What is done on the run's thread when it reaches a place, one after the other.
    std::vector<ERunEvent> events;
    Expected expected;
    size_t listed_at;  ///< The step before which the run is listed; none of them: after its thread has ended.
};

void PutAway() {
    CMaintMgr::Instance()->DisposeScriptList(MT_STOPPLUGIN);
}
void TimeOut() {
    CMaintMgr::Instance()->DisposeScriptList(MT_RUNTIMEOUT);
}
void Cancel() {
    pthread_cancel(pthread_self());
}
[[noreturn]] void Throw() {
    throw std::bad_alloc();
}
void StopWorking() {
    CMaintMgr::Instance()->SetWork(0);
}

// A script that lives on, and says whether it was asked to end.
constexpr char kLives[] = "trap 'touch \"$d/asked\"; exit' TERM; echo half; touch \"$d/ready\"; sleep 1000 & wait";
constexpr char kMute[] =
    "trap 'touch \"$d/asked\"; exit' TERM; echo half; exec >&- 2>&-; touch \"$d/ready\"; sleep 1000 & wait";
constexpr char kEnds[] = "echo half; touch \"$d/ready\"";
constexpr char kFloods[] = "touch \"$d/ready\"; exec yes";  // ends only when nobody can read it any more
constexpr char kNoProcess[] = "";
constexpr char kNoThread[] = "sleep 1000";

const std::vector<Path> kPaths{
    {kEnds, {}, {BEGINS, OUTPUT_ENDED, PROCESS_EXITED, MAY_STORE, LISTED, COMPLETED}, {"1", "half\n", 2}},
    {kEnds, {}, {BEGINS, OUTPUT_ENDED, PROCESS_EXITED, MAY_STORE, LISTED, PUT_AWAY}, {"", "", 2}},
    Path(kEnds, {{"stored", Throw}},
         {BEGINS, OUTPUT_ENDED, PROCESS_EXITED, MAY_STORE, FINISH_FAILED, LISTED, COMPLETED}, {"1", "half\n", 2}, 1),
    {kNoThread, {}, {NO_THREAD, LISTED, COMPLETED}, {"0", "", 1}},
    {kFloods, {{"attached", StopWorking}}, {LISTED, NOT_WORKING, PROCESS_EXITED, MAY_STORE, COMPLETED}, {"0", "", 0}},
    Path(kFloods, {{"reading", StopWorking}}, {BEGINS, LISTED, NOT_WORKING, PROCESS_EXITED, MAY_STORE, COMPLETED},
         {"1", nullptr, 1}),
    {kNoProcess, {{"attached", StopWorking}}, {LISTED, NO_STREAM, MAY_STORE, COMPLETED}, {"0", "", 0}},
    {kNoProcess, {{"reading", [] {}}}, {BEGINS, LISTED, NO_STREAM, MAY_STORE, COMPLETED}, {"1", "", 1}},
    {kLives, {{"reading", Cancel}}, {BEGINS, LISTED, CANCELLED, MAY_STORE, COMPLETED}, {"0", nullptr, 1, true}},
    Path(kMute, {{"waiting", Cancel}}, {BEGINS, OUTPUT_ENDED, LISTED, CANCELLED, MAY_STORE, COMPLETED},
         {"0", "half\n", 1, true}),
    {kLives, {{"reading", Throw}}, {BEGINS, LISTED, STEP_FAILED, MAY_STORE, COMPLETED}, {"0", nullptr, 1, true}},
    Path(kMute, {{"waiting", Throw}}, {BEGINS, OUTPUT_ENDED, LISTED, STEP_FAILED, MAY_STORE, COMPLETED},
         {"0", "half\n", 1, true}),
    {kLives, {{"beginning", Throw}}, {LISTED, FINISH_FAILED, MAY_STORE, COMPLETED}, {"0", "", 1}},
    Path(kEnds, {{"storing", Throw}},
         {BEGINS, OUTPUT_ENDED, PROCESS_EXITED, LISTED, FINISH_FAILED, MAY_STORE, COMPLETED}, {"0", "", 1}),
    Path(kLives, {{"reading", Cancel}, {"storing", Throw}},
         {BEGINS, CANCELLED, LISTED, FINISH_FAILED, MAY_STORE, COMPLETED}, {"0", "", 1, true}, 1),
    {kLives, {{"attached", PutAway}}, {LISTED, PUT_AWAY, STOP_SEEN, STOP_AT_END}, {"", "", 0, true}},
    {kLives, {{"reading", PutAway}}, {BEGINS, LISTED, PUT_AWAY, STOP_SEEN, STOP_AT_END}, {"", "", 1, true}},
    Path(kMute, {{"waiting", PutAway}}, {BEGINS, OUTPUT_ENDED, LISTED, PUT_AWAY, STOP_SEEN, STOP_AT_END},
         {"", "", 1, true}),
    Path(kEnds, {{"over", PutAway}}, {BEGINS, OUTPUT_ENDED, PROCESS_EXITED, LISTED, PUT_AWAY, STOP_SEEN, STOP_AT_END},
         {"", "", 1}),
    {kEnds, {{"storing", PutAway}}, {BEGINS, OUTPUT_ENDED, PROCESS_EXITED, LISTED, PUT_AWAY, STOP_AT_END}, {"", "", 1}},
    Path(kLives, {{"reading", Cancel}, {"storing", PutAway}}, {BEGINS, CANCELLED, LISTED, PUT_AWAY, STOP_AT_END},
         {"", "", 1, true}, 1),
    Path(kLives, {{"beginning", Throw}, {"process scan", PutAway}}, {FINISH_FAILED, LISTED, PUT_AWAY, STOP_AT_END},
         {"", "", 1}, 1),
    Path(kLives, {{"reading", PutAway}, {"storing", Throw}},
         {BEGINS, LISTED, PUT_AWAY, STOP_SEEN, FINISH_FAILED, STOP_AT_END}, {"", "", 1, true}),
    Path(kLives, {{"reading", PutAway}, {"stored", Throw}},
         {BEGINS, LISTED, PUT_AWAY, STOP_SEEN, STOP_AT_END, FINISH_FAILED}, {"", "", 1, true}),
};

// Taken with so many runs beside them that time-outs count. Reported as they were then.
const std::vector<Path> kTimeOutPaths{
    {kEnds, {}, {BEGINS, OUTPUT_ENDED, PROCESS_EXITED, MAY_STORE, LISTED, TIMED_OUT}, {"1", "half\n", 2}},
    {kLives, {{"reading", TimeOut}}, {BEGINS, LISTED, TIMED_OUT, STOP_SEEN, STOP_AT_END}, {"0", "", 1, true}},
    Path(kMute, {{"waiting", TimeOut}}, {BEGINS, OUTPUT_ENDED, LISTED, TIMED_OUT, STOP_SEEN, STOP_AT_END},
         {"0", "", 1, true}),
    Path(kEnds, {{"storing", TimeOut}}, {BEGINS, OUTPUT_ENDED, PROCESS_EXITED, LISTED, TIMED_OUT, STOP_AT_END},
         {"0", "", 1}),
    Path(kLives, {{"reading", Cancel}, {"storing", TimeOut}}, {BEGINS, CANCELLED, LISTED, TIMED_OUT, STOP_AT_END},
         {"0", "", 1, true}, 1),
    Path(kLives, {{"reading", Cancel}, {"storing", Throw}, {"process scan", TimeOut}},
         {BEGINS, CANCELLED, FINISH_FAILED, LISTED, TIMED_OUT, STOP_AT_END}, {"0", "", 1, true}, 2),
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
        std::filesystem::remove(directory_ / "ready");
        std::filesystem::remove(directory_ / "asked");
        ForgetReports();
        manager_->SetWork(1);
        path_ = &path;
        next_ = 0;
        listed_before_ = manager_->GetPRunScriptListSize();
        g_signals = 0;
        LaunchOn(path.script);
        EXPECT_TRUE(WaitThreadsGone());
        path_ = nullptr;
        const ERunEvent last = path.events.back();
        const std::map<ERunEvent, int> disposals{
            {COMPLETED, MT_RUNCOMPLETE}, {TIMED_OUT, MT_RUNTIMEOUT}, {PUT_AWAY, MT_STOPPLUGIN}};
        if (const auto disposal = disposals.find(last); disposal != disposals.end()) {
            manager_->DisposeScriptList(disposal->second);
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
        EXPECT_EQ(results.size(), *expected.result != '\0' ? 1U : 0U);
        for (const Result& result : results) {
            EXPECT_EQ(result.result, expected.result);
            EXPECT_EQ(result.end.empty(), last != COMPLETED) << "a run that timed out has no end time";
            EXPECT_TRUE(expected.output == nullptr || result.output == expected.output) << result.output;
        }
    }

    void LaunchOn(const std::string& body) {
        const std::string program = WriteProgram("d='" + directory_.Path().string() + "'\n" + body, "walked");
        pthread_attr_t usual;
        pthread_getattr_default_np(&usual);
        pthread_attr_t huge = usual;
        pthread_attr_setstacksize(&huge, size_t{1} << 47U);
        std::optional<DescriptorLimit> limit;
        if (body == kNoProcess) {
            limit.emplace(0);
        } else if (body == kNoThread) {
            pthread_setattr_default_np(&huge);
        }
        LaunchProgram(program, "walked", OVER_AT_ONCE);
        pthread_setattr_default_np(&usual);
    }

    void Reach(const std::string& point) {
        const Path* path = path_;
        if (path == nullptr) {
            return;
        }
        if (point == "launch listing") {
            EXPECT_TRUE(path->listed_at < path->steps.size() ? WaitUntil([&] { return next_ > path->listed_at; })
                                                             : WaitThreadsGone());
            return;
        }
        if (next_ == path->steps.size() || !point.ends_with(path->steps[next_].first)) {
            return;
        }
        if (path->script != kNoProcess) {
            WaitUntil([this] { return std::filesystem::exists(directory_ / "ready"); });
        }
        const size_t step = next_++;
        if (step == path->listed_at) {
            WaitUntil([this] { return manager_->GetPRunScriptListSize() == listed_before_ + 1; });
        }
        path->steps[step].second();
    }

    static inline RunStatesTest* current_ = nullptr;
    std::atomic<const Path*> path_{nullptr};
    std::atomic<size_t> next_{0};
    std::atomic<unsigned int> listed_before_{0};
};

TEST_F(RunStatesTest, EveryRowIsWalkedFromEveryState) {
#ifdef __SANITIZE_THREAD__
    const bool threads_can_fail = false;  // the sanitizer gives every thread a stack of its own choice
#else
    const bool threads_can_fail = true;
#endif
    const auto walk = [&](const std::vector<Path>& paths) {
        for (size_t path = 0; path < paths.size(); ++path) {
            SCOPED_TRACE(testing::Message() << "path " << path << " of " << paths.size());
            if (threads_can_fail || paths[path].script != kNoThread) {
                Walk(paths[path]);
            }
        }
    };
    walk(kPaths);
    manager_->RunNewScript({CMaintMgr::MaxRunThreadCount, Script("true")});
    EXPECT_TRUE(WaitThreadsGone());
    idle_descriptors_ = CountEntries("/proc/self/fd");
    walk(kTimeOutPaths);
    manager_->DisposeScriptList(MT_STOPPLUGIN);

    for (const RunRow& row : RunTable()) {
        for (const ERunState state : {CREATED, READING, WAITING, EXITED, ABANDONED, KILLED, STOPPED, FINISHED, GONE}) {
            const bool walkable = threads_can_fail || row.eEvent != NO_THREAD;
            EXPECT_EQ(walked_.contains({&row, state}), walkable && row.stFrom.Has(state))
                << "event " << static_cast<int>(row.eEvent) << " from " << static_cast<int>(state);
        }
    }
}

}  // namespace
