#include "policy/signer.h"

#include <openssl/err.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include <array>

#include "ctl/terminal/error.h"
#include "ctl/terminal/text.h"
#include "policy/signature_format.h"

namespace qxpctl {

namespace {

using qxppolicy::DigestContextPtr;
using qxppolicy::kDigestBytes;
using qxppolicy::kEd25519Mark;
using qxppolicy::kEd25519SignatureBytes;
using qxppolicy::KeyContextPtr;
using qxppolicy::kPluginBlockBytes;
using qxppolicy::kPluginDigestOffset;
using qxppolicy::kPluginMark;

const unsigned char* Bytes(std::string_view text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

[[noreturn]] void FailToSign(const char* step) {
    const unsigned long reason = ERR_peek_last_error();
    const char* const text = reason != 0 ? ERR_reason_error_string(reason) : nullptr;
    ERR_clear_error();
    throw LocalFailure(std::string("cannot sign: ") + step + (text ? std::string(": ") + text : std::string()));
}

using PluginMessage = std::array<unsigned char, kPluginBlockBytes>;

// The zero in front keeps the message, read as a number, below any modulus of 1024 bits. What follows the digest is
// random, so that equal scripts have different signatures.
PluginMessage MakePluginMessage(std::string_view base64_text) {
    PluginMessage message{};
    if (RAND_bytes(message.data() + kPluginDigestOffset, static_cast<int>(message.size() - kPluginDigestOffset)) != 1) {
        FailToSign("no random numbers");
    }
    size_t written = 0;
    if (EVP_Q_digest(nullptr, "SHA256", nullptr, base64_text.data(), base64_text.size(),
                     message.data() + kPluginDigestOffset, &written) != 1 ||
        written != kDigestBytes) {
        FailToSign("SHA-256");
    }
    return message;
}

std::string SignForPlugin(EVP_PKEY* key, std::string_view base64_text) {
    const PluginMessage message = MakePluginMessage(base64_text);
    const KeyContextPtr context(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
    std::array<unsigned char, kPluginBlockBytes> block{};
    size_t size = block.size();
    if (!context || EVP_PKEY_sign_init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_NO_PADDING) != 1 ||
        EVP_PKEY_sign(context.get(), block.data(), &size, message.data(), message.size()) != 1 ||
        size != block.size()) {
        FailToSign("RSA");
    }
    return std::string(kPluginMark) + HexEncode(block);
}

std::string SignWithEd25519(EVP_PKEY* key, std::string_view base64_text) {
    const DigestContextPtr context(EVP_MD_CTX_new());
    std::array<unsigned char, kEd25519SignatureBytes> signature{};
    size_t size = signature.size();
    if (!context || EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key) != 1 ||
        EVP_DigestSign(context.get(), signature.data(), &size, Bytes(base64_text), base64_text.size()) != 1 ||
        size != signature.size()) {
        FailToSign("Ed25519");
    }
    return std::string(kEd25519Mark) + HexEncode(signature);
}

}  // namespace

std::string Sign(const Key& private_key, std::string_view base64_text) {
    return private_key.scheme == Scheme::kPlugin ? SignForPlugin(private_key.key.get(), base64_text)
                                                 : SignWithEd25519(private_key.key.get(), base64_text);
}

}  // namespace qxpctl
