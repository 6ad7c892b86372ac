#include "plugin/manager/run_states.h"

#include <algorithm>
#include <cassert>
#include <iterator>

namespace {

using enum ERunState;
using enum ERunEvent;
using enum ERunActor;
using enum ERunOutput;
using enum ERunProcesses;
using enum ERunStore;
using enum ERunStream;
using enum ERunTold;
using enum ERunReport;

/// The first value of any column: nothing is done.
struct {
    template <typename Column>
    constexpr operator Column() const {  // NOLINT(google-explicit-constructor,hicpp-explicit-conversions): a blank
        return Column{};
    }
} constexpr NONE;

/// The thread goes on as it should.
constexpr CRunStates GOING_ON = CREATED | READING | WAITING | EXITED;
/// Beginning or finishing can throw, and nothing is stored yet.
constexpr CRunStates UNSTORED = CREATED | EXITED | ABANDONED | STOPPED;
/// The thread has begun, and is not done.
constexpr CRunStates BEGUN = READING | WAITING | EXITED | ABANDONED | KILLED;
constexpr CRunStates UNFINISHED = CREATED | BEGUN;

// clang-format off
constexpr RunRow RUN_TABLE[] = {
    // from                event           by        to         output  processes  stores   stream       told         report
    {CREATED,             BEGINS,         THREAD,   READING,   NONE,   NONE,      RUNNING, NONE,        NONE,        NONE      },
    {CREATED | READING,   NOT_WORKING,    THREAD,   WAITING,   SHUT,   NONE,      NONE,    NONE,        NONE,        NONE      },
    {CREATED | READING,   NO_STREAM,      THREAD,   EXITED,    NONE,   NONE,      NONE,    NONE,        NONE,        NONE      },
    {READING,             OUTPUT_ENDED,   THREAD,   WAITING,   NONE,   NONE,      NONE,    NONE,        NONE,        NONE      },
    {WAITING,             PROCESS_EXITED, THREAD,   EXITED,    NONE,   NONE,      NONE,    NONE,        NONE,        NONE      },
    {EXITED,              MAY_STORE,      THREAD,   FINISHED,  NONE,   NONE,      RESULT,  CLOSE_FIRST, WAITERS,     NONE      },

    {READING | WAITING,   CANCELLED,      THREAD,   ABANDONED, SHUT,   END,       NONE,    NONE,        NONE,        NONE      },
    {READING | WAITING,   STEP_FAILED,    THREAD,   ABANDONED, SHUT,   END,       NONE,    NONE,        NONE,        NONE      },
    {ABANDONED,           MAY_STORE,      THREAD,   FINISHED,  NONE,   NONE,      FAILURE, CLOSE_FIRST, WAITERS,     NONE      },
    {UNSTORED,            FINISH_FAILED,  THREAD,   KILLED,    NONE,   KILL,      NONE,    NONE,        NONE,        NONE      },
    {KILLED,              MAY_STORE,      THREAD,   FINISHED,  NONE,   NONE,      LOSS,    CLOSE_LAST,  WORK_THREAD, NONE      },
    {FINISHED | GONE,     FINISH_FAILED,  THREAD,   SAME,      NONE,   NONE,      NONE,    NONE,        WORK_THREAD, NONE      },

    {GOING_ON,            STOP_SEEN,      THREAD,   STOPPED,   SHUT,   END,       NONE,    NONE,        NONE,        NONE      },
    {STOPPED | ABANDONED, STOP_AT_END,    THREAD,   GONE,      NONE,   NONE,      NONE,    CLOSE_LAST,  WAITERS,     NONE      },
    {EXITED,              STOP_AT_END,    THREAD,   GONE,      SHUT,   END,       NONE,    CLOSE_LAST,  WAITERS,     NONE      },
    {KILLED,              STOP_AT_END,    THREAD,   GONE,      NONE,   NONE,      NONE,    CLOSE_LAST,  WORK_THREAD, NONE      },

    {CREATED,             NO_THREAD,      LAUNCHER, FINISHED,  SHUT,   KILL,      LOSS,    CLOSE_FIRST, NONE,        NONE      },
    {UNFINISHED,          LISTED,         LAUNCHER, SAME,      NONE,   NONE,      NONE,    NONE,        NONE,        NONE      },
    {FINISHED,            LISTED,         LAUNCHER, SAME,      NONE,   NONE,      NONE,    NONE,        WORK_THREAD, NONE      },

    {FINISHED,            COMPLETED,      DISPOSER, GONE,      NONE,   NONE,      FREE,    NONE,        NONE,        WITH_TIMES},
    {BEGUN,               TIMED_OUT,      DISPOSER, SAME,      NONE,   NONE,      FREE,    NONE,        RUN_CANCELS, AS_IT_WAS },
    {FINISHED,            TIMED_OUT,      DISPOSER, GONE,      NONE,   NONE,      FREE,    NONE,        RUN_STOPS,   AS_IT_WAS },
    {UNFINISHED,          PUT_AWAY,       DISPOSER, SAME,      NONE,   NONE,      FREE,    NONE,        RUN_CANCELS, NONE      },
    {FINISHED,            PUT_AWAY,       DISPOSER, GONE,      NONE,   NONE,      FREE,    NONE,        RUN_STOPS,   NONE      },
};
// clang-format on

constexpr RunRow NO_ROW{SAME, LISTED, LAUNCHER, SAME, NONE, NONE, NONE, NONE, NONE, NONE};

constexpr bool IsUnambiguous() {
    for (const RunRow& row : RUN_TABLE) {
        for (const RunRow& other : RUN_TABLE) {
            if (&row != &other && row.eEvent == other.eEvent && row.stFrom.Meets(other.stFrom)) {
                return false;
            }
        }
    }
    return true;
}

static_assert(IsUnambiguous(), "a state has two rows for one event");

}  // namespace

std::span<const RunRow> RunTable() {
    return RUN_TABLE;
}

const RunRow& FindRunRow([[maybe_unused]] ERunActor eBy, ERunState eState, ERunEvent eEvent) {
    const auto* pRow = std::find_if(std::begin(RUN_TABLE), std::end(RUN_TABLE),
                                    [&](const RunRow& row) { return row.eEvent == eEvent && row.stFrom.Has(eState); });
    assert(pRow != std::end(RUN_TABLE) && pRow->eBy == eBy);
    return pRow != std::end(RUN_TABLE) ? *pRow : NO_ROW;
}
