// Sign, of policy/key_file.h.

#include <fmt/format.h>
#include <openssl/err.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <array>

#include "base/encoding.h"
#include "base/error.h"
#include "base/sha256.h"
#include "policy/key_file.h"
#include "policy/signature_format.h"

namespace qxppolicy {

namespace {

const unsigned char* Bytes(std::string_view text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

[[noreturn]] void FailToSign(const char* step) {
    const unsigned long reason = ERR_peek_last_error();
    const char* const text = reason != 0 ? ERR_reason_error_string(reason) : nullptr;
    ERR_clear_error();
    throw qxpbase::LocalError(fmt::format("cannot sign: {}: {}", step, text != nullptr ? text : "no reason given"));
}

using PluginMessage = std::array<unsigned char, MAINT_SIGN_BLOCK_SIZE>;

// The zero in front keeps the message, read as a number, below any modulus of 1024 bits. What follows the digest is
// random, so that equal scripts have different signatures.
PluginMessage MakePluginMessage(std::string_view base64_text) {
    PluginMessage message{};
    if (RAND_bytes(message.data() + MAINT_SIGN_DIGEST_OFFSET,
                   static_cast<int>(message.size() - MAINT_SIGN_DIGEST_OFFSET)) != 1) {
        FailToSign("no random numbers");
    }
    const auto digest = qxpbase::Sha256(base64_text);
    std::copy(digest.begin(), digest.end(), message.begin() + MAINT_SIGN_DIGEST_OFFSET);
    return message;
}

std::string SignForPlugin(EVP_PKEY* key, std::string_view base64_text) {
    const PluginMessage message = MakePluginMessage(base64_text);
    const KeyContextPtr context(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
    std::array<unsigned char, MAINT_SIGN_BLOCK_SIZE> block{};
    size_t size = block.size();
    if (context == nullptr || EVP_PKEY_sign_init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_NO_PADDING) != 1 ||
        EVP_PKEY_sign(context.get(), block.data(), &size, message.data(), message.size()) != 1 ||
        size != block.size()) {
        FailToSign("RSA");
    }
    return std::string(kPluginMark) + qxpbase::HexEncode(block);
}

std::string SignWithEd25519(EVP_PKEY* key, std::string_view base64_text) {
    const DigestContextPtr context(EVP_MD_CTX_new());
    std::array<unsigned char, kEd25519SignatureBytes> signature{};
    size_t size = signature.size();
    if (context == nullptr || EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key) != 1 ||
        EVP_DigestSign(context.get(), signature.data(), &size, Bytes(base64_text), base64_text.size()) != 1 ||
        size != signature.size()) {
        FailToSign("Ed25519");
    }
    return std::string(kEd25519Mark) + qxpbase::HexEncode(signature);
}

}  // namespace

std::string Sign(const Key& private_key, std::string_view base64_text) {
    return private_key.scheme == Scheme::kPlugin ? SignForPlugin(private_key.key.get(), base64_text)
                                                 : SignWithEd25519(private_key.key.get(), base64_text);
}

}  // namespace qxppolicy
