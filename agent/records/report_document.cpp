#include "agent/records/report_document.h"

#include <endian.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

#include <fmt/format.h>

#include "policy/vocabulary.h"

namespace qxpagent {

namespace {

uint32_t ReadUint32(std::string_view bytes, size_t offset) {
    uint32_t value = 0;
    std::memcpy(&value, bytes.data() + offset, sizeof(value));
    return le32toh(value);
}

using Sax = nlohmann::json_sax<nlohmann::json>;

// Where the reader stands: the keys from the root down to the present value, a list's as "[]".
using Path = std::vector<std::string>;

// Follows a document from value to value and keeps the few that matter.
class ReportReader : public Sax {
public:
    explicit ReportReader(ReportContent& content) : content_(content) {}

    bool null() override { return Value(""); }
    bool boolean(bool value) override { return Value(value ? "true" : "false"); }
    bool number_integer(number_integer_t value) override { return Value(std::to_string(value)); }
    bool number_unsigned(number_unsigned_t value) override { return Value(std::to_string(value)); }
    bool number_float(number_float_t /*value*/, const string_t& text) override { return Value(text); }
    bool string(string_t& value) override { return Value(value); }
    bool binary(binary_t& /*value*/) override { return Value(""); }
    bool key(string_t& name) override {
        path_.back() = name;
        return true;
    }
    bool start_object(std::size_t /*elements*/) override {
        if (path_ == kRun) {
            content_.runs.emplace_back();
            seen_.clear();
        }
        return Deeper("");
    }
    bool start_array(std::size_t /*elements*/) override { return Deeper("[]"); }
    bool end_object() override { return Higher(); }
    bool end_array() override { return Higher(); }
    bool parse_error(std::size_t /*position*/, const std::string& /*token*/,
                     const nlohmann::detail::exception& /*error*/) override {
        return false;
    }

    std::string kind;  // "msg_type"

private:
    static inline const Path kRun{"data", "result", "[]"};
    static constexpr size_t kMostLevels = 512;  // as in the host SDK's reader

    bool Deeper(const char* name) {
        path_.emplace_back(name);
        return path_.size() <= kMostLevels;
    }
    bool Higher() {
        path_.pop_back();
        return true;
    }

    bool Value(const std::string& text) {
        if (path_.size() == 1 && path_[0] == "ID" && !std::exchange(has_id_, true)) {
            content_.id = text;
        } else if (path_.size() == 1 && path_[0] == "msg_type" && !std::exchange(has_kind_, true)) {
            kind = text;
        } else if (path_.size() == kRun.size() + 1 && std::equal(kRun.begin(), kRun.end(), path_.begin()) &&
                   seen_.insert(path_.back()).second) {
            RunMember(content_.runs.back(), path_.back(), text);
        }
        return true;
    }

    static void RunMember(RunResult& run, const std::string& name, const std::string& text) {
        if (name == "scriptid") {
            run.script_id = text;
        } else if (name == "run_starttime") {
            run.start = text;
        } else if (name == "filepath") {
            run.file = text;
        } else if (name == "run_result") {
            run.succeeded = text == "1";
        } else if (name == "run_endtime") {
            run.timed_out = text.empty();
        } else if (name == "run_runningtime") {
            std::from_chars(text.data(), text.data() + text.size(), run.seconds);
        } else if (name == "run_outdata") {
            run.output_bytes = text.size();
        }
    }

    ReportContent& content_;
    Path path_;
    std::set<std::string> seen_;  // members of the present run
    bool has_id_ = false;
    bool has_kind_ = false;
};

}  // namespace

std::optional<ReportEnvelope> DecodeReportEnvelope(std::string_view bytes) {
    if (bytes.size() <= kEnvelopeHeaderBytes) {
        return std::nullopt;
    }
    const size_t text_bytes = bytes.size() - kEnvelopeHeaderBytes - 1;
    const uint32_t json_data_type = ReadUint32(bytes, 0);
    if (ReadUint32(bytes, 144) != text_bytes || bytes.back() != '\0' || (json_data_type != 1 && json_data_type != 2)) {
        return std::nullopt;
    }
    return ReportEnvelope{json_data_type, static_cast<int32_t>(ReadUint32(bytes, 4)),
                          bytes.substr(kEnvelopeHeaderBytes, text_bytes)};
}

ReportContent ReadReport(std::string_view text) {
    ReportContent content;
    ReportReader reader(content);
    if (text.find('\0') != std::string_view::npos || !nlohmann::json::sax_parse(text.begin(), text.end(), &reader)) {
        return {};
    }
    content.readable = true;
    content.refusal = reader.kind == qxppolicy::kRefusalMessage;
    if (reader.kind != qxppolicy::kResultMessage) {
        content.runs.clear();
    }
    return content;
}

std::string InterruptedReport(const std::string& id, const std::string& reason,
                              const std::vector<std::string>& unreported) {
    // Text by text: a document of the library allocates in its destructor, and ends the process when it cannot.
    const auto quoted = [](const std::string& text) {
        return nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    };
    std::vector<std::string> scripts(unreported.size());
    std::transform(unreported.begin(), unreported.end(), scripts.begin(), quoted);
    return fmt::format(
        R"({{"ID":{},"msg_type":"{}","data_type":"CommandInterrupted","data":{{"reason":{},"unreported":[{}]}}}})",
        quoted(id), qxppolicy::kInterruptionMessage, quoted(reason), fmt::join(scripts, ","));
}

}  // namespace qxpagent
