#include "base/sha256.h"

#include <openssl/evp.h>

#include <stdexcept>

#include "base/encoding.h"

namespace qxpbase {

std::array<unsigned char, 32> Sha256(std::string_view bytes) {
    std::array<unsigned char, 32> digest{};
    size_t size = 0;
    if (EVP_Q_digest(nullptr, "SHA256", nullptr, bytes.data(), bytes.size(), digest.data(), &size) != 1) {
        throw std::runtime_error("SHA-256 cannot be computed.");
    }
    return digest;
}

std::string Sha256Hex(std::string_view bytes) {
    return HexEncode(Sha256(bytes));
}

}  // namespace qxpbase
