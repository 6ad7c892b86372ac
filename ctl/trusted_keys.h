#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "ctl/key_file.h"

namespace qxpctl {

/// The keys that a plugin and its host trust, and the check of a signature that they make.
class TrustedKeys {
public:
    /// Adds a public key: the RSA key that the plugin was built with, of which there can be one, or an Ed25519 key as
    /// from the trust directory. Throws BadInput.
    void AddKeyFile(const std::string& path);
    /// Sets the directory whose *.pem files the host trusts; process-wide. Throws BadInput when there is none.
    void SetDirectory(const std::string& directory);

    /// Checks the signature of a text as the plugin does. Returns an empty text when it is valid, else the reason in
    /// plain words.
    std::string WhyInvalid(const std::string& sign, const std::string& data) const;

private:
    std::string WhyInvalidForPlugin(std::string_view sign, std::string_view data) const;
    std::string WhyInvalidForHost(const std::string& sign, const std::string& data, uint32_t mark) const;

    KeyPtr plugin_key_;
    std::vector<KeyPtr> ed25519_keys_;
    std::string directory_;
};

}  // namespace qxpctl
