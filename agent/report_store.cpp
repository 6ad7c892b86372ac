#include "agent/report_store.h"

#include <algorithm>
#include <utility>

#include "agent/log.h"

namespace qxpagent {

namespace {

size_t SizeOf(const Report& report) {
    return report.text.size() + report.id.size() + sizeof(Report);
}

}  // namespace

uint64_t MemoryReportStore::Append(Report report) {
    size_t dropped = 0;
    uint64_t cursor = 0;
    {
        std::lock_guard lock(mutex_);
        cursor = report.cursor = ++last_cursor_;
        bytes_ += SizeOf(report);
        reports_.push_back(std::make_shared<const Report>(std::move(report)));
        while (reports_.size() > 1 && (reports_.size() > limits_.reports || bytes_ > limits_.bytes)) {
            bytes_ -= SizeOf(*reports_.front());
            reports_.pop_front();
            ++dropped;
        }
        changed_.notify_all();
    }
    if (dropped > 0) {
        QXPAGENT_LOG(kLogWarn, "the report store is full: the %zu oldest reports were dropped", dropped);
    }
    return cursor;
}

std::vector<std::shared_ptr<const Report>> MemoryReportStore::Fetch(const ReportQuery& query) {
    const auto deadline = std::chrono::steady_clock::now() + query.wait;
    std::vector<std::shared_ptr<const Report>> matching;
    size_t bytes = 0;
    uint64_t seen = query.after;
    std::unique_lock lock(mutex_);
    for (;;) {
        auto next = std::upper_bound(reports_.begin(), reports_.end(), seen,
                                     [](uint64_t cursor, const auto& report) { return cursor < report->cursor; });
        for (; next != reports_.end() && matching.size() < kMostReports && bytes < kMostBytes; ++next) {
            seen = (*next)->cursor;
            if (!query.id.has_value() || (*next)->id == *query.id) {
                matching.push_back(*next);
                bytes += SizeOf(**next);
            }
        }
        if (!matching.empty() || stopped_) {
            return matching;
        }
        // A wake-up means another look even at the deadline: the report may have arrived with it.
        const uint64_t known = last_cursor_;
        if (!changed_.wait_until(lock, deadline, [&] { return stopped_ || last_cursor_ != known; })) {
            return matching;
        }
    }
}

ReportCounts MemoryReportStore::Counts() const {
    std::lock_guard lock(mutex_);
    return {reports_.size(), last_cursor_};
}

void MemoryReportStore::StopWaiting() {
    std::lock_guard lock(mutex_);
    stopped_ = true;
    changed_.notify_all();
}

}  // namespace qxpagent
