#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace qxpagent {

/// One report of the plugin. The store gives the cursor: 1, 2, 3, … in order of arrival.
struct Report {
    uint64_t cursor = 0;
    std::string id;  // the report's "ID", empty when it has none
    std::chrono::system_clock::time_point received;
    uint32_t json_data_type = 0;
    int32_t value = 0;
    std::string text;
};

struct ReportQuery {
    std::optional<std::string> id;  // only reports with this ID
    uint64_t after = 0;             // only reports with a greater cursor
    std::chrono::milliseconds wait{0};
};

struct ReportCounts {
    uint64_t stored = 0;
    uint64_t last_cursor = 0;  // of the newest report ever stored, 0 when there was none
};

/// Keeps reports until their readers have come for them. All functions may be called from any thread.
class ReportStore {
public:
    virtual ~ReportStore() = default;

    /// Stores a report and returns the cursor it was given; 0 when it could not be stored. `report.cursor` is ignored.
    virtual uint64_t Append(Report report) = 0;

    /// The reports that match, oldest first, waiting for the first one at most `query.wait`. One call returns at most
    /// kMostReports reports and about kMostBytes bytes of text, but at least one report when any matches; asking again
    /// after the last cursor gives the rest.
    virtual std::vector<std::shared_ptr<const Report>> Fetch(const ReportQuery& query) = 0;
    static constexpr size_t kMostReports = 1000;
    static constexpr size_t kMostBytes = size_t{16} << 20;

    virtual ReportCounts Counts() const = 0;

    /// Ends every wait, now and from now on. Reports can still be stored and fetched.
    virtual void StopWaiting() = 0;
};

/// What a store may hold before it drops its oldest reports.
struct ReportStoreLimits {
    size_t reports = 10000;
    size_t bytes = size_t{64} << 20;
};

/// A store in memory: nothing survives the process, and when it is full the oldest reports are dropped with a warning.
class MemoryReportStore final : public ReportStore {
public:
    explicit MemoryReportStore(const ReportStoreLimits& limits = {}) : limits_(limits) {}

    uint64_t Append(Report report) override;
    std::vector<std::shared_ptr<const Report>> Fetch(const ReportQuery& query) override;
    ReportCounts Counts() const override;
    void StopWaiting() override;

private:
    const ReportStoreLimits limits_;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_.
    std::deque<std::shared_ptr<const Report>> reports_;  // by cursor
    size_t bytes_ = 0;
    uint64_t last_cursor_ = 0;
    bool stopped_ = false;
};

}  // namespace qxpagent
