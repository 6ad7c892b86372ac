#pragma once

#include <cstdint>
#include <span>

// The life of a run as one table (run_states.cpp): what can happen to a run in each of its states, and what is then
// stored, ended, closed, told and reported, and by whom. Whoever acts on a run looks the row up and does what it says.
// Why it is so: docs/decisions/001-who-owns-a-run.md and 004-ending-a-run.md.

/// Where a run is in its life. Its thread moves it on; the record's dwRunState is what a row stores of it.
enum class ERunState : uint8_t {
    CREATED,    ///< The process was started, or could not be. The thread has not begun.
    READING,    ///< The thread reads the output.
    WAITING,    ///< There is no more output, or nobody reads it any more: the thread waits for the process to exit.
    EXITED,     ///< The process has exited by itself, or there never was one. The result is to be stored.
    ABANDONED,  ///< The thread had to give the run up and has ended its processes. The failure is to be stored.
    KILLED,     ///< The same, when memory was too short even for that.
    STOPPED,    ///< The thread has found the stop flag and ended the processes. The record is gone, nothing is stored.
    FINISHED,   ///< What became of the run is stored in its record, which waits to be disposed of.
    GONE,       ///< The record is freed, and nothing is left that belongs to the run.
    SAME,       ///< In a row: the state does not change.
};

/// What happens to a run.
enum class ERunEvent : uint8_t {
    BEGINS,          ///< The thread begins, and the manager works.
    NOT_WORKING,     ///< The manager does not work, or no longer.
    NO_STREAM,       ///< The process could not be started, so there is nothing to read.
    OUTPUT_ENDED,    ///< End of the output, or a read error.
    PROCESS_EXITED,  ///< The child, not the processes that it has started.
    STOP_SEEN,       ///< The thread finds the stop flag set.
    CANCELLED,       ///< Somebody has cancelled the thread.
    STEP_FAILED,     ///< A step threw: memory is short.
    FINISH_FAILED,   ///< Beginning or finishing threw.
    MAY_STORE,       ///< All is over, and the stop flag is not set: decided under the lock, with the store.
    STOP_AT_END,     ///< All is over, but the stop flag has been set meanwhile.
    NO_THREAD,       ///< The thread could not be created.
    LISTED,          ///< The record joins the list of runs.
    COMPLETED,       ///< A pass takes finished runs out of the list.
    TIMED_OUT,       ///< A pass takes runs past their time-out out of the list.
    PUT_AWAY,        ///< A stop or a close takes every run out of the list.
};

/// Who acts on a run: its own thread, whoever launches it, whoever takes it out of the list.
enum class ERunActor : uint8_t { THREAD, LAUNCHER, DISPOSER };

/// What is stored in the record.
enum class ERunStore : uint8_t {
    STORE_NOTHING,
    RUNNING,  ///< dwRunState 1, the place of the stop flag, the start tick.
    RESULT,   ///< dwRunState 2, the output, and the result that the output has decided.
    FAILURE,  ///< dwRunState 2, the output, result 0.
    LOSS,     ///< dwRunState 2, no output, result 0.
    FREE,     ///< Nothing more: the record is freed.
};

/// What becomes of the read end of the output.
enum class ERunOutput : uint8_t {
    LEAVE_OUTPUT,
    SHUT,  ///< It is taken away from the script, which meets a broken pipe from then on, as after a close.
};

/// What becomes of the processes.
enum class ERunProcesses : uint8_t {
    LEAVE_PROCESSES,
    END,   ///< They are asked to end, and killed after the grace.
    KILL,  ///< They are killed at once.
};

/// What becomes of the output stream. Closing it reaps the child.
enum class ERunStream : uint8_t {
    LEAVE_STREAM,
    CLOSE_FIRST,  ///< It is closed before the state is stored: a finished run holds nothing any more.
    CLOSE_LAST,   ///< It is closed after all else, under no lock.
};

/// Who is told.
enum class ERunTold : uint8_t {
    TELL_NOBODY,
    WAITERS,      ///< By the run's event. A run whose thread never began to read has none.
    WORK_THREAD,  ///< By the manager's event, whatever the run has.
    RUN_STOPS,    ///< The run's thread, by its stop flag and its wake descriptor.
    RUN_CANCELS,  ///< The same, and the thread is cancelled.
};

/// What is reported of a run that is taken out of the list.
enum class ERunReport : uint8_t {
    NO_REPORT,
    AS_IT_WAS,   ///< As it stood in the list: running time 0, no end time.
    WITH_TIMES,  ///< With both.
};

/// A set of states.
class CRunStates {
public:
    // NOLINTNEXTLINE(google-explicit-constructor,hicpp-explicit-conversions): a state is a set of one
    constexpr CRunStates(ERunState eState) : m_uBits(1U << static_cast<unsigned int>(eState)) {}
    constexpr bool Has(ERunState eState) const { return Meets(eState); }
    constexpr bool Meets(CRunStates other) const { return (m_uBits & other.m_uBits) != 0; }
    friend constexpr CRunStates operator|(CRunStates a, CRunStates b) {
        a.m_uBits |= b.m_uBits;
        return a;
    }

private:
    unsigned int m_uBits;
};

constexpr CRunStates operator|(ERunState eA, ERunState eB) {
    return CRunStates(eA) | CRunStates(eB);
}

/// One row: what is done in which case. What is done is done in the order of the columns, but for CLOSE_FIRST.
struct RunRow {
    CRunStates stFrom;
    ERunEvent eEvent;
    ERunActor eBy;
    ERunState eTo;
    ERunOutput eOutput;
    ERunProcesses eProcesses;
    ERunStore eStore;
    ERunStream eStream;
    ERunTold eTold;
    ERunReport eReport;
};

/// All rows. No state has two for one event.
std::span<const RunRow> RunTable();

/// The row for what happens to a run in a state. There is one: an event that a state does not know is a fault of the
/// program. Without assertions the answer is then a row that does nothing. Any thread; throws nothing.
const RunRow& FindRunRow(ERunActor eBy, ERunState eState, ERunEvent eEvent);
