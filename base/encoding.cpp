#include "base/encoding.h"

namespace qxpbase {

namespace {

int HexValue(char digit) {
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    if (digit >= 'a' && digit <= 'f') {
        return digit - 'a' + 10;
    }
    if (digit >= 'A' && digit <= 'F') {
        return digit - 'A' + 10;
    }
    return -1;
}

}  // namespace

std::string HexEncode(std::span<const unsigned char> bytes) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string digits;
    digits.reserve(2 * bytes.size());
    for (const unsigned char byte : bytes) {
        digits += kDigits[byte >> 4];
        digits += kDigits[byte & 0x0F];
    }
    return digits;
}

std::optional<std::vector<unsigned char>> HexDecode(std::string_view digits) {
    if (digits.size() % 2 != 0) {
        return std::nullopt;
    }
    std::vector<unsigned char> bytes;
    bytes.reserve(digits.size() / 2);
    for (size_t at = 0; at < digits.size(); at += 2) {
        const int high = HexValue(digits[at]);
        const int low = HexValue(digits[at + 1]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        bytes.push_back(static_cast<unsigned char>(high * 16 + low));
    }
    return bytes;
}

}  // namespace qxpbase
