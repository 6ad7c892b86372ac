#pragma once

#include <SQLiteCpp/SQLiteCpp.h>
#include <gtest/gtest.h>

#include "agent/records/report_document.h"
#include "agent/reports/report_intake.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/agent/test_support.h"

namespace qxpagent {

inline Report ReportOf(const std::string& id, const std::string& text = "{}") {
    Report report;
    report.id = id;
    report.text = text;
    report.received = std::chrono::system_clock::now();
    return report;
}

inline uint64_t StoreReport(Store& store, const Report& report, const ReportContent& content) {
    return store.Append(report, report.text, content).cursor;
}

inline std::string RunText(const std::string& script, const std::string& start, const std::string& file) {
    return R"({"scriptid":")" + script + R"(","run_starttime":")" + start + R"(","filepath":")" + file +
           R"(","run_result":"1","run_outdata":"abc","run_endtime":"x","run_runningtime":"2"})";
}

inline std::string ResultText(const std::string& id, const std::string& runs) {
    return R"({"ID":")" + id + R"(","msg_type":"1","data":{"result":[)" + runs + "]}}";
}

/// A report as the plugin sends it.
inline std::string Envelope(const std::string& text, char type = 2, int value = 1) {
    std::string bytes(kEnvelopeHeaderBytes, '\0');
    bytes[0] = type;
    bytes.replace(4, sizeof(value), reinterpret_cast<const char*>(&value), sizeof(value));
    bytes[8] = 1;
    for (size_t i = 0; i < 4; ++i) {
        bytes[144 + i] = static_cast<char>(text.size() >> (8 * i));
    }
    return bytes + text + '\0';
}

/// A store in a directory of its own, and shorthands for what it is asked.
class StoreTest : public testing::Test {
protected:
    StoreTest() { Open(); }

    void Open() {
        store_.reset();
        store_ = std::make_unique<Store>(options_);
    }
    static NewCommand CommandOf(const std::string& id, const std::vector<std::string>& expected = {"a"}) {
        NewCommand command;
        command.id = id;
        command.command = "RunScriptNormal";
        command.text = "document of " + id;
        command.sha256 = "sha of " + command.text;
        command.refusal_reason = "too many";
        command.scripts = static_cast<uint32_t>(expected.size());
        command.expected = expected;
        command.submitter = {7, 8, 9, "operator"};
        command.received = std::chrono::system_clock::now();
        return command;
    }
    CommandRecord Deliver(const std::string& id, const std::vector<std::string>& expected = {"a"}) {
        CommandRecord record;
        EXPECT_EQ(Admission::kNew, store_->Admit(CommandOf(id, expected), record));
        EXPECT_TRUE(store_->MarkDelivered(id));
        return record;
    }
    uint64_t Append(const std::string& text) {
        const ReportContent content = ReadReport(text);
        return StoreReport(*store_, ReportOf(content.id, text), content);
    }
    // While it lives, nothing can be written.
    std::unique_ptr<SQLite::Database> Lock() const {
        auto other = std::make_unique<SQLite::Database>(options_.path.string(), SQLite::OPEN_READWRITE);
        other->exec("BEGIN IMMEDIATE");
        return other;
    }
    CommandRecord Find(const std::string& id) { return store_->FindCommand(id).value_or(CommandRecord()); }
    std::vector<uint64_t> Cursors(const ReportQuery& query = {}) {
        std::vector<uint64_t> cursors;
        for (const Report& report : store_->ListReports(query)) {
            cursors.push_back(report.cursor);
        }
        return cursors;
    }

    using List = std::vector<uint64_t>;
    using Names = std::vector<std::string>;

    const TempDir directory_;
    StoreOptions options_{.path = directory_.Path() / "agent.db", .busy = std::chrono::milliseconds(20)};
    std::unique_ptr<Store> store_;
    RunCounters counters_;
};

}  // namespace qxpagent
