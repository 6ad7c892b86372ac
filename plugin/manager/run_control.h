#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <semaphore>

#include "plugin/manager/run_states.h"
#include "plugin/manager/thread_gate.h"
#include "plugin/platform/child_process.h"

class CMaintMgr;

/// What a run's record and its thread share; it lives until both have let go. The launcher waits until the thread holds
/// it before it lists the record, so a record can be freed at any time after that without its thread reaching for it.
/// Who owns what of a run: docs/decisions/001-who-owns-a-run.md.
class CRunControl {
public:
    CRunControl(CMaintMgr& mgr, CProcReader& reader);
    CRunControl(const CRunControl&) = delete;
    CRunControl& operator=(const CRunControl&) = delete;

    /// Wakes the run thread out of whatever it waits for. Any thread, any number of times.
    void Wake() const;
    /// Readable once Wake has been called; -1 when there was no descriptor to be had: the thread then looks at the stop
    /// flag once a second.
    int WakeDescriptor() const { return m_Wake.Get(); }

    /// The manager of this run, which lives as long as the run thread has its place in the gate.
    CMaintMgr& Mgr;

    // Guarded by CMaintMgr::m_csRunScriptList.

    /// Not 0: the record is freed or about to be, the thread must not touch it and ends what belongs to the run.
    int32_t iStopFlag = 0;
    /// Written by the run thread alone (by the launcher when there is none), which therefore reads it without the lock.
    ERunState eState = ERunState::CREATED;
    void MoveTo(ERunState eTo) { eState = eTo == ERunState::SAME ? eState : eTo; }

    /// Released by the run thread when it holds this block.
    std::binary_semaphore Attached{0};
    /// The run thread's place in the gate, taken by the launcher.
    CThreadTicket Ticket;
    /// Of the launcher, and from Attached on of the run thread. It also says whether the stream is still open.
    CChildProcess Child;
    /// Set by the thread that closed the stream, once the child has been waited for.
    std::atomic<bool> bChildReaped{false};

    /// Closes the child's stream, which waits for the child: here when the child has ended, otherwise on a thread of
    /// its own that uses nothing but this block and that nobody waits for, since the wait can last as long as the child
    /// does. False when there is no thread to be had; the stream is then still there.
    static bool CloseStream(const std::shared_ptr<CRunControl>& spControl);

private:
    static void* CloseStreamThread(void* pParam);

    CUniqueDescriptor m_Wake;
    // What the closing thread takes over.
    std::shared_ptr<CRunControl> m_spForCloser;
    FILE* m_pClosing = nullptr;
};
