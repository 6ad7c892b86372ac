#include "ctl/terminal/text.h"

#include <algorithm>

#include "policy/text.h"

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

}  // namespace qxpctl
