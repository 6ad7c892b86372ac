#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "policy/openssl_ptr.h"

namespace qxppolicy {

/// The keys that a plugin and its host trust, and the check of a signature that they make. Safe for any thread once the
/// keys are set.
class TrustedKeys {
public:
    /// Sets the RSA key that the plugin was built with. False when one is set already; it then stays.
    bool SetPluginKey(KeyPtr key);
    /// The same, from the texts that a plugin exports: modulus and exponent in hexadecimal digits. False also when they
    /// are no key of the one kind that a plugin can be built with.
    bool SetPluginKey(const char* modulus, const char* exponent);
    /// Adds an Ed25519 key, as from the trust directory.
    void AddEd25519Key(KeyPtr key) { ed25519_keys_.push_back(std::move(key)); }
    /// Names the directory that the host trusts, for the texts; setting it is the caller's.
    void NameDirectory(const std::string& directory) { directory_ = directory; }

    /// Checks the signature of a text as the plugin does. Returns an empty text when it is valid, else the reason in
    /// plain words.
    std::string ValidateSignature(const std::string& sign, const std::string& data) const;

private:
    std::string ValidatePluginSignature(std::string_view sign, std::string_view data) const;
    std::string ValidateHostSignature(const std::string& sign, const std::string& data, uint32_t mark) const;

    KeyPtr plugin_key_;
    std::vector<KeyPtr> ed25519_keys_;
    std::string directory_;
};

}  // namespace qxppolicy
