#include "policy/policy_builder.h"

#include <fmt/format.h>
#include <uuid/uuid.h>

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <utility>

#include "base/encoding.h"
#include "base/error.h"
#include "policy/rules.h"
#include "policy/signature_format.h"
#include "policy/vocabulary.h"

namespace qxppolicy {

using qxpbase::InputError;

// Base64 makes four characters of three bytes.
const size_t kMaxScriptBytes = MAINT_SIGN_MAX_SIZE / 4 * 3;

namespace {

using Json = nlohmann::ordered_json;

std::string RandomUuid() {
    uuid_t uuid;
    std::array<char, UUID_STR_LEN> text{};
    uuid_generate_random(uuid);
    uuid_unparse_lower(uuid, text.data());
    return text.data();
}

void RequireRoom(size_t bytes) {
    if (bytes > kMaxPolicyBytes) {
        throw InputError(fmt::format(
            "the policy would be larger than {} bytes, more than the agent takes: pack the scripts in several",
            kMaxPolicyBytes));
    }
}

}  // namespace

PolicyBuilder::PolicyBuilder(const std::optional<std::string>& id, const std::string& command, const Key& key)
    : key_(key) {
    if (!IsRunCommand(command)) {
        throw InputError(
            fmt::format("the command '{}' is none of {}, {} and {}", command, kRunNormal, kRunFile, kRunProcess));
    }
    policy_.id = id ? *id : RandomUuid();
    policy_.command = command;
    policy_.scheme = key.scheme;
    if (const Fault fault = ValidateId(policy_.id)) {
        throw InputError(fmt::format("the policy ID '{}' {}", policy_.id, *fault));
    }
    policy_.document = Json{{"ID", policy_.id}, {"Command", command}}.dump();
    policy_.document.pop_back();  // its '}' comes last
    policy_.document += R"(,"param":{"scriptinfo":[)";
}

void PolicyBuilder::Add(const ScriptMembers& members, const std::string& file, std::string_view body) {
    if (HandlingOf(members.type) == TypeHandling::kShell && body.find('\0') != std::string_view::npos) {
        throw InputError(file + " holds a NUL byte, and the plugin would run a script of the type sh only up to it");
    }
    if (std::any_of(policy_.scripts.begin(), policy_.scripts.end(),
                    [&members](const PackedScript& script) { return script.id == members.id; })) {
        throw InputError(
            fmt::format("two scripts have the id '{}'; give one another with '{},id=NAME'", members.id, file));
    }
    std::string base64_text = qxpbase::Base64Encode(body);
    // Every value is a string in this format, numbers included.
    Json member{{"scriptid", members.id}, {"scripttype", members.type}};
    if (!members.directory.empty()) {
        member["scriptpath"] = members.directory;
    }
    if (!members.marker.empty()) {
        member["checkret"] = members.marker;
    }
    if (members.timeout) {
        member["timeout"] = std::to_string(*members.timeout);
    }
    if (members.action) {
        member["timeoutaction"] = std::to_string(*members.action);
    }
    member["sign"] = Sign(key_, base64_text);
    RequireRoom(policy_.document.size() + base64_text.size());
    member["scriptdata"] = std::move(base64_text);
    policy_.document += (policy_.scripts.empty() ? "" : ",") + member.dump();
    policy_.scripts.push_back({members.id, members.type, file, body.size(), members.timeout.value_or(0)});
}

PackedPolicy PolicyBuilder::Finish() {
    policy_.document += "]}}";
    RequireRoom(policy_.document.size());
    return std::move(policy_);
}

}  // namespace qxppolicy
