#include "policy/document.h"

#include <algorithm>
#include <array>
#include <list>
#include <optional>
#include <string_view>

#include "policy/command.h"
#include "policy/rules.h"
#include "policy/text.h"
#include "qxhost/cpstring.h"

namespace qxppolicy {

namespace {

using qxtools::CPJsonParse;

constexpr std::array<const char*, 5> kTypes{"sh", "exe", "bat", "vbs", "zip"};
constexpr size_t kMostShown = 64;  // bytes of a name in a sentence

std::string Member(const CPJsonParse& json, void* parent, const char* key) {
    return json.GetValue(json.GetNode(parent, key)).c_str();
}

bool IsKnownType(const std::string& type) {
    const CPString text(type);
    return std::any_of(kTypes.begin(), kTypes.end(), [&](const char* known) { return text.CompareNoCase(known) == 0; });
}

std::string ValidateScript(const CPJsonParse& json, void* script, const DirectoryRule& directory_rule) {
    const std::string path = Member(json, script, "scriptpath");
    std::string reason = ValidateScriptDirectory(path);
    if (reason.empty() && !path.empty() && directory_rule) {
        reason = directory_rule(path);
    }
    if (!reason.empty()) {
        return "the member \"scriptpath\" " + reason;
    }
    if (json.GetNode(script, "scripttype") && !IsKnownType(Member(json, script, "scripttype"))) {
        return "the member \"scripttype\" is none of sh, exe, bat, vbs and zip";
    }
    if (!IsValidUtf8(Member(json, script, "scriptid"))) {
        return "the member \"scriptid\" is not UTF-8 text";
    }
    return {};
}

std::string NameOf(const CPJsonParse& json, void* script, size_t number) {
    const std::string id = Member(json, script, "scriptid");
    const bool shown = !id.empty() && id.size() <= kMostShown && IsValidUtf8(id) && !HasControlCharacter(id);
    return "script " + std::to_string(number) + (shown ? " (" + id + ")" : "");
}

std::string ParseDocument(const std::string& text, CPJsonParse& document) {
    if (text.empty()) {
        return "The document is empty; it must be one JSON object.";
    }
    if (text.find('\0') != std::string::npos) {
        return "The document holds a NUL byte; it must be one JSON object.";
    }
    if (!IsValidUtf8(text)) {
        return "The document is not UTF-8 text.";
    }
    if (!document.LoadBuffer(text.c_str())) {
        return "The document is not one JSON document of at most 512 levels.";
    }
    return {};
}

std::string ValidateCommand(const CPJsonParse& document) {
    void* const id = document.GetNode(nullptr, "ID");
    if (!id) {
        return "The document is not a JSON object with the string member \"ID\".";
    }
    if (!document.IsString(id)) {
        return "The member \"ID\" must be a string.";
    }
    if (const std::string reason = ValidateId(document.GetValue(id).c_str()); !reason.empty()) {
        return "The member \"ID\" " + reason + ".";
    }
    const std::string command = Member(document, nullptr, "Command");
    if (command.find_first_of("\"\\") != std::string::npos || !IsValidUtf8(command) || HasControlCharacter(command)) {
        return "The member \"Command\" holds '\"', '\\' or a control character.";
    }
    return {};
}

}  // namespace

std::string ValidateForAdmission(const std::string& text, CPJsonParse& document, const DirectoryRule& directory_rule) {
    if (std::string reason = ParseDocument(text, document); !reason.empty()) {
        return reason;
    }
    if (std::string reason = ValidateCommand(document); !reason.empty()) {
        return reason;
    }
    void* const param = document.GetNode(nullptr, "param");
    void* const list = param ? document.GetNode(param, "scriptinfo") : nullptr;
    std::list<void*> scripts;
    if (!list || !document.GetAllNode(list, scripts)) {
        return {};  // the plugin will refuse it
    }
    if (scripts.size() > kMaxScripts) {
        return "The member \"scriptinfo\" holds " + std::to_string(scripts.size()) + " scripts; at most " +
               std::to_string(kMaxScripts) + " may run at once.";
    }
    size_t number = 0;
    for (void* const script : scripts) {
        ++number;
        if (const std::string reason = ValidateScript(document, script, directory_rule); !reason.empty()) {
            return "In " + NameOf(document, script, number) + " " + reason + ".";
        }
    }
    return {};
}

}  // namespace qxppolicy
