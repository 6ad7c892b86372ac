#include "policy/document.h"

#include <fmt/format.h>

#include <list>

#include "policy/text.h"

namespace qxppolicy {

namespace {

constexpr size_t kMaxShownBytes = 64;  // of a name in a sentence

Fault ValidateText(const std::string& text) {
    if (text.empty()) {
        return "The document is empty; it must be one JSON object.";
    }
    if (text.find('\0') != std::string::npos) {
        return "The document holds a NUL byte; it must be one JSON object.";
    }
    if (!IsValidUtf8(text)) {
        return "The document is not UTF-8 text.";
    }
    return std::nullopt;
}

// The ID is untrusted: what could disguise the sentence is not shown.
std::string ScriptName(const std::string& id, size_t number) {
    const bool shown = !id.empty() && id.size() <= kMaxShownBytes && IsValidUtf8(id) && !HasControlCharacter(id);
    return shown ? fmt::format("script {} ({})", number, id) : fmt::format("script {}", number);
}

}  // namespace

PolicyDocument::PolicyDocument(const std::string& text) : text_fault_(ValidateText(text)) {
    readable_ = json_.LoadBuffer(text.c_str());
    if (!readable_ && !text_fault_) {
        text_fault_ = "The document is not one JSON document of at most 512 levels.";
    }
    ReadScripts();
}

void PolicyDocument::ReadScripts() {
    // A null parent would mean the root.
    const Node param = json_.GetNode(nullptr, "param");
    const Node list = param != nullptr ? json_.GetNode(param, "scriptinfo") : nullptr;
    std::list<Node> scripts;
    if (param == nullptr) {
        scripts_fault_ = "there is no \"param\"";
    } else if (list == nullptr) {
        scripts_fault_ = "there is no \"scriptinfo\" in \"param\"";
    } else if (!json_.GetAllNode(list, scripts)) {
        scripts_fault_ = "\"scriptinfo\" is not a list";
    }
    scripts_.assign(scripts.begin(), scripts.end());
}

std::optional<std::string> PolicyDocument::Member(const char* key, Node script) const {
    const Node node = json_.GetNode(script, key);
    return node != nullptr ? std::optional<std::string>(json_.GetValue(node).c_str()) : std::nullopt;
}

Fault PolicyDocument::ValidateHead() const {
    const Node id = json_.GetNode(nullptr, "ID");
    if (id == nullptr) {
        return "The document is not a JSON object with the string member \"ID\".";
    }
    if (!json_.IsString(id)) {
        return "The member \"ID\" must be a string.";
    }
    if (const Fault fault = ValidateId(json_.GetValue(id).c_str())) {
        return fmt::format("The member \"ID\" {}.", *fault);
    }
    const std::string command = Member("Command").value_or("");
    if (command.find_first_of("\"\\") != std::string::npos || !IsValidUtf8(command) || HasControlCharacter(command)) {
        return "The member \"Command\" holds '\"', '\\' or a control character.";
    }
    return std::nullopt;
}

Fault PolicyDocument::ValidateScript(Node script, const DirectoryRule& directory_rule) const {
    const std::string path = Member("scriptpath", script).value_or("");
    Fault fault = ValidateScriptDirectory(path);
    if (!fault && !path.empty() && directory_rule) {
        fault = directory_rule(path);
    }
    if (fault) {
        return "the member \"scriptpath\" " + *fault;
    }
    const std::optional<std::string> type = Member("scripttype", script);
    if (const Fault type_fault = type ? ValidateType(*type) : std::nullopt) {
        return "the member \"scripttype\" " + *type_fault;
    }
    if (!IsValidUtf8(Member("scriptid", script).value_or(""))) {
        return "the member \"scriptid\" is not UTF-8 text";
    }
    return std::nullopt;
}

Fault PolicyDocument::ValidateForAdmission(const DirectoryRule& directory_rule) const {
    if (text_fault_) {
        return text_fault_;
    }
    if (Fault fault = ValidateHead()) {
        return fault;
    }
    // No list of scripts is no harm: the plugin will refuse it.
    if (scripts_.size() > kMaxScripts) {
        return fmt::format("The member \"scriptinfo\" holds {} scripts; at most {} may run at once.", scripts_.size(),
                           kMaxScripts);
    }
    for (size_t number = 1; const Node script : scripts_) {
        if (const Fault fault = ValidateScript(script, directory_rule)) {
            return fmt::format("In {} {}.", ScriptName(Member("scriptid", script).value_or(""), number), *fault);
        }
        ++number;
    }
    return std::nullopt;
}

}  // namespace qxppolicy
