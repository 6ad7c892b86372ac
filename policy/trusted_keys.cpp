#include "policy/trusted_keys.h"

#include <fmt/format.h>
#include <openssl/core_names.h>
#include <openssl/err.h>

#include <filesystem>
#include <system_error>
#include <utility>

#include "base/encoding.h"
#include "base/error.h"
#include "policy/key_file.h"
#include "policy/signature_format.h"
#include "qxhost/signature.h"

namespace qxppolicy {

namespace {

const unsigned char* Bytes(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

bool VerifiesEd25519(EVP_PKEY* key, const std::vector<unsigned char>& signature, const std::string& data) {
    const DigestContextPtr context(EVP_MD_CTX_new());
    const bool valid = context != nullptr && EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key) == 1 &&
                       EVP_DigestVerify(context.get(), signature.data() + MAINT_SIGN_MARK_SIZE,
                                        signature.size() - MAINT_SIGN_MARK_SIZE, Bytes(data), data.size()) == 1;
    ERR_clear_error();
    return valid;
}

BignumPtr ParseHexNumber(const std::string& digits) {
    BIGNUM* number = nullptr;
    return BignumPtr(BN_hex2bn(&number, digits.c_str()) != 0 ? number : nullptr);
}

std::string HexNumberOf(const EVP_PKEY* key, const char* parameter) {
    BIGNUM* value = nullptr;
    EVP_PKEY_get_bn_param(key, parameter, &value);
    const BignumPtr number(value);
    const TextPtr digits(number != nullptr ? BN_bn2hex(number.get()) : nullptr);
    return digits != nullptr ? digits.get() : "";
}

}  // namespace

bool TrustedKeys::SetPluginKey(const std::string& modulus, const std::string& exponent) {
    const BignumPtr modulus_number = ParseHexNumber(modulus);
    const BignumPtr exponent_number = ParseHexNumber(exponent);
    if (!modulus_.empty() || modulus_number == nullptr || exponent_number == nullptr ||
        BN_num_bits(modulus_number.get()) != kRsaBits || BN_is_word(exponent_number.get(), kRsaExponent) != 1) {
        return false;
    }
    modulus_ = modulus;
    exponent_ = exponent;
    return true;
}

void TrustedKeys::AddKeyFile(const std::string& path) {
    Key key = ReadPublicKey(path);
    if (key.scheme == Scheme::kEd25519) {
        ed25519_keys_.push_back(std::move(key.key));
    } else if (!SetPluginKey(HexNumberOf(key.key.get(), OSSL_PKEY_PARAM_RSA_N),
                             HexNumberOf(key.key.get(), OSSL_PKEY_PARAM_RSA_E))) {
        throw qxpbase::InputError(path + " is a second RSA key; a plugin is built with one");
    }
}

void TrustedKeys::SetDirectory(const std::string& directory) {
    std::error_code failure;
    if (!std::filesystem::is_directory(directory, failure)) {
        throw qxpbase::InputError(directory +
                                  " is not a directory; --trust-dir takes the directory of the trusted *.pem files");
    }
    directory_ = directory;
    QxSetTrustDirectory(directory.c_str());
}

Fault TrustedKeys::ValidateSignature(const std::string& sign, const std::string& data) const {
    if (sign.empty()) {
        return "\"sign\" is empty";
    }
    if (data.empty()) {
        return "\"scriptdata\" is empty";
    }
    if (sign.size() <= MAINT_SIGN_MARK_DIGITS) {
        return "\"sign\" is too short to be a signature";
    }
    if (!qxpbase::HexDecode(std::string_view(sign).substr(0, MAINT_SIGN_MARK_DIGITS))) {
        return "\"sign\" does not begin with hexadecimal digits";
    }
    return sign.starts_with(kPluginMark) ? ValidatePluginSignature(sign, data) : ValidateHostSignature(sign, data);
}

// The plugin's code gives the verdict; the rest only finds words for it.
Fault TrustedKeys::ValidatePluginSignature(const std::string& sign, const std::string& data) const {
    if (modulus_.empty()) {
        return "it is signed for the plugin's own key, and no --key names an RSA key";
    }
    if (sign.size() > MAINT_SIGN_MAX_SIZE || data.size() > MAINT_SIGN_MAX_SIZE) {
        return fmt::format("\"sign\" or \"scriptdata\" is longer than {} bytes", MAINT_SIGN_MAX_SIZE);
    }
    const SMaintSignKey key{modulus_.c_str(), exponent_.c_str()};
    CMaintSign checker;
    if (checker.VerifyMaintSignContent(sign.c_str(), Bytes(data), static_cast<uint32_t>(data.size()), key) == 0) {
        return std::nullopt;
    }
    if (sign.size() < MAINT_SIGN_DIGITS) {
        return fmt::format("\"sign\" has {} characters of {}", sign.size(), MAINT_SIGN_DIGITS);
    }
    const auto signature = qxpbase::HexDecode(std::string_view(sign).substr(0, MAINT_SIGN_DIGITS));
    if (!signature) {
        return "\"sign\" holds characters that are not hexadecimal digits";
    }
    unsigned char message[MAINT_SIGN_BLOCK_SIZE];
    if (checker.RsaPublicDecrypt(signature->data() + MAINT_SIGN_MARK_SIZE, message, key) < 0) {
        return "it was not made with this key";
    }
    return "it was made with another key, or the script was changed after signing";
}

Fault TrustedKeys::ValidateHostSignature(const std::string& sign, const std::string& data) const {
    // The plugin gives lengths as 32 bits.
    const auto size = static_cast<unsigned int>(data.size());
    if (data.size() == size && qxchksign_buffer(sign.c_str(), Bytes(data), size) == 0) {
        return std::nullopt;
    }
    if (!sign.starts_with(kEd25519Mark)) {
        return fmt::format("\"sign\" begins with {}, which is no known form", sign.substr(0, MAINT_SIGN_MARK_DIGITS));
    }
    if (sign.size() != kEd25519SignatureDigits) {
        return fmt::format("\"sign\" has {} characters, an Ed25519 signature has {}", sign.size(),
                           kEd25519SignatureDigits);
    }
    const auto signature = qxpbase::HexDecode(sign);
    if (!signature) {
        return "\"sign\" holds characters that are not hexadecimal digits";
    }
    for (const KeyPtr& key : ed25519_keys_) {
        if (VerifiesEd25519(key.get(), *signature, data)) {
            return std::nullopt;
        }
    }
    return fmt::format(
        "no key in {}{} verifies it: it was made with another key, or the script was changed after "
        "signing",
        directory_.empty() ? "the trust directory of this installation" : directory_,
        ed25519_keys_.empty() ? "" : " or of --key");
}

}  // namespace qxppolicy
