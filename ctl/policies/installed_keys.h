#pragma once

#include <string>

#include "policy/trusted_keys.h"

namespace qxpctl {

/// The keys to check with, from files.
class TrustedKeys : public qxppolicy::TrustedKeys {
public:
    /// Adds a public key: the RSA key that the plugin was built with, of which there can be one, or an Ed25519 key as
    /// from the trust directory. Throws BadInput.
    void AddKeyFile(const std::string& path);
    /// Sets the directory whose *.pem files the host trusts; process-wide. Throws BadInput when there is none.
    void SetDirectory(const std::string& directory);
};

}  // namespace qxpctl
