#include "agent/command_document.h"

#include <nlohmann/json.hpp>

#include "qxhost/json.h"

namespace qxpagent {

namespace {

// Finds out of what kind a member of the root is, which the host SDK's reader does not tell. Looks at the first member
// of that name, as that reader does, and reads no further.
class KindOfMember : public nlohmann::json_sax<nlohmann::json> {
public:
    explicit KindOfMember(const std::string& name) : name_(name) {}

    bool IsOtherThanString() const { return found_ && !is_string_; }

    bool null() override { return Value(false); }
    bool boolean(bool /*value*/) override { return Value(false); }
    bool number_integer(number_integer_t /*value*/) override { return Value(false); }
    bool number_unsigned(number_unsigned_t /*value*/) override { return Value(false); }
    bool number_float(number_float_t /*value*/, const string_t& /*text*/) override { return Value(false); }
    bool string(string_t& /*value*/) override { return Value(true); }
    bool binary(binary_t& /*value*/) override { return Value(false); }
    bool start_object(std::size_t /*elements*/) override { return Value(false) && ++depth_ != 0; }
    bool start_array(std::size_t /*elements*/) override { return Value(false) && ++depth_ != 0; }
    bool end_object() override { return depth_-- != 0; }
    bool end_array() override { return depth_-- != 0; }
    bool key(string_t& name) override {
        found_ = depth_ == 1 && name == name_;
        return true;
    }
    bool parse_error(std::size_t /*position*/, const std::string& /*token*/,
                     const nlohmann::detail::exception& /*error*/) override {
        return false;
    }

private:
    bool Value(bool is_string) {
        is_string_ = is_string;
        return !found_;
    }

    const std::string& name_;
    size_t depth_ = 0;
    bool found_ = false;
    bool is_string_ = false;
};

}  // namespace

MemberText ReadStringMember(const std::string& document, const std::string& member) {
    if (document.empty()) {
        return {"", "The body is empty; it must be one JSON object."};
    }
    if (document.find('\0') != std::string::npos) {
        return {"", "The body holds a NUL byte; it must be one JSON object."};
    }
    qxtools::CPJsonParse parsed;
    if (!parsed.LoadBuffer(document.c_str())) {
        return {"", "The body is not one JSON document of at most 512 levels."};
    }
    void* const node = parsed.GetNode(nullptr, member.c_str());
    if (node == nullptr) {
        return {"", "The body is not a JSON object with the string member \"" + member + "\"."};
    }
    KindOfMember kind(member);
    nlohmann::json::sax_parse(document, &kind);
    if (kind.IsOtherThanString()) {
        return {"", "The member \"" + member + "\" must be a string."};
    }
    MemberText result{parsed.GetValue(node).Str(), ""};
    if (result.text.empty()) {
        result.error = "The member \"" + member + "\" must not be empty.";
    }
    return result;
}

}  // namespace qxpagent
