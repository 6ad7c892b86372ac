#include "plugin/platform/process_scan.h"

#include <unistd.h>

#include <algorithm>
#include <exception>

#include "plugin/platform/test_point.h"

const ProcessStat* ProcessSnapshot::Find(pid_t iPid) const {
    const auto it =
        std::lower_bound(processes.begin(), processes.end(), iPid,
                         [](const ProcessStat& stat, pid_t iSought) { return stat.stIdentity.iPid < iSought; });
    return it != processes.end() && it->stIdentity.iPid == iPid ? &*it : nullptr;
}

bool ProcessSnapshot::CanWrite(pid_t iPid, const std::string& strPipe) const {
    return std::binary_search(writers.begin(), writers.end(), std::pair(strPipe, iPid));
}

// Not inlined: a compiler that sees the address stored takes it for one that outlives the request.
[[gnu::noinline]] void CProcessScan::Enqueue(Request& request) {
    request.pNext = std::exchange(m_pWaiting, &request);
}

std::shared_ptr<const ProcessSnapshot> CProcessScan::Look(const std::string& strPipe, unsigned long long u64Since) {
    Request request{strPipe, u64Since};
    std::unique_lock lock(m_Lock);
    Enqueue(request);
    while (!request.bDone) {
        if (m_bScanning) {
            m_Changed.wait(lock);
            continue;
        }
        // One of those who wait looks for all who wait by now.
        Request* const pRequests = std::exchange(m_pWaiting, nullptr);
        m_bScanning = true;
        lock.unlock();
        const std::shared_ptr<const ProcessSnapshot> spSnapshot = Scan(pRequests);
        lock.lock();
        m_bScanning = false;
        for (Request* pRequest = pRequests; pRequest; pRequest = pRequest->pNext) {
            pRequest->spSnapshot = spSnapshot;
            pRequest->bDone = true;
        }
        m_Changed.notify_all();
    }
    return std::move(request.spSnapshot);
}

std::shared_ptr<const ProcessSnapshot> CProcessScan::Scan(const Request* pRequests) try {
    auto spSnapshot = std::make_shared<ProcessSnapshot>();
    std::vector<std::string> pipes;
    unsigned long long u64Since = pRequests->u64Since;
    for (const Request* pRequest = pRequests; pRequest; pRequest = pRequest->pNext) {
        u64Since = std::min(u64Since, pRequest->u64Since);
        if (!pRequest->strPipe.empty()) {
            pipes.push_back(pRequest->strPipe);
        }
    }
    std::sort(pipes.begin(), pipes.end());

    std::vector<pid_t> pids;
    spSnapshot->bComplete = m_Reader.ListProcesses(pids);
    std::sort(pids.begin(), pids.end());
    TestPoint("process scan");
    std::vector<std::string> written;
    for (const pid_t iPid : pids) {
        ProcessStat stat;
        CProcReader::ERead eRead = m_Reader.ReadStat(iPid, stat);
        if (eRead == CProcReader::ERead::DONE) {
            spSnapshot->processes.push_back(stat);
            // Nothing older than a run's child is part of its run, and this spares most processes the costly look.
            if (!pipes.empty() && stat.stIdentity.u64StartTime >= u64Since && iPid != getpid()) {
                written.clear();
                eRead = m_Reader.FindWrittenPipes(iPid, pipes, written);
                for (const std::string& strPipe : written) {
                    spSnapshot->writers.emplace_back(strPipe, iPid);
                }
            }
        }
        if (eRead == CProcReader::ERead::FAILED) {
            spSnapshot->bComplete = false;
        }
    }
    std::sort(spSnapshot->writers.begin(), spSnapshot->writers.end());
    return spSnapshot;
} catch (const std::exception&) {
    return nullptr;
}
