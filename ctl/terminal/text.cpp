#include "ctl/terminal/text.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <charconv>

namespace qxpctl {

namespace {

constexpr std::string_view kHexDigits = "0123456789abcdef";

void AppendEscaped(std::string& to, std::string_view bytes) {
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        to += "\\x";
        to += kHexDigits[byte >> 4];
        to += kHexDigits[byte & 0x0F];
    }
}

std::string Escape(std::string_view text, bool keep_layout) {
    std::string escaped;
    escaped.reserve(text.size());
    while (!text.empty()) {
        const size_t length = qxppolicy::Utf8SequenceLength(text);
        const std::string_view part = text.substr(0, std::max<size_t>(length, 1));
        text.remove_prefix(part.size());
        const bool layout = part == "\n" || part == "\t";
        if (length == 0 || (qxppolicy::IsControl(part) && !(layout && keep_layout))) {
            AppendEscaped(escaped, part);
        } else {
            escaped += part;
        }
    }
    return escaped;
}

}  // namespace

std::string EscapeForTerminal(std::string_view text) {
    return Escape(text, true);
}

std::string OneLine(std::string_view text) {
    return Escape(text, false);
}

std::string ShellWord(std::string_view text) {
    constexpr std::string_view kPlain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._+@=,:-";
    if (!text.empty() && text.find_first_not_of(kPlain) == std::string_view::npos) {
        return std::string(text);
    }
    std::string word = "'";
    for (const char c : text) {
        if (c == '\'') {
            word += "'\\''";
        } else {
            word += c;
        }
    }
    return word + "'";
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

std::optional<uint32_t> ParseNumber(std::string_view text, uint32_t limit) {
    uint32_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, failure] = std::from_chars(text.data(), end, number);
    if (failure != std::errc() || stop != end || number > limit) {
        return std::nullopt;
    }
    return number;
}

}  // namespace qxpctl
