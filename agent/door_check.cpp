#include "agent/door_check.h"

#include <algorithm>
#include <array>
#include <list>
#include <optional>
#include <string_view>

#include "policy/command.h"
#include "qxhost/cpstring.h"

namespace qxpagent {

namespace {

using qxtools::CPJsonParse;

constexpr std::array<const char*, 5> kTypes{"sh", "exe", "bat", "vbs", "zip"};
constexpr size_t kMostShown = 64;  // bytes of a name in a sentence

std::optional<std::string> Member(const CPJsonParse& json, void* parent, const char* key) {
    void* const node = json.GetNode(parent, key);
    return node != nullptr ? std::optional<std::string>(json.GetValue(node).c_str()) : std::nullopt;
}

bool HasControlCharacter(std::string_view text) {
    return std::any_of(text.begin(), text.end(),
                       [](unsigned char character) { return character < 0x20 || character == 0x7f; });
}

std::string WhyBadId(const std::string& id) {
    if (id.empty()) {
        return "The member \"ID\" must not be empty.";
    }
    if (id.size() > kMaxIdBytes) {
        return "The member \"ID\" is longer than " + std::to_string(kMaxIdBytes) + " bytes.";
    }
    if (id.find('/') != std::string::npos || HasControlCharacter(id)) {
        return "The member \"ID\" must not hold '/' or control characters.";
    }
    return {};
}

bool IsPathCharacter(char character) {
    constexpr std::string_view kOthers = "/._+@=,-";
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
           (character >= '0' && character <= '9') || kOthers.find(character) != std::string_view::npos;
}

std::string WhyBadPath(const std::string& path) {
    if (path.empty()) {
        return {};
    }
    if (path.front() != '/') {
        return "must be an absolute path";
    }
    if (path.find("..") != std::string::npos) {
        return "must not hold \"..\"";
    }
    if (!std::all_of(path.begin(), path.end(), IsPathCharacter)) {
        return "may hold letters, digits and /._+@=,- only";
    }
    return {};
}

bool IsKnownType(const std::string& type) {
    const CPString text(type);
    return std::any_of(kTypes.begin(), kTypes.end(), [&](const char* known) { return text.CompareNoCase(known) == 0; });
}

std::string WhyBadScript(const CPJsonParse& json, void* script) {
    const std::optional<std::string> path = Member(json, script, "scriptpath");
    if (const std::string reason = WhyBadPath(path.value_or("")); !reason.empty()) {
        return "the member \"scriptpath\" " + reason;
    }
    const std::optional<std::string> type = Member(json, script, "scripttype");
    if (type.has_value() && !IsKnownType(*type)) {
        return "the member \"scripttype\" is none of sh, exe, bat, vbs and zip";
    }
    return {};
}

std::string NameOf(const CPJsonParse& json, void* script, size_t number) {
    const std::string id = Member(json, script, "scriptid").value_or("");
    return "script " + std::to_string(number) +
           (id.empty() || id.size() > kMostShown || HasControlCharacter(id) ? "" : " (" + id + ")");
}

}  // namespace

std::string WhyUnacceptable(const CPJsonParse& document) {
    if (std::string reason = WhyBadId(Member(document, nullptr, "ID").value_or("")); !reason.empty()) {
        return reason;
    }
    void* const param = document.GetNode(nullptr, "param");
    void* const list = param != nullptr ? document.GetNode(param, "scriptinfo") : nullptr;
    std::list<void*> scripts;
    if (list == nullptr || !document.GetAllNode(list, scripts)) {
        return {};  // the plugin will refuse it
    }
    if (scripts.size() > qxppolicy::kMaxScripts) {
        return "The member \"scriptinfo\" holds " + std::to_string(scripts.size()) + " scripts; at most " +
               std::to_string(qxppolicy::kMaxScripts) + " may run at once.";
    }
    size_t number = 0;
    for (void* const script : scripts) {
        ++number;
        if (const std::string reason = WhyBadScript(document, script); !reason.empty()) {
            return "In " + NameOf(document, script, number) + " " + reason + ".";
        }
    }
    return {};
}

}  // namespace qxpagent
