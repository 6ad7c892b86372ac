#pragma once

#include <memory>

#include "maint/maint_mgr.h"
#include "maint/output_capture.h"
#include "maint/run_control.h"

/// What one run thread does, in steps that each wait at most a second: reads the script's output to its end, waits for
/// the script to end, and stores the result, or ends the script when the run was told to stop. The thread that starts
/// the child is not the one that waits for it: this one is, and it alone closes the stream.
///
/// Used by one thread. It touches the record only under m_csRunScriptList and only while the stop flag is 0.
class CRunThread {
public:
    /// Takes over the control block of a record that is in no list yet, and lets the launcher go on.
    static std::shared_ptr<CRunControl> Attach(_RunScriptData& stRunData, CThreadTicket& ticket);

    CRunThread(_RunScriptData* pRunData, std::shared_ptr<CRunControl> spControl);
    CRunThread(const CRunThread&) = delete;
    CRunThread& operator=(const CRunThread&) = delete;

    /// False when the run is over and Finish is to be called.
    bool Step();
    /// The thread ends before its run does: the processes are ended too.
    void Abandon() { m_bAbandoned = true; }
    void Finish();
    /// Finishes the run as a failed one with no memory to be had: the child alone is killed, its output is lost.
    static void FinishWithoutMemory(_RunScriptData& stRunData, CRunControl& control);

private:
    enum class EPhase { Reading, WaitingForExit, Over };

    void Begin();
    EPhase ReadStep();
    EPhase LeaveReading();
    EPhase WaitStep();
    void TakeChunk(std::string_view chunk);
    void WaitForOutput();
    bool StopRequested();
    bool StoreResult();
    void EndProcesses();
    void CloseStream();

    CMaintMgr& m_Mgr;
    _RunScriptData* const m_pRunData;
    const std::shared_ptr<CRunControl> m_spControl;
    FILE* m_pStream;
    EPhase m_ePhase = EPhase::Reading;
    bool m_bAbandoned = false;
    bool m_bProcessesEnded = false;
    bool m_bChunkBegins = true;
    int32_t m_iResult = 0;
    CPString m_strCheckRet;
    void* m_hRunEvent = nullptr;
    CChunkReader m_Reader;
    COutputCapture m_Capture;
};
