#include "policy/trusted_keys.h"

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <array>
#include <stdexcept>

#include "base/encoding.h"
#include "policy/signature_format.h"
#include "qxhost/signature.h"

namespace qxppolicy {

namespace {

// Undoes the private-key operation. False when the block is no signature block of this key.
bool RecoverMessage(EVP_PKEY* key, const unsigned char* block, std::array<unsigned char, kPluginBlockBytes>& message) {
    const KeyContextPtr context(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
    size_t size = message.size();
    const bool recovered =
        context && EVP_PKEY_verify_recover_init(context.get()) == 1 &&
        EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_NO_PADDING) == 1 &&
        EVP_PKEY_verify_recover(context.get(), message.data(), &size, block, kPluginBlockBytes) == 1 &&
        size == message.size();
    ERR_clear_error();
    return recovered;
}

bool VerifiesEd25519(EVP_PKEY* key, const std::vector<unsigned char>& signature, const std::string& data) {
    const DigestContextPtr context(EVP_MD_CTX_new());
    const bool valid =
        context && EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key) == 1 &&
        EVP_DigestVerify(context.get(), signature.data() + kMarkDigits / 2, signature.size() - kMarkDigits / 2,
                         reinterpret_cast<const unsigned char*>(data.data()), data.size()) == 1;
    ERR_clear_error();
    return valid;
}

BignumPtr ReadNumber(const char* digits) {
    BIGNUM* number = nullptr;
    return BignumPtr(BN_hex2bn(&number, digits) != 0 ? number : nullptr);
}

// Null when the two are no public key that a plugin can be built with.
KeyPtr MakeRsaKey(const char* modulus_digits, const char* exponent_digits) {
    const BignumPtr modulus = ReadNumber(modulus_digits);
    const BignumPtr exponent = ReadNumber(exponent_digits);
    if (!modulus || !exponent || BN_num_bits(modulus.get()) != kRsaBits || !BN_is_word(exponent.get(), kRsaExponent)) {
        return nullptr;
    }
    const ParamBuilderPtr builder(OSSL_PARAM_BLD_new());
    const KeyContextPtr context(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
    if (!builder || !context || OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_N, modulus.get()) != 1 ||
        OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_E, exponent.get()) != 1) {
        return nullptr;
    }
    const ParamsPtr parameters(OSSL_PARAM_BLD_to_param(builder.get()));
    EVP_PKEY* key = nullptr;
    const bool made = parameters && EVP_PKEY_fromdata_init(context.get()) == 1 &&
                      EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, parameters.get()) == 1;
    ERR_clear_error();
    return KeyPtr(made ? key : nullptr);
}

uint32_t MarkValue(const std::vector<unsigned char>& mark) {
    return mark[0] | uint32_t{mark[1]} << 8 | uint32_t{mark[2]} << 16 | uint32_t{mark[3]} << 24;
}

}  // namespace

bool TrustedKeys::SetPluginKey(KeyPtr key) {
    if (plugin_key_ != nullptr || key == nullptr) {
        return false;
    }
    plugin_key_ = std::move(key);
    return true;
}

bool TrustedKeys::SetPluginKey(const char* modulus, const char* exponent) {
    return SetPluginKey(MakeRsaKey(modulus, exponent));
}

std::string TrustedKeys::ValidateSignature(const std::string& sign, const std::string& data) const {
    if (sign.empty()) {
        return "\"sign\" is empty";
    }
    if (data.empty()) {
        return "\"scriptdata\" is empty";
    }
    if (sign.size() <= kMarkDigits) {
        return "\"sign\" is too short to be a signature";
    }
    const auto mark = qxpbase::HexDecode(std::string_view(sign).substr(0, kMarkDigits));
    if (!mark) {
        return "\"sign\" does not begin with hexadecimal digits";
    }
    if (MarkValue(*mark) == kPluginMarkValue) {
        return ValidatePluginSignature(sign, data);
    }
    return ValidateHostSignature(sign, data, MarkValue(*mark));
}

std::string TrustedKeys::ValidatePluginSignature(std::string_view sign, std::string_view data) const {
    if (!plugin_key_) {
        return "it is signed for the plugin's own key, and no --key names an RSA key";
    }
    if (sign.size() < kPluginSignatureDigits) {
        return "\"sign\" has " + std::to_string(sign.size()) + " characters of " +
               std::to_string(kPluginSignatureDigits);
    }
    if (sign.size() > kMaxSignedBytes || data.size() > kMaxSignedBytes) {
        return "\"sign\" or \"scriptdata\" is longer than " + std::to_string(kMaxSignedBytes) + " bytes";
    }
    const auto signature = qxpbase::HexDecode(sign.substr(0, kPluginSignatureDigits));
    if (!signature) {
        return "\"sign\" holds characters that are not hexadecimal digits";
    }
    std::array<unsigned char, kPluginBlockBytes> message{};
    if (!RecoverMessage(plugin_key_.get(), signature->data() + kMarkDigits / 2, message)) {
        return "it was not made with this key";
    }
    std::array<unsigned char, kDigestBytes> digest{};
    size_t size = 0;
    if (EVP_Q_digest(nullptr, "SHA256", nullptr, data.data(), data.size(), digest.data(), &size) != 1) {
        throw std::runtime_error("OpenSSL cannot compute SHA-256");
    }
    if (!std::equal(digest.begin(), digest.end(), message.begin() + kPluginDigestOffset)) {
        return "it was made with another key, or the script was changed after signing";
    }
    return {};
}

std::string TrustedKeys::ValidateHostSignature(const std::string& sign, const std::string& data, uint32_t mark) const {
    // The plugin gives lengths as 32 bits.
    const auto size = static_cast<unsigned int>(data.size());
    if (data.size() == size &&
        qxchksign_buffer(sign.c_str(), reinterpret_cast<const unsigned char*>(data.data()), size) == 0) {
        return {};
    }
    if (mark != kEd25519MarkValue) {
        return "\"sign\" begins with " + sign.substr(0, kMarkDigits) + ", which is no known form";
    }
    if (sign.size() != kEd25519SignatureDigits) {
        return "\"sign\" has " + std::to_string(sign.size()) + " characters, an Ed25519 signature has " +
               std::to_string(kEd25519SignatureDigits);
    }
    const auto signature = qxpbase::HexDecode(sign);
    if (!signature) {
        return "\"sign\" holds characters that are not hexadecimal digits";
    }
    for (const KeyPtr& key : ed25519_keys_) {
        if (VerifiesEd25519(key.get(), *signature, data)) {
            return {};
        }
    }
    return "no key in " + (directory_.empty() ? "the trust directory of this installation" : directory_) +
           (ed25519_keys_.empty() ? "" : " or of --key") +
           " verifies it: it was made with another key, or the script was changed after signing";
}

}  // namespace qxppolicy
