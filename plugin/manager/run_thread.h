#pragma once

#include <chrono>
#include <memory>

#include "plugin/manager/maint_mgr.h"
#include "plugin/manager/output_capture.h"
#include "plugin/manager/run_control.h"

/// What one run thread does, in steps that each wait at most a second: reads the script's output to its end, waits for
/// the script to end, and stores the result, or ends the script when the run was told to stop. The thread that starts
/// the child is not the one that waits for it: this one is, and it alone closes the stream.
///
/// Used by one thread. It touches the record only under m_csRunScriptList and only while the stop flag is 0.
class CRunThread {
public:
    /// Takes over the control block of a record that is in no list yet, and the thread's place in the gate, and lets
    /// the launcher go on.
    static std::shared_ptr<CRunControl> Attach(_RunScriptData& stRunData, CThreadTicket& ticket);

    CRunThread(_RunScriptData* pRunData, std::shared_ptr<CRunControl> spControl);
    CRunThread(const CRunThread&) = delete;
    CRunThread& operator=(const CRunThread&) = delete;

    /// False when the run is over and Finish is to be called.
    bool Step();
    /// The thread ends before its run does: the processes are ended too, and the run has failed.
    void Abandon();
    void Finish();
    /// Finishes the run as a failed one after even that has failed: the child alone is killed, its output is lost.
    static void FinishWithoutMemory(_RunScriptData& stRunData, const std::shared_ptr<CRunControl>& spControl);

    // Steps of an ending, for whoever holds the run's child. They throw nothing.

    /// Ends the processes of a run. A line says when some are left, or may be.
    static void EndProcesses(CRunControl& control, std::chrono::milliseconds grace);
    /// Closes the child's stream without waiting for a child that lives on. A line says when that cannot be.
    static void CloseStream(const std::shared_ptr<CRunControl>& spControl);

private:
    enum class EPhase { READING, WAITING_FOR_EXIT, OVER };

    void Begin();
    EPhase ReadStep();
    EPhase LeaveReading();
    EPhase WaitStep();
    void StoreChunk(std::string_view chunk);
    void WaitForOutput();
    bool StopRequested();
    bool StoreResult();
    void EndOnce();

    CMaintMgr& m_Mgr;
    _RunScriptData* const m_pRunData;
    const std::shared_ptr<CRunControl> m_spControl;
    EPhase m_ePhase = EPhase::READING;
    bool m_bAbandoned = false;
    bool m_bProcessesEnded = false;
    bool m_bChunkBegins = true;
    int32_t m_iResult = 0;
    CPString m_strCheckRet;
    void* m_hRunEvent = nullptr;
    CChunkReader m_Reader;
    COutputCapture m_Capture;
};
