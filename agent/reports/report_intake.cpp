#include "agent/reports/report_intake.h"

#include <new>
#include <utility>

#include "agent/log.h"

namespace qxpagent {

namespace {

constexpr char kOthersWait[] = "others wait before it";

}  // namespace

bool ReportIntake::AcceptMessage(std::string_view envelope) {
    const auto decoded = DecodeReportEnvelope(envelope);
    if (!decoded.has_value()) {
        QXPAGENT_LOG(kLogWarn, "a report of %zu bytes was refused: its envelope is malformed", envelope.size());
        return false;
    }
    Report report;
    report.json_data_type = decoded->json_data_type;
    report.value = decoded->value;
    report.received = std::chrono::system_clock::now();
    ReportContent content = ReadReport(decoded->text);
    if (content.refusal && !may_be_refused_(content.id)) {
        // The plugin writes a refusal without escaping the ID in it, so a policy can make it name any other command.
        QXPAGENT_LOG(kLogWarn, "a refusal names command [%s], which is not being delivered: it ends no command",
                     content.id.c_str());
        content.refusal = false;
    }
    report.id = content.id;
    std::string reason = kOthersWait;
    // One at a time: while one waits for the lock of the database, the others, each on a thread of the plugin, would
    // wait for the same after it. They join those in memory, which also keeps the order.
    if (Waiting() == 0) {
        const std::lock_guard turn(turn_);
        try {
            if (Waiting() == 0) {
                StoreNow(report, decoded->text, content, std::nullopt);
                return true;
            }
        } catch (const StoreError& error) {
            reason = error.what();
        }
    }
    return Keep(report, decoded->text, content, reason);
}

// False when there is no room for the report: it is lost then.
bool ReportIntake::Keep(const Report& report, std::string_view text, const ReportContent& content,
                        const std::string& reason) {
    const std::lock_guard lock(mutex_);
    try {
        if (waiting_.size() < limits_.reports && text.size() <= limits_.bytes - waiting_bytes_) {
            waiting_.push_back({report, std::string(text), content});
            waiting_bytes_ += text.size();
            QXPAGENT_LOG(kLogWarn, "a report of command [%s], %zu bytes, waits in memory: %s", report.id.c_str(),
                         text.size(), reason.c_str());
            return true;
        }
    } catch (const std::bad_alloc&) {  // NOLINT(bugprone-empty-catch): as when there is no room
    }
    QXPAGENT_LOG(kLogError, "a report of command [%s], %zu bytes, is lost, with %zu that wait in memory: %s",
                 report.id.c_str(), text.size(), waiting_.size(), reason.c_str());
    counters_.reports_lost.Increment();
    lost_.push_back(content);
    return false;
}

size_t ReportIntake::StoreWaiting() {
    const std::lock_guard turn(turn_);
    size_t left = Waiting();
    try {
        for (; left > 0; left = Waiting()) {
            std::unique_lock lock(mutex_);
            const Message& front = waiting_.front();  // a deque leaves it in place while others are added
            lock.unlock();
            StoreNow(front.report, front.text, front.content, std::nullopt);
            lock.lock();
            waiting_bytes_ -= front.text.size();
            waiting_.pop_front();
        }
    } catch (const StoreError& error) {
        QXPAGENT_LOG(kLogWarn, "%zu reports wait in memory: %s", left, error.what());
    }
    return left;
}

size_t ReportIntake::Waiting() const {
    const std::lock_guard lock(mutex_);
    return waiting_.size();
}

std::vector<ReportContent> ReportIntake::ExtractLost() {
    const std::lock_guard lock(mutex_);
    return std::exchange(lost_, {});
}

void ReportIntake::AcceptFile(const FileMark& mark, std::string_view text, const ReportContent& content) {
    Report report;
    report.source = ReportSource::kFile;
    report.file = mark.name;
    report.received = std::chrono::system_clock::now();
    report.id = content.id;
    ReportContent believed = content;
    believed.refusal = false;  // the plugin writes none into files
    StoreNow(report, text, believed, mark);
}

void ReportIntake::StoreNow(const Report& report, std::string_view text, const ReportContent& content,
                            const std::optional<FileMark>& mark) {
    const auto [cursor, refused] = store_.Append(report, text, content, mark);
    if (cursor == 0) {
        return;
    }
    if (refused) {
        counters_.refused_by_plugin.Increment();
    }
    QXPAGENT_LOG(kLogInfo, "report %llu stored, command [%s], %zu bytes%s%s", static_cast<unsigned long long>(cursor),
                 report.id.c_str(), text.size(), report.file.empty() ? "" : ", file ", report.file.c_str());
    counters_.Count(content);
    stored_();
}

}  // namespace qxpagent
