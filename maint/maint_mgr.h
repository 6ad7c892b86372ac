#pragma once

#include <pthread.h>

#include <atomic>
#include <list>

#include "maint/maint_records.h"

/// The source unit of the manager's log records, however many files it is spread over.
inline constexpr char MAINT_LOG_SOURCE[] = "qxpmaintmgr";

/// How DisposeScriptList selects and ends runs. Any other value acts like MT_STOPPLUGIN.
enum : unsigned int { MT_ERROR = 0, MT_STOPPLUGIN = 1, MT_RUNCOMPLETE = 2, MT_RUNTIMEOUT = 3 };

/// The maintenance manager: takes policies, queues their scripts, runs and supervises them and reports the results. One
/// object per process. Operations return 1 for success and 0 for failure unless they say otherwise.
///
/// Locks are never held two at once; only m_csRunScriptList is taken again by the thread that holds it. No lock is held
/// while a script is waited for or a report is sent.
class CMaintMgr {
public:
    /// Runs in progress plus the scripts of a new policy must number fewer than twice this.
    static constexpr unsigned int MaxRunThreadCount = 32;

    // Lifecycle. Instance and Close belong to the plugin core's init and uninit.

    /// The manager, made on first use; null when memory is short.
    static CMaintMgr* Instance();
    /// Ends the runs and threads that are left and destroys the manager. When a thread does not end within the bound it
    /// is left alone with the manager it uses, and a log line says so.
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
    /// Writes and starts each script on the calling thread. Always 1.
    int RunNewScript(const std::list<_MaintPolicyDetail>& list);
    /// Runs the list on the calling thread and waits until no run is left. 0 for an empty list.
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

    CMaintMgr(const CMaintMgr&) = delete;
    CMaintMgr& operator=(const CMaintMgr&) = delete;

private:
    friend class CRunThread;

    CMaintMgr();
    virtual ~CMaintMgr();

    void WorkPass();
    void TryWorkPass();
    bool IsWorkThread();
    void LeaveWorkThread();
    bool EndWhatIsLeft();
    bool HasQueuedPolicy();
    void PassSignalOn();
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
};
