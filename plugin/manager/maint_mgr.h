#pragma once

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <list>
#include <memory>

#include "plugin/manager/maint_records.h"
#include "plugin/manager/run_states.h"
#include "plugin/manager/thread_gate.h"
#include "plugin/platform/process_scan.h"

/// How DisposeScriptList selects and ends runs. Any other value acts like MT_STOPPLUGIN.
enum : unsigned int { MT_ERROR = 0, MT_STOPPLUGIN = 1, MT_RUNCOMPLETE = 2, MT_RUNTIMEOUT = 3 };

class CMaintMgr;

/// A use of the manager by a thread that does not belong to it (a bus thread, a host's thread, the loader): while it is
/// held, the manager is not destroyed. Empty when there is no manager. Why: docs/decisions/005-closing.md.
class CMaintMgrUse {
public:
    CMaintMgrUse() = default;
    CMaintMgrUse(CMaintMgr& mgr, CThreadTicket ticket) : m_Ticket(std::move(ticket)), m_pMgr(&mgr) {}

    explicit operator bool() const { return m_pMgr != nullptr; }
    CMaintMgr* operator->() const { return m_pMgr; }
    CMaintMgr& operator*() const { return *m_pMgr; }

private:
    CThreadTicket m_Ticket;
    CMaintMgr* m_pMgr = nullptr;
};

/// Sends a JSON text to the management side, or with bWriteFile writes it to a result file whose name begins with
/// strName. True when it was sent or written. Called on the threads that dispose of runs; may throw.
using ReportSender = bool (*)(const char* pJsonData, bool bWriteFile, const CPString& strName);

/// The maintenance manager: takes policies, queues their scripts, runs and supervises them and reports the results. One
/// object per process. Operations return 1 for success and 0 for failure unless they say otherwise. Any thread may call
/// them, unless they say otherwise, as long as it holds a CMaintMgrUse or belongs to the manager. Where nothing is said
/// of exceptions, want of memory (std::bad_alloc) leaves an operation, and the manager as it was.
///
/// Locks are never held two at once, so there is no order among them; only m_csRunScriptList is taken again by the
/// thread that holds it. No lock is held while a script is waited for or a report is sent.
///
/// Who owns a run: docs/decisions/001-who-owns-a-run.md; where threads can be cancelled: 002-cancellation.md; how a
/// child is launched: 003-launching-a-child.md; how a run is ended: 004-ending-a-run.md; how the manager is closed:
/// 005-closing.md; what a shortage or a full disk loses: 006-choices-where-the-contract-is-silent.md.
class CMaintMgr {
public:
    /// Runs in progress plus the scripts of a new policy must number fewer than twice this. With no more runs than this
    /// none is ended for its time-out.
    static constexpr unsigned int MaxRunThreadCount = 32;

    // Lifecycle. Instance, Present and Close belong to the plugin core's init and uninit.

    /// The manager, made on first use; null when memory is short or its event cannot be made. Owned by Close. Throws
    /// nothing.
    static CMaintMgr* Instance();
    /// The manager, null when there is none: none is made. For the thread that alone may call Close.
    static CMaintMgr* Present() { return m_pThis.load(); }
    /// The same for any other thread, counted; empty also while it is not initialised yet. Throws nothing.
    static CMaintMgrUse Use();
    /// Ends the runs and threads that are left and destroys the manager, within 15 seconds. When a thread does not end
    /// within that bound it is left alone with the manager it uses, and a log line says so. Throws nothing.
    static void Close();
    /// Whom reports are handed to; without one they are not sent. To be called before Init.
    void SetReportSender(ReportSender pfnSendReport) { m_pfnSendReport = pfnSendReport; }
    /// Creates the data directory; when that fails, writing scripts fails later. From then on Use returns the manager.
    /// Always 1. To be called once, before any other thread knows the manager.
    int Init();
    /// Lets work and run threads work. The work thread itself begins with the first policy. Always 1.
    int Start();
    /// Ends the work thread and every listed run, without reports; without a work thread, listed runs are left as they
    /// are. Takes up to 60 seconds when the host holds a send. Always 1. Not on a thread of the manager.
    int Stop();
    /// Always 1: nothing is left for it to do, Close ends the rest.
    int UnInit();
    /// The work flag: not 0 from Start to Stop. Throws nothing.
    int GetWork();
    /// Sets the work flag. Who waits does not notice before its wait is over. Throws nothing.
    void SetWork(int iWork);
    /// 1, 2, ... 2147483646, 1, ... Two calls at once get different numbers. Throws nothing.
    unsigned int GetSequenceIndex();
    /// Placeholders: change nothing, return true.
    bool CleanOldLog();
    bool ReadLogFile(const CPString& strPath, CPString& strContent);

    // Parser.

    /// Appends the accepted scripts of a policy document to list, in document order. 1 when the document was read down
    /// to its script list, even if no script was accepted; 0 otherwise, with list untouched. The text stays the
    /// caller's.
    int ParsePolicy(const char* lpJsonData, CPString strID, unsigned int dwPolicyType,
                    std::list<_MaintPolicyDetail>& list);
    /// 0 when the record's type is not supported; on 1 the decoded body is in the record where the type calls for one.
    /// A body that cannot be decoded counts as an empty one.
    int CheckIsSupport(const CPString& strScriptData, _MaintPolicyDetail& record);

    // Intake.

    /// 1 when the policy was queued for the work thread, 0 when it was refused whole: it cannot be read, none of its
    /// scripts is accepted, too many runs are in progress, or the manager is being closed. The text stays the caller's.
    int SetPolicy(const char* lpJsonData, CPString strID, unsigned int dwPolicyType);
    /// Starts a work thread for policies that are queued and have none: its creation may have failed, or it was
    /// cancelled.
    void ResumeQueued();
    /// Writes and starts each script on the calling thread. Always 1: a script that cannot be run, for want of memory
    /// too, is named in a log line, and the others are run all the same.
    int RunNewScript(const std::list<_MaintPolicyDetail>& list);
    /// Runs the list on the calling thread and waits until no run is left, of whichever policy. 0 for an empty list,
    /// and when the manager is being closed.
    int RunOnceTask(const std::list<_MaintPolicyDetail>& list);
    /// How many runs are listed, finished ones that nobody has disposed of included. Throws nothing.
    unsigned int GetPRunScriptListSize();
    /// Writes pText, iLength bytes, or strText if there is none, to a new or emptied file; with bExec it can be
    /// executed by all. 1 when the file was written whole; otherwise a log line says why not, and what was written
    /// stays.
    int GenScriptFile(const CPString& strPath, const CPString& strText, unsigned char* pText, int iLength, int bExec);

    // Launch.

    /// The command line for a script, empty for a type that does not run here. strParam is left as it is.
    CPString GetRunCommand(const CPString& strPath, const CPString& strLogPath, const CPString& strType,
                           CPString& strParam);
    /// Starts one run: its process and its thread. Always 0; what failed is in a log line. A process that cannot be
    /// started makes a run without output; no run at all comes of a type that does not run here. Throws only before
    /// anything was started; the script file is then the caller's to delete.
    int CreateRunScript(const CPString& strPath, const CPString& strLogPath, unsigned int dwSequenceIndex,
                        const _MaintPolicyDetail& stPolicy);
    /// Frees a record that is in no list any more; with bKill its run is told to end, and its thread ends the processes
    /// and closes the stream without being waited for. 0 for null, else 1. Throws nothing.
    int CleanRunData(_RunScriptData* pRunData, int bKill);

    // Supervision.

    /// Takes runs out of the list by dispose type (MT_...), deletes their files and reports completed and timed-out
    /// ones. 0 for MT_ERROR, else 1. Blocks while the host takes the reports. Want of memory costs at most a report,
    /// which a log line names.
    int DisposeScriptList(unsigned int dwDisposeType);

    // Reports.

    /// Builds and sends one report; the runs are released before it is sent. Non-zero when it was handed on or written.
    int SendResultToServer(const CPString& strID, std::list<_RunScriptData> list);
    /// Local time; i64Time 0 means now; dwFormat 0 gives 14 digits, any other "%Y-%m-%d %H:%M:%S". Empty for a time
    /// that has no local form.
    CPString GetStrTime(long i64Time, unsigned int dwFormat);

    // Thread bodies, for pthread_create. Both return null.

    /// The thread of one run. pParam: its record, which is in no list yet; the body takes over its control block, and
    /// never frees it.
    static void* RunScriptThread(void* pParam);
    /// The work thread. pParam: a WorkStart made with new, which the body takes over; null for the present manager.
    static void* WorkThread(void* pParam);

    /// Counts the threads that use this manager; lives as long as anyone holds it. Throws nothing.
    const std::shared_ptr<CThreadGate>& Gate() const { return m_spGate; }

    CMaintMgr(const CMaintMgr&) = delete;
    CMaintMgr& operator=(const CMaintMgr&) = delete;

private:
    friend class CRunThread;

    CMaintMgr();
    virtual ~CMaintMgr();

    /// What a work thread begins with.
    struct WorkStart {
        CMaintMgr& Mgr;
        CThreadTicket Ticket;
    };

    /// Runs that one pass has taken out of the list, and what is reported of them.
    struct Disposal {
        std::list<_RunScriptData> listRun;
        ERunReport eReport = ERunReport::NO_REPORT;
    };

    static CMaintMgr* Withdraw();
    void WorkPass();
    void TryWorkPass();
    bool IsWorkThread();
    void LeaveWorkThread();
    void CreateWorkThread();
    bool EndWhatIsLeft(std::chrono::steady_clock::time_point deadline);
    void LogNeverRun();
    bool WaitWorkEvent(long lMilliseconds);
    bool HasQueuedPolicy();
    bool HasFinishedRun();
    void PassSignalOn();
    Disposal ExtractDisposed(unsigned int dwDisposeType, unsigned int dwCount, unsigned long ulNow);
    void FinishDisposal(_RunScriptData& run, ERunReport eReport, unsigned long ulNow, const CPString& strEndTime);
    void ReportByPolicy(std::list<_RunScriptData>& listDisposed);
    void FinishWithoutThread(_RunScriptData& stRunData, int iError);
    void StartProcess(_RunScriptData& stRunData, const CPString& strCommand, const CPString& strParam);
    void RunScript(const _MaintPolicyDetail& record);
    CPString ScriptDirectory(const _MaintPolicyDetail& stPolicy);

    // Constant after construction.
    void* m_hWorkEvent = nullptr;  // auto-reset
    const std::shared_ptr<CThreadGate> m_spGate = std::make_shared<CThreadGate>();

    // Constant after Init, before which no other thread knows the manager.
    CPString m_strDataPath;  // ends in '/'
    ReportSender m_pfnSendReport = nullptr;

    // Atomic.
    static std::atomic<CMaintMgr*> m_pThis;
    std::atomic<uint32_t> m_dwSequenceIndex{0};
    std::atomic<int> m_iRunOnceWaiting{0};  // callers inside RunOnceTask
    std::atomic<bool> m_bInitialised{false};
    std::atomic<bool> m_bClosing{false};  // nothing is accepted or started any more

    // Guarded by m_csWork.
    int32_t m_iWork = 0;

    // Guarded by m_csWorkThread.
    unsigned long long m_u64WorkThreadId = 0;  // 0: no work thread

    // Guarded by m_csRunScriptList, as are the listed records and their control blocks' stop flag and state.
    std::list<_RunScriptData*> m_PRunScriptList;

    // Guarded by m_csPolicyList.
    std::list<_MaintPolicyDetail> m_MaintPolicyList;

    // The locks. One for each thing rather than one for all: none is then held while another is waited for, and only
    // that of the list must be one that its holder can take again, for CleanRunData under the walk through the list.
    pthread_mutex_t m_csWork;
    pthread_mutex_t m_csWorkThread;
    pthread_mutex_t m_csRunScriptList;
    pthread_mutex_t m_csPolicyList;

    // They guard themselves.
    CProcReader m_ProcReader;
    CProcessScan m_ProcessScan{m_ProcReader};

    // Guarded by nothing: written once, by the Close that leaves this manager to its threads.
    CMaintMgr* m_pNextLeftBehind = nullptr;
};
