#include "policy/forecast.h"

#include <algorithm>
#include <cstdlib>
#include <list>
#include <memory>
#include <optional>

#include "policy/command.h"
#include "policy/type_handling.h"
#include "qxhost/base64.h"
#include "qxhost/json.h"

namespace qxppolicy {

namespace {

using qxtools::CPJsonParse;

std::optional<std::string> Member(const CPJsonParse& json, void* parent, const char* key) {
    void* const node = json.GetNode(parent, key);
    if (!node) {
        return std::nullopt;
    }
    // Every value ends at its first NUL, as in the plugin.
    return json.GetValue(node).c_str();
}

// The body that the plugin would write to the script file; nothing when it cannot be decoded.
std::optional<std::string> Decode(const std::string& base64_text) {
    int size = 0;
    const std::unique_ptr<unsigned char, decltype(&free)> bytes(
        base64Decode2(base64_text.data(), base64_text.size(), &size), free);
    if (!bytes || size <= 0) {
        return std::nullopt;
    }
    return std::string(reinterpret_cast<const char*>(bytes.get()), static_cast<size_t>(size));
}

ScriptVerdict Judge(ScriptVerdict script, Verdict verdict, std::string reason) {
    script.verdict = verdict;
    script.reason = std::move(reason);
    return script;
}

// A script that the plugin accepts: what it would run of it.
ScriptVerdict JudgeBody(ScriptVerdict script, const std::string& base64_text) {
    const std::optional<std::string> body = Decode(base64_text);
    script.reported = true;
    const bool shell = HandlingOf(script.type) == TypeHandling::kShell;
    const size_t nul = body && shell ? body->find('\0') : std::string::npos;
    if (!body) {
        return Judge(std::move(script), Verdict::kNotRun, "\"scriptdata\" is not Base64: an empty file would be run");
    }
    if (nul == 0) {
        return Judge(std::move(script), Verdict::kNotRun, "it begins with a NUL byte: an empty file would be run");
    }
    if (nul != std::string::npos) {
        return Judge(std::move(script), Verdict::kCutShort, "it would be run up to its first NUL byte only");
    }
    return Judge(std::move(script), Verdict::kAccepted, "");
}

ScriptVerdict CheckScript(const CPJsonParse& json, void* node, const TrustedKeys& keys) {
    ScriptVerdict script;
    script.id = Member(json, node, "scriptid").value_or("");
    const std::optional<std::string> type = Member(json, node, "scripttype");
    script.type = type.value_or("");

    const std::optional<std::string> data = Member(json, node, "scriptdata");
    if (!data) {
        return Judge(script, Verdict::kDropped, "there is no \"scriptdata\"");
    }
    const std::optional<std::string> sign = Member(json, node, "sign");
    if (!sign) {
        return Judge(script, Verdict::kDropped, "there is no \"sign\"");
    }
    if (const std::string reason = keys.ValidateSignature(*sign, *data); !reason.empty()) {
        return Judge(script, Verdict::kDropped, "bad signature: " + reason);
    }
    if (!type) {
        return Judge(script, Verdict::kDropped, "there is no \"scripttype\"");
    }
    switch (HandlingOf(*type)) {
        case TypeHandling::kUnsupported:
            return Judge(script, Verdict::kDropped, "the type \"" + *type + "\" is not supported");
        case TypeHandling::kNeverRun:
            return Judge(script, Verdict::kNotRun, "scripts of the type \"" + *type + "\" are never run");
        case TypeHandling::kShell:
        case TypeHandling::kProgram:
            break;
    }
    return JudgeBody(script, *data);
}

// The command around the scripts.
void CheckCommand(const CPJsonParse& json, PolicyVerdict& verdict) {
    const std::optional<std::string> id = Member(json, nullptr, "ID");
    const std::optional<std::string> command = Member(json, nullptr, "Command");
    verdict.id = id.value_or("");
    verdict.command = command.value_or("");
    if (!id) {
        verdict.faults.emplace_back("there is no \"ID\"");
    } else if (id->empty()) {
        verdict.faults.emplace_back("\"ID\" is empty");
    }
    if (!command) {
        verdict.faults.emplace_back("there is no \"Command\"");
    } else if (!IsRunCommand(*command)) {
        verdict.faults.emplace_back("the \"Command\" \"" + *command + "\" is none of " + kRunNormal + ", " + kRunFile +
                                    " and " + kRunProcess);
    }
}

void CheckScripts(const CPJsonParse& json, const TrustedKeys& keys, PolicyVerdict& verdict) {
    void* const param = json.GetNode(nullptr, "param");
    void* const scripts = param ? json.GetNode(param, "scriptinfo") : nullptr;
    std::list<void*> nodes;
    if (!param) {
        verdict.faults.emplace_back("there is no \"param\"");
        return;
    }
    if (!scripts) {
        verdict.faults.emplace_back("there is no \"scriptinfo\" in \"param\"");
        return;
    }
    if (!json.GetAllNode(scripts, nodes)) {
        verdict.faults.emplace_back("\"scriptinfo\" is not a list");
        return;
    }
    for (void* const node : nodes) {
        verdict.scripts.push_back(CheckScript(json, node, keys));
    }
    const auto accepted = static_cast<size_t>(
        std::count_if(verdict.scripts.begin(), verdict.scripts.end(),
                      [](const ScriptVerdict& script) { return script.verdict != Verdict::kDropped; }));
    if (accepted == 0) {
        verdict.faults.emplace_back("no script is left to run");
    }
    if (accepted > kMaxScripts) {
        verdict.faults.emplace_back(std::to_string(accepted) + " scripts are more than the " +
                                    std::to_string(kMaxScripts) + " that may run at once");
    }
}

}  // namespace

bool PolicyVerdict::Good() const {
    return readable && faults.empty() && std::all_of(scripts.begin(), scripts.end(), [](const ScriptVerdict& script) {
               return script.verdict == Verdict::kAccepted;
           });
}

PolicyVerdict CheckPolicy(const std::string& document, const TrustedKeys& keys) {
    CPJsonParse json;
    return json.LoadBuffer(document.c_str()) ? CheckPolicy(json, keys) : PolicyVerdict();
}

PolicyVerdict CheckPolicy(const CPJsonParse& document, const TrustedKeys& keys) {
    PolicyVerdict verdict;
    verdict.readable = true;
    CheckCommand(document, verdict);
    CheckScripts(document, keys, verdict);
    return verdict;
}

}  // namespace qxppolicy
