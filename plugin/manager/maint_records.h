#pragma once

#include <cstdint>
#include <list>
#include <memory>

#include "plugin/platform/main_t_tool.h"
#include "qxhost/cpstring.h"

class CRunControl;

/// One accepted script of one policy. A value; copies share the bytes at pText, which live as long as any copy.
struct _MaintPolicyDetail {
    uint32_t dwPolicyType = 1;       ///< 1: results go to the server; 2: results go to a result file.
    uint32_t dwTimeOut = 0;          ///< Seconds; 0 = none.
    uint32_t dwTimeOutAction = 0;    ///< Carried, not consulted.
    CPString strID;                  ///< The policy's identifier.
    CPString strType;                ///< The script type as sent; compared without regard to case.
    unsigned char* pText = nullptr;  ///< Body of an "exe" script, iLength bytes.
    int32_t iLength = 0;
    CPString strText;      ///< Body of an "sh" script.
    CPString strPath;      ///< Directory for the script file; empty: the data directory.
    CPString strCheckRet;  ///< Success marker looked for in the output; empty: no check.
    CPString strScriptId;
    /// Frees pText with the last copy.
    std::shared_ptr<unsigned char> spTextOwner;
};

/// States of a run.
enum : uint32_t { RUN_CREATED = 0, RUN_RUNNING = 1, RUN_FINISHED = 2 };

/// One run of one script. Made by CreateRunScript, owned by the list of runs in progress, freed by CleanRunData. While
/// it is listed every field is guarded by CMaintMgr::m_csRunScriptList. Copies made for reporting own their strings,
/// nothing else.
struct _RunScriptData {
    int32_t iRunResult = 0;       ///< 1 success, 0 not.
    uint32_t dwStartTime = 0;     ///< Wall clock, seconds since the epoch.
    uint64_t u64RunningTime = 0;  ///< Milliseconds; 0 until disposed as completed.
    CPString strEndTime;          ///< Local time "%Y-%m-%d %H:%M:%S"; empty until disposed as completed.
    uint64_t u64StartTick = 0;    ///< Taken by the run thread when it starts reading; 0 until then.
    uint32_t dwRunState = RUN_CREATED;
    uint64_t u64ThreadId = 0;
    uint32_t dwSequenceIndex = 0;
    CPString strRunOutData;
    CPString strLogPath;
    _CreateProcessInfo stProcessInfo;
    void* hRunEvent = nullptr;      ///< The manager's event, not owned.
    int32_t* piStopFlag = nullptr;  ///< The control block's flag, once the thread has started.
    uint32_t dwPolicyType = 0;
    uint32_t dwTimeOut = 0;
    uint32_t dwTimeOutAction = 0;
    CPString strID;
    CPString strScriptPath;
    CPString strScriptId;
    CPString strCheckRet;
    /// Shared with the run thread; null in copies.
    std::shared_ptr<CRunControl> spControl;
    /// Room for the copy that is reported, one element made at the launch: taking a run out of the list needs no
    /// memory.
    std::list<_RunScriptData> listCopyRoom;
};
