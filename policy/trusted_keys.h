#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "policy/openssl_ptr.h"
#include "policy/rules.h"

namespace qxppolicy {

/// The keys that a plugin and its host trust, and the check of a signature that they make. Safe for any thread once the
/// keys are set.
class TrustedKeys {
public:
    /// Sets the RSA key that the plugin was built with, from the texts that it exports: modulus and exponent in
    /// hexadecimal digits. False when they are no key of the one kind that a plugin can be built with, and when a key
    /// is set already; that then stays.
    bool SetPluginKey(const std::string& modulus, const std::string& exponent);
    /// Adds a public key from a file: the RSA key that the plugin was built with, of which there can be one, or an
    /// Ed25519 key as from the trust directory. Throws InputError.
    void AddKeyFile(const std::string& path);
    /// Sets the directory whose *.pem files the host trusts; process-wide. Throws InputError when there is none.
    void SetDirectory(const std::string& directory);

    /// Checks the signature of a script's Base64 text as the plugin does, whose own code is asked for its own form, and
    /// the host's for any other. Returns the reason in plain words when it is not valid.
    Fault ValidateSignature(const std::string& sign, const std::string& data) const;

private:
    Fault ValidatePluginSignature(const std::string& sign, const std::string& data) const;
    Fault ValidateHostSignature(const std::string& sign, const std::string& data) const;

    std::string modulus_;  // empty when there is no RSA key
    std::string exponent_;
    std::vector<KeyPtr> ed25519_keys_;
    std::string directory_;  // empty for the host's own
};

}  // namespace qxppolicy
