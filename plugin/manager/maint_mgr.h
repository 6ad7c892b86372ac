#pragma once

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <list>
#include <memory>

#include "plugin/manager/maint_records.h"
#include "plugin/manager/thread_gate.h"
#include "plugin/platform/process_scan.h"

/// The source unit of the manager's log records, however many files it is spread over.
inline constexpr char MAINT_LOG_SOURCE[] = "qxpmaintmgr";

/// How DisposeScriptList selects and ends runs. Any other value acts like MT_STOPPLUGIN.
enum : unsigned int { MT_ERROR = 0, MT_STOPPLUGIN = 1, MT_RUNCOMPLETE = 2, MT_RUNTIMEOUT = 3 };

class CMaintMgr;

/// A use of the manager by a thread that does not belong to it (a bus thread, a host's thread, the loader): while it is
/// held, the manager is not destroyed. Empty when there is no manager.
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

/// The maintenance manager: takes policies, queues their scripts, runs and supervises them and reports the results. One
/// object per process. Operations return 1 for success and 0 for failure unless they say otherwise.
///
/// Locks are never held two at once; only m_csRunScriptList is taken again by the thread that holds it. No lock is held
/// while a script is waited for or a report is sent.
class CMaintMgr {
public:
    /// Runs in progress plus the scripts of a new policy must number fewer than twice this.
    static constexpr unsigned int MaxRunThreadCount = 32;

    // Lifecycle. Instance, Present and Close belong to the plugin core's init and uninit.

    /// The manager, made on first use; null when memory is short.
    static CMaintMgr* Instance();
    /// The manager, null when there is none: none is made. For the thread that alone may call Close.
    static CMaintMgr* Present() { return m_pThis.load(); }
    /// The same for any other thread, counted; empty also while it is not initialised yet. Throws nothing.
    static CMaintMgrUse Use();
    /// Ends the runs and threads that are left and destroys the manager, within 15 seconds. When a thread does not end
    /// within that bound it is left alone with the manager it uses, and a log line says so. Throws nothing.
    static void Close();
    int Init();
    int Start();
    /// Ends the work thread and every listed run, without reports. Takes up to 60 seconds when the host holds a send.
    int Stop();
    int UnInit();
    int GetWork();
    void SetWork(int iWork);
    /// 1, 2, ... 2147483646, 1, ...
    unsigned int GetSequenceIndex();
    /// Placeholders: change nothing, return true.
    bool CleanOldLog();
    bool ReadLogFile(const CPString& strPath, CPString& strContent);

    // Parser. Any thread.

    /// Appends the accepted scripts of a policy document to list, in document order. 1 when the document was read down
    /// to its script list, even if no script was accepted; 0 otherwise, with list untouched.
    int ParsePolicy(const char* lpJsonData, CPString strID, unsigned int dwPolicyType,
                    std::list<_MaintPolicyDetail>& list);
    /// 0 when the record's type is not supported; on 1 the decoded body is in the record where the type calls for one.
    int CheckIsSupport(const CPString& strScriptData, _MaintPolicyDetail& record);

    // Intake.

    /// 1 when the policy was queued for the work thread, 0 when it was refused whole. Any thread.
    int SetPolicy(const char* lpJsonData, CPString strID, unsigned int dwPolicyType);
    /// Starts a work thread for policies that are queued and have none: its creation may have failed, or it was
    /// cancelled. Any thread.
    void ResumeQueued();
    /// Writes and starts each script on the calling thread. Always 1.
    int RunNewScript(const std::list<_MaintPolicyDetail>& list);
    /// Runs the list on the calling thread and waits until no run is left. 0 for an empty list, and when the manager is
    /// being closed.
    int RunOnceTask(const std::list<_MaintPolicyDetail>& list);
    unsigned int GetPRunScriptListSize();
    /// 1 when the file was written whole.
    int GenScriptFile(const CPString& strPath, const CPString& strText, unsigned char* pText, int iLength, int bExec);

    // Launch.

    /// The command line for a script, empty for a type that does not run here.
    CPString GetRunCommand(const CPString& strPath, const CPString& strLogPath, const CPString& strType,
                           CPString& strParam);
    /// Starts one run. Always 0.
    int CreateRunScript(const CPString& strPath, const CPString& strLogPath, unsigned int dwSequenceIndex,
                        const _MaintPolicyDetail& stPolicy);
    /// Frees a record that is in no list any more; with bKill its run is told to end, and its thread ends the processes
    /// and closes the stream without being waited for. 0 for null, else 1.
    int CleanRunData(_RunScriptData* pRunData, int bKill);

    // Supervision.

    /// Takes runs out of the list by dispose type (MT_...), deletes their files and reports completed and timed-out
    /// ones. 0 for MT_ERROR, else 1.
    int DisposeScriptList(unsigned int dwDisposeType);

    // Reports.

    /// Builds and sends one report; the runs are released before it is sent. Non-zero when it was handed on or written.
    int SendResultToServer(const CPString& strID, std::list<_RunScriptData> list);
    /// Local time; i64Time 0 means now; dwFormat 0 gives 14 digits, any other "%Y-%m-%d %H:%M:%S".
    CPString GetStrTime(long i64Time, unsigned int dwFormat);

    static void* RunScriptThread(void* pParam);
    static void* WorkThread(void* pParam);

    /// Counts the threads that use this manager.
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
    std::list<_RunScriptData> ExtractDisposed(unsigned int dwDisposeType, unsigned int dwCount, unsigned long ulNow);
    void FinishDisposal(_RunScriptData& run, unsigned int dwDisposeType, unsigned long ulNow,
                        const CPString& strEndTime);
    void ReportByPolicy(std::list<_RunScriptData>& listDisposed);
    void FinishWithoutThread(_RunScriptData& stRunData, int iError);
    void StartProcess(_RunScriptData& stRunData, const CPString& strCommand, const CPString& strParam);
    void RunScript(const _MaintPolicyDetail& record);
    CPString ScriptDirectory(const _MaintPolicyDetail& stPolicy);

    static std::atomic<CMaintMgr*> m_pThis;

    int32_t m_iWork = 0;  // guarded by m_csWork
    pthread_mutex_t m_csWork;
    unsigned long long m_u64WorkThreadId = 0;  // guarded by m_csWorkThread; 0: no work thread
    void* m_hWorkEvent = nullptr;              // constant after construction; auto-reset
    pthread_mutex_t m_csWorkThread;
    pthread_mutex_t m_csRunScriptList;            // re-entrant
    std::list<_RunScriptData*> m_PRunScriptList;  // guarded by m_csRunScriptList, as are the records
    std::atomic<uint32_t> m_dwSequenceIndex{0};
    pthread_mutex_t m_csPolicyList;
    std::list<_MaintPolicyDetail> m_MaintPolicyList;  // guarded by m_csPolicyList
    CPString m_strDataPath;                           // set by Init, before any other use; ends in '/'
    std::atomic<int> m_iRunOnceWaiting{0};            // callers inside RunOnceTask
    std::atomic<bool> m_bInitialised{false};
    std::atomic<bool> m_bClosing{false};  // nothing is accepted or started any more
    const std::shared_ptr<CThreadGate> m_spGate = std::make_shared<CThreadGate>();
    CProcReader m_ProcReader;
    CProcessScan m_ProcessScan{m_ProcReader};
    CMaintMgr* m_pNextLeftBehind = nullptr;  // of a manager that was left to its threads
};
