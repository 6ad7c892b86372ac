#include "policy/policy_builder.h"

#include <openssl/rand.h>

#include <array>
#include <filesystem>
#include <set>

#include "ctl/commands/script_type.h"
#include "ctl/terminal/error.h"
#include "ctl/terminal/json.h"
#include "ctl/terminal/text.h"
#include "policy/signature_format.h"
#include "policy/signer.h"

namespace qxpctl {

namespace {

using qxppolicy::kMaxSignedBytes;

// Base64 makes four characters of three bytes.
constexpr size_t kMaxScriptBytes = kMaxSignedBytes / 4 * 3;

std::string RandomUuid() {
    std::array<unsigned char, 16> bytes{};
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
        throw LocalFailure("the system gives no random numbers");
    }
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);  // version 4
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
    std::string text = HexEncode(bytes);
    for (const size_t at : {8, 13, 18, 23}) {
        text.insert(at, "-");
    }
    return text;
}

std::string IdOf(const ScriptArgument& argument, const ScriptAttributes& attributes) {
    if (attributes.id) {
        return *attributes.id;
    }
    std::string name = std::filesystem::path(argument.file).filename().string();
    try {
        CheckId(name, "script id");
    } catch (const BadInput& error) {
        throw BadInput(std::string(error.what()) + "; give another with '" + argument.file + ",id=NAME'");
    }
    return name;
}

// Adds one script to the policy and its member to the list.
void AddScript(const std::string& text, const ScriptAttributes& defaults, const Key& key, Policy& policy, Json& list) {
    const ScriptArgument argument = ParseScriptArgument(text);
    const ScriptAttributes attributes = WithDefaults(argument.attributes, defaults);
    const ScriptFile file = ReadScriptFile(argument.file, kMaxScriptBytes);
    PackedScript script;
    script.id = IdOf(argument, attributes);
    script.type = attributes.type ? *attributes.type : GuessType(argument.file, file);
    script.file = argument.file;
    if (HandlingOf(script.type) == TypeHandling::kShell && file.bytes.find('\0') != std::string::npos) {
        throw BadInput(argument.file +
                       " holds a NUL byte, and the plugin would run a script of the type sh only up to it");
    }
    script.bytes = file.bytes.size();
    script.timeout = attributes.timeout.value_or(0);

    std::string base64_text = Base64Encode(file.bytes);
    // Every value is a string in this format, numbers included.
    Json member;
    member["scriptid"] = script.id;
    member["scripttype"] = script.type;
    if (attributes.path && !attributes.path->empty()) {
        member["scriptpath"] = *attributes.path;
    }
    if (attributes.check && !attributes.check->empty()) {
        member["checkret"] = *attributes.check;
    }
    if (attributes.timeout) {
        member["timeout"] = std::to_string(*attributes.timeout);
    }
    if (attributes.action) {
        member["timeoutaction"] = std::to_string(*attributes.action);
    }
    member["sign"] = Sign(key, base64_text);
    member["scriptdata"] = std::move(base64_text);
    list.push_back(std::move(member));
    policy.scripts.push_back(std::move(script));
}

void CheckDistinctIds(const std::vector<PackedScript>& scripts) {
    std::set<std::string> ids;
    for (const PackedScript& script : scripts) {
        if (!ids.insert(script.id).second) {
            throw BadInput("two scripts have the id '" + script.id + "'; give one another with '" + script.file +
                           ",id=NAME'");
        }
    }
}

}  // namespace

Policy BuildPolicy(const PolicyRequest& request, const Key& private_key) {
    if (request.scripts.empty()) {
        throw BadInput("no script is given");
    }
    if (request.scripts.size() > kMaxScripts) {
        throw BadInput(std::to_string(request.scripts.size()) + " scripts are too many for one policy; the limit is " +
                       std::to_string(kMaxScripts) + ": pack them in several");
    }
    if (!IsRunCommand(request.command)) {
        throw BadInput("the command '" + request.command + "' is none of " + kRunNormal + ", " + kRunFile + " and " +
                       kRunProcess);
    }
    Policy policy;
    policy.id = request.id ? *request.id : RandomUuid();
    policy.command = request.command;
    CheckId(policy.id, "policy ID");

    Json list = Json::array();
    size_t total = 0;
    for (const std::string& script : request.scripts) {
        AddScript(script, request.defaults, private_key, policy, list);
        // While they are read, so that many large scripts do not fill the memory first.
        total += list.back()["scriptdata"].get_ref<const std::string&>().size();
        if (total > kMaxPolicyBytes) {
            break;
        }
    }
    CheckDistinctIds(policy.scripts);
    if (total <= kMaxPolicyBytes) {
        Json document;
        document["ID"] = policy.id;
        document["Command"] = policy.command;
        document["param"]["scriptinfo"] = std::move(list);
        policy.document = document.dump();
    }
    if (total > kMaxPolicyBytes || policy.document.size() > kMaxPolicyBytes) {
        throw BadInput("the policy would be larger than " + std::to_string(kMaxPolicyBytes) +
                       " bytes, more than the agent takes: pack the scripts in several");
    }
    return policy;
}

}  // namespace qxpctl
