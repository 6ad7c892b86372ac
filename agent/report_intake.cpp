#include "agent/report_intake.h"

#include <utility>

#include "agent/log.h"
#include "agent/report_envelope.h"

namespace qxpagent {

bool ReportIntake::TakeMessage(std::string_view envelope) {
    const auto decoded = DecodeReportEnvelope(envelope);
    if (!decoded.has_value()) {
        QXPAGENT_LOG(kLogWarn, "a report of %zu bytes was refused: its envelope is malformed", envelope.size());
        return false;
    }
    Report report;
    report.json_data_type = decoded->json_data_type;
    report.value = decoded->value;
    ReportContent content = ReadReport(decoded->text);
    if (content.refusal && !may_be_refused_(content.id)) {
        // The plugin puts a refusal together without escaping what it names: anybody's policy may have written it.
        QXPAGENT_LOG(kLogWarn, "a refusal names command [%s], which is not being delivered: it ends no command",
                     content.id.c_str());
        content.refusal = false;
    }
    try {
        Take(std::move(report), decoded->text, content, std::nullopt);
        return true;
    } catch (const StoreError& error) {
        QXPAGENT_LOG(kLogError, "a report of command [%s], %zu bytes, was refused: %s", content.id.c_str(),
                     decoded->text.size(), error.what());
        return false;
    }
}

void ReportIntake::TakeFile(const FileMark& mark, std::string_view text, const ReportContent& content) {
    Report report;
    report.source = ReportSource::kFile;
    report.file = mark.name;
    ReportContent believed = content;
    believed.refusal = false;  // the plugin writes none into files
    Take(std::move(report), text, believed, mark);
}

void ReportIntake::Take(Report report, std::string_view text, const ReportContent& content,
                        const std::optional<FileMark>& mark) {
    report.received = std::chrono::system_clock::now();
    report.id = content.id;
    const auto [cursor, refused] = store_.Append(report, text, content, mark);
    if (cursor == 0) {
        return;
    }
    if (refused) {
        counters_.RefusedByPlugin();
    }
    QXPAGENT_LOG(kLogInfo, "report %llu stored, command [%s], %zu bytes%s%s", static_cast<unsigned long long>(cursor),
                 report.id.c_str(), text.size(), report.file.empty() ? "" : ", file ", report.file.c_str());
    counters_.Count(content);
    stored_();
}

}  // namespace qxpagent
