#pragma once

#include <string>
#include <string_view>

#include "policy/openssl_ptr.h"

namespace qxppolicy {

/// The signature form that a key makes or checks.
enum class Scheme { kPlugin, kEd25519 };

/// The name that options and documents use.
const char* SchemeName(Scheme scheme);

/// A key and the form that follows from its kind.
struct Key {
    KeyPtr key;
    Scheme scheme;
};

/// Makes a new private key. Throws LocalError when the system cannot.
Key GenerateKey(Scheme scheme);

/// Reads a private key in PEM form that no passphrase protects. Throws InputError for anything else, and for a key that
/// is neither RSA of 1024 bits with exponent 65537 nor Ed25519.
Key ReadPrivateKey(const std::string& path);

/// Reads a public key in PEM form (SubjectPublicKeyInfo). Throws InputError as above.
Key ReadPublicKey(const std::string& path);

/// The PEM texts of both halves: PKCS #8 (RFC 5958) and SubjectPublicKeyInfo (RFC 5280).
struct KeyPairText {
    std::string private_pem;
    std::string public_pem;

    KeyPairText() = default;
    /// Wipes the private half.
    ~KeyPairText();
    KeyPairText(const KeyPairText&) = delete;
    KeyPairText& operator=(const KeyPairText&) = delete;
    KeyPairText(KeyPairText&&) = default;
    KeyPairText& operator=(KeyPairText&&) = delete;
};

KeyPairText WriteKeyPair(const Key& key);

/// Signs the Base64 text of a script in the form that follows from the key. Returns the hexadecimal signature text,
/// mark first, lower-case digits. Throws LocalError when OpenSSL cannot.
std::string Sign(const Key& private_key, std::string_view base64_text);

}  // namespace qxppolicy
