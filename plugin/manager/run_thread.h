#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "plugin/manager/maint_mgr.h"
#include "plugin/manager/output_capture.h"
#include "plugin/manager/run_control.h"

/// What one run thread does, in steps that each wait at most a second: reads the script's output to its end, waits for
/// the script to end, and stores the result, or ends the script when the run was told to stop. What it does in which
/// case is the table's to say (run_states.h). It is the one thread that waits for the child and closes its stream:
/// docs/decisions/001-who-owns-a-run.md. Where it can be cancelled: 002-cancellation.md; how it ends processes:
/// 004-ending-a-run.md.
///
/// Used by one thread. It touches the record only under m_csRunScriptList and only while the stop flag is 0.
class CRunThread {
public:
    /// Takes over the control block of a record that is in no list yet, and the thread's place in the gate, and lets
    /// the launcher go on.
    static std::shared_ptr<CRunControl> Attach(_RunScriptData& stRunData, CThreadTicket& ticket);

    /// Begins the run. Throws when memory is short.
    CRunThread(_RunScriptData* pRunData, std::shared_ptr<CRunControl> spControl);
    CRunThread(const CRunThread&) = delete;
    CRunThread& operator=(const CRunThread&) = delete;

    /// Reads or waits once. False when the run is over and Finish is to be called. Throws when memory is short.
    bool Step();
    /// The thread must end before its run is over, since it was cancelled or a step threw: ends the processes, and the
    /// run has failed.
    void GiveUp(ERunEvent eEvent);
    /// Stores, closes and signals. Throws when memory is short.
    void Finish();
    /// Finishes the run as a failed one after the beginning or the finishing has failed: needs no memory.
    static void FinishWithoutMemory(_RunScriptData& stRunData, const std::shared_ptr<CRunControl>& spControl);
    /// The same for a run that has no thread, by its launcher, before it is listed.
    static void FinishWithoutThread(_RunScriptData& stRunData);

private:
    /// What the thread knows of the run's end.
    struct Outcome {
        int32_t iResult = 0;
        CPString strOutput;
    };

    void Begin();
    void Happens(ERunEvent eEvent);
    void ReadStep();
    void LeaveReading();
    void WaitStep();
    void StoreChunk(std::string_view chunk);
    void WaitForOutput();
    bool StopRequested();

    // They throw nothing, so that an ending needs no memory.
    static const RunRow& Conclude(_RunScriptData& stRunData, const std::shared_ptr<CRunControl>& spControl,
                                  Outcome& outcome);
    static void Store(_RunScriptData& stRunData, const std::shared_ptr<CRunControl>& spControl, const RunRow& row,
                      Outcome& outcome);
    static void EndProcesses(CRunControl& control, const RunRow& row);
    static void CloseStream(const std::shared_ptr<CRunControl>& spControl);

    CMaintMgr& m_Mgr;
    _RunScriptData* const m_pRunData;
    const std::shared_ptr<CRunControl> m_spControl;
    int32_t m_iResult = 0;
    CPString m_strCheckRet;
    void* m_hRunEvent = nullptr;  // null until the run is reading: whoever waits is not told of one that never read
    CChunkReader m_Reader;
    COutputCapture m_Capture;
};
