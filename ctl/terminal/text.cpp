#include "ctl/terminal/text.h"

#include <algorithm>
#include <array>

#include <fmt/core.h>

#include "policy/text.h"

namespace qxpctl {

namespace {

std::string Escape(std::string_view text, bool keep_layout) {
    std::string escaped;
    escaped.reserve(text.size());
    while (!text.empty()) {
        const size_t length = qxppolicy::Utf8SequenceLength(text);
        const std::string_view part = text.substr(0, std::max<size_t>(length, 1));
        text.remove_prefix(part.size());
        const bool layout = part == "\n" || part == "\t";
        if (length == 0 || (qxppolicy::IsControl(part) && !(layout && keep_layout))) {
            for (const char byte : part) {
                escaped += fmt::format("\\x{:02x}", static_cast<unsigned char>(byte));
            }
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
        word += c == '\'' ? std::string_view("'\\''") : std::string_view(&c, 1);
    }
    return word + "'";
}

std::string Count(size_t number, std::string_view noun) {
    return fmt::format("{} {}{}", number, noun, number == 1 ? "" : "s");
}

std::string SizeText(uint64_t bytes) {
    constexpr std::array<const char*, 5> kUnits = {"B", "KiB", "MiB", "GiB", "TiB"};
    auto size = static_cast<double>(bytes);
    size_t unit = 0;
    for (; size >= 1024 && unit + 1 < kUnits.size(); ++unit) {
        size /= 1024;
    }
    return fmt::format("{:.{}f} {}", size, unit == 0 ? 0 : 1, kUnits.at(unit));
}

}  // namespace qxpctl
