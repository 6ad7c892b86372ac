#include "base/encoding.h"

#include <fmt/format.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>

namespace qxpbase {

std::string HexEncode(std::span<const unsigned char> bytes) {
    return fmt::format("{:02x}", fmt::join(bytes, ""));
}

std::optional<std::vector<unsigned char>> HexDecode(std::string_view digits) {
    std::vector<unsigned char> bytes(digits.size() / 2 + 1);  // never empty: a null buffer would only be measured
    size_t size = 0;
    // What is not hexadecimal is no error of OpenSSL's that anybody else should find in its queue.
    ERR_set_mark();
    const int decoded = OPENSSL_hexstr2buf_ex(bytes.data(), bytes.size(), &size, std::string(digits).c_str(), '\0');
    ERR_pop_to_mark();
    if (decoded != 1 || 2 * size != digits.size()) {
        return std::nullopt;
    }
    bytes.resize(size);
    return bytes;
}

std::string Base64Encode(std::string_view bytes) {
    // A whole number of 3-byte groups a call, so that only the last call pads; each fits the int that OpenSSL takes.
    constexpr size_t kStep = 3 * 16384;
    std::array<unsigned char, 4 * 16384 + 1> encoded{};
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (; !bytes.empty(); bytes.remove_prefix(std::min(kStep, bytes.size()))) {
        const std::string_view part = bytes.substr(0, kStep);
        const int length = EVP_EncodeBlock(encoded.data(), reinterpret_cast<const unsigned char*>(part.data()),
                                           static_cast<int>(part.size()));
        text.append(reinterpret_cast<const char*>(encoded.data()), static_cast<size_t>(length));
    }
    return text;
}

}  // namespace qxpbase
