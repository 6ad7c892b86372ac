#include "policy/key_file.h"

#include <fmt/format.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include "base/error.h"
#include "base/input_file.h"
#include "policy/signature_format.h"

namespace qxppolicy {

using qxpbase::InputError;
using qxpbase::LocalError;

namespace {

// Far more than a key of either kind needs.
constexpr size_t kMaxKeyFileBytes = 65536;

// Called for a passphrase: there is none to give, but now it is known that one is needed.
int NoteEncrypted(char* /*buffer*/, int /*size*/, int /*writing*/, void* encrypted) {
    *static_cast<bool*>(encrypted) = true;
    return -1;
}

bool HasExpectedExponent(const EVP_PKEY* key) {
    BIGNUM* number = nullptr;
    if (EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_E, &number) != 1) {
        return false;
    }
    const BignumPtr exponent(number);
    return BN_is_word(exponent.get(), kRsaExponent) == 1;
}

Scheme SchemeOf(const EVP_PKEY* key, const std::string& path) {
    if (EVP_PKEY_is_a(key, "ED25519") == 1) {
        return Scheme::kEd25519;
    }
    if (EVP_PKEY_is_a(key, "RSA") == 1 && EVP_PKEY_get_bits(key) == kRsaBits && HasExpectedExponent(key)) {
        return Scheme::kPlugin;
    }
    const char* const name = EVP_PKEY_get0_type_name(key);
    throw InputError(fmt::format(
        "{} is a key of another kind ({}, {} bits); signatures are made with RSA of {} bits and exponent {}, "
        "or with Ed25519: make a key with 'qxpctl keygen'",
        path, name != nullptr ? name : "unknown", EVP_PKEY_get_bits(key), kRsaBits, kRsaExponent));
}

std::string BioText(BIO* bio) {
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    return {data, static_cast<size_t>(size)};
}

// Wipes the text of a key file when it goes out of use.
class SecretText {
public:
    explicit SecretText(std::string text) : text_(std::move(text)) {}
    ~SecretText() { OPENSSL_cleanse(text_.data(), text_.size()); }
    SecretText(const SecretText&) = delete;
    SecretText& operator=(const SecretText&) = delete;

    bool Contains(std::string_view part) const { return text_.find(part) != std::string::npos; }
    BioPtr Open() const { return BioPtr(BIO_new_mem_buf(text_.data(), static_cast<int>(text_.size()))); }

private:
    std::string text_;
};

}  // namespace

const char* SchemeName(Scheme scheme) {
    return scheme == Scheme::kPlugin ? "plugin" : "ed25519";
}

Key GenerateKey(Scheme scheme) {
    KeyPtr key(scheme == Scheme::kPlugin ? EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size_t{kRsaBits})
                                         : EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
    if (key == nullptr) {
        ERR_clear_error();
        throw LocalError(fmt::format("OpenSSL cannot make a key for the scheme {}", SchemeName(scheme)));
    }
    return {std::move(key), scheme};
}

Key ReadPrivateKey(const std::string& path) {
    const SecretText text(qxpbase::ReadDocument(path, kMaxKeyFileBytes, "private key"));
    bool encrypted = false;
    KeyPtr key(PEM_read_bio_PrivateKey(text.Open().get(), nullptr, NoteEncrypted, &encrypted));
    ERR_clear_error();
    if (encrypted) {
        throw InputError(path +
                         " is protected by a passphrase; write an unprotected copy with 'openssl pkey -in LOCKED.pem "
                         "-out KEY.pem' in a place that only you can read");
    }
    if (key == nullptr && text.Contains("PUBLIC KEY")) {
        throw InputError(path + " is a public key; signing needs the private half (.key.pem)");
    }
    if (key == nullptr) {
        throw InputError(path + " is not a private key in PEM form; make one with 'qxpctl keygen'");
    }
    const Scheme scheme = SchemeOf(key.get(), path);
    return {std::move(key), scheme};
}

Key ReadPublicKey(const std::string& path) {
    const SecretText text(qxpbase::ReadDocument(path, kMaxKeyFileBytes, "public key"));
    KeyPtr key(PEM_read_bio_PUBKEY(text.Open().get(), nullptr, nullptr, nullptr));
    ERR_clear_error();
    if (key == nullptr && text.Contains("PRIVATE KEY")) {
        throw InputError(path + " is a private key; checking needs the public half (.pub.pem)");
    }
    if (key == nullptr) {
        throw InputError(path + " is not a public key in PEM form");
    }
    const Scheme scheme = SchemeOf(key.get(), path);
    return {std::move(key), scheme};
}

KeyPairText::~KeyPairText() {
    OPENSSL_cleanse(private_pem.data(), private_pem.size());
}

KeyPairText WriteKeyPair(const Key& key) {
    const BioPtr private_half(BIO_new(BIO_s_secmem()));
    const BioPtr public_half(BIO_new(BIO_s_mem()));
    if (private_half == nullptr || public_half == nullptr ||
        PEM_write_bio_PrivateKey(private_half.get(), key.key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1 ||
        PEM_write_bio_PUBKEY(public_half.get(), key.key.get()) != 1) {
        ERR_clear_error();
        throw LocalError("the key cannot be written as PEM");
    }
    KeyPairText text;
    text.private_pem = BioText(private_half.get());
    text.public_pem = BioText(public_half.get());
    return text;
}

}  // namespace qxppolicy
