#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "plugin/platform/proc_reader.h"

/// The processes of the machine at one look.
struct ProcessSnapshot {
    bool bComplete = true;               ///< False when something could not be looked at.
    std::vector<ProcessStat> processes;  ///< Sorted by pid.
    /// Who can write to a pipe that was asked for, sorted.
    std::vector<std::pair<std::string, pid_t>> writers;

    const ProcessStat* Find(pid_t iPid) const;
    bool CanWrite(pid_t iPid, const std::string& strPipe) const;
};

/// Looks at all processes of the machine for runs that are ending. A look costs some 10 microseconds a process, so
/// runs that end together share one. Any thread.
class CProcessScan {
public:
    explicit CProcessScan(CProcReader& reader) : m_Reader(reader) {}
    CProcessScan(const CProcessScan&) = delete;
    CProcessScan& operator=(const CProcessScan&) = delete;

    /// A look that begins after this call. Processes that began before u64Since (clock ticks since boot) are not asked
    /// for the pipe. Null when memory is short.
    std::shared_ptr<const ProcessSnapshot> Look(const std::string& strPipe, unsigned long long u64Since);

private:
    struct Request {
        const std::string& strPipe;
        unsigned long long u64Since;
        Request* pNext = nullptr;
        bool bDone = false;
        std::shared_ptr<const ProcessSnapshot> spSnapshot{};
    };

    void Enqueue(Request& request);
    std::shared_ptr<const ProcessSnapshot> Scan(const Request* pRequests);

    CProcReader& m_Reader;
    std::mutex m_Lock;
    std::condition_variable m_Changed;
    bool m_bScanning = false;       // guarded by m_Lock, as are the requests
    Request* m_pWaiting = nullptr;  // those whose look has not begun
};
