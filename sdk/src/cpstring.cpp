#include "qxhost/cpstring.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

namespace {

unsigned char LowerAscii(char c) {
    return static_cast<unsigned char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
}

/// Empty on an encoding error.
std::string FormatText(const char* format, va_list args) {
    std::array<char, 256> short_text;
    va_list again;
    va_copy(again, args);
    // The analyzer takes an argument list that is passed on for an uninitialised one.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    const int length = std::vsnprintf(short_text.data(), short_text.size(), format, args);
    std::string text;
    if (length > 0) {
        const auto size = static_cast<size_t>(length);
        if (size < short_text.size()) {
            text.assign(short_text.data(), size);
        } else {
            text.resize(size);
            std::vsnprintf(text.data(), size + 1, format, again);
        }
    }
    va_end(again);
    return text;
}

}  // namespace

CPString::CPString(const char* text) : m_strText(text == nullptr ? "" : text) {
}

CPString::CPString(const char* data, size_t length)
    : m_strText(data == nullptr ? "" : data, data == nullptr ? 0 : length) {
}

CPString::CPString(std::string text) : m_strText(std::move(text)) {
}

CPString CPString::SafeConstruct(const char* text) {
    return {text};
}

void CPString::Format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    FormatV(format, args);
    va_end(args);
}

void CPString::FormatV(const char* format, va_list args) {
    // An argument may point into this very string: it is replaced only when the new text is complete.
    m_strText = format == nullptr ? std::string() : FormatText(format, args);
}

int CPString::CompareNoCase(const CPString& other) const {
    const auto order = std::lexicographical_compare_three_way(
        m_strText.begin(), m_strText.end(), other.m_strText.begin(), other.m_strText.end(),
        [](char a, char b) { return LowerAscii(a) <=> LowerAscii(b); });
    return std::is_lt(order) ? -1 : (std::is_gt(order) ? 1 : 0);
}

CPString CPString::Right(size_t count) const {
    return m_strText.substr(m_strText.size() - std::min(count, m_strText.size()));
}

CPString& CPString::operator+=(const CPString& other) {
    m_strText += other.m_strText;
    return *this;
}
