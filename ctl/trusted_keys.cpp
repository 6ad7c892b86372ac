#include "ctl/trusted_keys.h"

#include <openssl/err.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <array>
#include <filesystem>

#include "ctl/error.h"
#include "ctl/signature_format.h"
#include "ctl/text.h"
#include "qxhost/signature.h"

namespace qxpctl {

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

uint32_t MarkValue(const std::vector<unsigned char>& mark) {
    return mark[0] | uint32_t{mark[1]} << 8 | uint32_t{mark[2]} << 16 | uint32_t{mark[3]} << 24;
}

}  // namespace

void TrustedKeys::AddKeyFile(const std::string& path) {
    Key key = ReadPublicKey(path);
    if (key.scheme == Scheme::Ed25519) {
        ed25519_keys_.push_back(std::move(key.key));
        return;
    }
    if (plugin_key_)
        throw BadInput(path + " is a second RSA key; a plugin is built with one");
    plugin_key_ = std::move(key.key);
}

void TrustedKeys::SetDirectory(const std::string& directory) {
    std::error_code failure;
    if (!std::filesystem::is_directory(directory, failure))
        throw BadInput(directory + " is not a directory; --trust-dir takes the directory of the trusted *.pem files");
    directory_ = directory;
    QxSetTrustDirectory(directory.c_str());
}

std::string TrustedKeys::WhyInvalid(const std::string& sign, const std::string& data) const {
    if (sign.empty())
        return "\"sign\" is empty";
    if (data.empty())
        return "\"scriptdata\" is empty";
    if (sign.size() <= kMarkDigits)
        return "\"sign\" is too short to be a signature";
    const auto mark = HexDecode(std::string_view(sign).substr(0, kMarkDigits));
    if (!mark)
        return "\"sign\" does not begin with hexadecimal digits";
    if (MarkValue(*mark) == kPluginMarkValue)
        return WhyInvalidForPlugin(sign, data);
    return WhyInvalidForHost(sign, data, MarkValue(*mark));
}

std::string TrustedKeys::WhyInvalidForPlugin(std::string_view sign, std::string_view data) const {
    if (!plugin_key_)
        return "it is signed for the plugin's own key, and no --key names an RSA key";
    if (sign.size() < kPluginSignatureDigits)
        return "\"sign\" has " + std::to_string(sign.size()) + " characters of " +
               std::to_string(kPluginSignatureDigits);
    if (sign.size() > kMaxSignedBytes || data.size() > kMaxSignedBytes)
        return "\"sign\" or \"scriptdata\" is longer than " + std::to_string(kMaxSignedBytes) + " bytes";
    const auto signature = HexDecode(sign.substr(0, kPluginSignatureDigits));
    if (!signature)
        return "\"sign\" holds characters that are not hexadecimal digits";
    std::array<unsigned char, kPluginBlockBytes> message{};
    if (!RecoverMessage(plugin_key_.get(), signature->data() + kMarkDigits / 2, message))
        return "it was not made with this key";
    std::array<unsigned char, kDigestBytes> digest{};
    size_t size = 0;
    if (EVP_Q_digest(nullptr, "SHA256", nullptr, data.data(), data.size(), digest.data(), &size) != 1)
        throw LocalFailure("OpenSSL cannot compute SHA-256");
    if (!std::equal(digest.begin(), digest.end(), message.begin() + kPluginDigestOffset))
        return "it was made with another key, or the script was changed after signing";
    return {};
}

std::string TrustedKeys::WhyInvalidForHost(const std::string& sign, const std::string& data, uint32_t mark) const {
    // The plugin gives lengths as 32 bits.
    const auto size = static_cast<unsigned int>(data.size());
    if (data.size() == size &&
        qxchksign_buffer(sign.c_str(), reinterpret_cast<const unsigned char*>(data.data()), size) == 0)
        return {};
    if (mark != kEd25519MarkValue)
        return "\"sign\" begins with " + OneLine(sign.substr(0, kMarkDigits)) + ", which is no known form";
    if (sign.size() != kEd25519SignatureDigits)
        return "\"sign\" has " + std::to_string(sign.size()) + " characters, an Ed25519 signature has " +
               std::to_string(kEd25519SignatureDigits);
    const auto signature = HexDecode(sign);
    if (!signature)
        return "\"sign\" holds characters that are not hexadecimal digits";
    for (const KeyPtr& key : ed25519_keys_) {
        if (VerifiesEd25519(key.get(), *signature, data))
            return {};
    }
    return "no key in " + (directory_.empty() ? "the trust directory of this installation" : directory_) +
           (ed25519_keys_.empty() ? "" : " or of --key") +
           " verifies it: it was made with another key, or the script was changed after signing";
}

}  // namespace qxpctl
