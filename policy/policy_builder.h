#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "policy/key_file.h"

namespace qxppolicy {

/// The longest body of a script whose Base64 text a plugin still checks.
extern const size_t kMaxScriptBytes;

/// What a policy says about a script beside its body. Its values keep the rules of policy/rules.h.
struct ScriptMembers {
    std::string id;
    std::string type;
    std::string directory;            // empty: the plugin's own
    std::string marker;               // empty: none
    std::optional<uint32_t> timeout;  // seconds
    std::optional<uint32_t> action;
};

struct PackedScript {
    std::string id;
    std::string type;
    std::string file;
    size_t bytes = 0;
    uint32_t timeout = 0;  // seconds; 0 is none
};

struct PackedPolicy {
    std::string id;
    std::string command;
    Scheme scheme = Scheme::kPlugin;
    std::vector<PackedScript> scripts;
    std::string document;  // one line of JSON without a line break
};

/// Makes a policy of signed scripts, one after the other, so that no more than one body is in memory at once. Each
/// function throws InputError for what cannot be used.
class PolicyBuilder {
public:
    /// @param id  not given: a random UUID (RFC 4122 version 4)
    /// @param key  must outlive the builder.
    PolicyBuilder(const std::optional<std::string>& id, const std::string& command, const Key& key);

    /// Signs a script and adds it. `file` is its name for error texts.
    void Add(const ScriptMembers& members, const std::string& file, std::string_view body);
    /// Gives the policy to the caller; the builder is then done.
    PackedPolicy Finish();

private:
    const Key& key_;
    PackedPolicy policy_;
};

}  // namespace qxppolicy
