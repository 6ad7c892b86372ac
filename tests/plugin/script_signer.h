#pragma once

#include <openssl/types.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

/// Signs scripts as the operator of a fleet does, with an RSA-1024 private key.
class ScriptSigner {
public:
    using Message = std::array<unsigned char, 128>;

    /// Throws std::runtime_error when the PEM file holds no private key.
    explicit ScriptSigner(const std::string& pem_file);
    ~ScriptSigner();

    /// The signature text over data: the mark and the RSA block in hexadecimal.
    std::string Sign(const std::string& data) const;

    /// The message that Sign signs: the SHA-256 of data in bytes 1 to 32, and filler.
    static Message MessageFor(const std::string& data);
    /// The raw private-key operation over a message below the modulus, as a signature text.
    std::string SignMessage(const Message& message) const;

private:
    EVP_PKEY* key_;
};

/// One script of a policy; the members are those of the document, as text.
struct ScriptSpec {
    std::string id = "1";
    std::string type = "sh";
    std::string body{};
    std::string path{};
    std::string timeout = "0";
    std::string timeout_action = "0";
    std::string check_ret{};
    /// False: the signature is one of another body.
    bool signed_right = true;
};

/// A command with its policy as the server sends it, every script signed.
std::string MakePolicy(const ScriptSigner& signer, const std::string& id, const std::string& command,
                       const std::vector<ScriptSpec>& scripts);
