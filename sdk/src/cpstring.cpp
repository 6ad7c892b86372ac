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
std::string FormatText(const char* pszFormat, va_list args) {
    std::array<char, 256> szShort;
    va_list again;
    va_copy(again, args);
    // The analyzer takes an argument list that is passed on for an uninitialised one.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    const int iLength = std::vsnprintf(szShort.data(), szShort.size(), pszFormat, args);
    std::string strText;
    if (iLength > 0) {
        const auto uLength = static_cast<size_t>(iLength);
        if (uLength < szShort.size()) {
            strText.assign(szShort.data(), uLength);
        } else {
            strText.resize(uLength);
            std::vsnprintf(strText.data(), uLength + 1, pszFormat, again);
        }
    }
    va_end(again);
    return strText;
}

}  // namespace

CPString::CPString(const char* pszText) : m_strText(pszText == nullptr ? "" : pszText) {
}

CPString::CPString(const char* pData, size_t uLength)
    : m_strText(pData == nullptr ? "" : pData, pData == nullptr ? 0 : uLength) {
}

CPString::CPString(std::string strText) : m_strText(std::move(strText)) {
}

CPString CPString::SafeConstruct(const char* pszText) {
    return {pszText};
}

void CPString::Format(const char* pszFormat, ...) {
    va_list args;
    va_start(args, pszFormat);
    FormatV(pszFormat, args);
    va_end(args);
}

void CPString::FormatV(const char* pszFormat, va_list args) {
    // An argument may point into this very string: it is replaced only when the new text is complete.
    m_strText = pszFormat == nullptr ? std::string() : FormatText(pszFormat, args);
}

int CPString::CompareNoCase(const CPString& strOther) const {
    const auto order = std::lexicographical_compare_three_way(
        m_strText.begin(), m_strText.end(), strOther.m_strText.begin(), strOther.m_strText.end(),
        [](char a, char b) { return LowerAscii(a) <=> LowerAscii(b); });
    return std::is_lt(order) ? -1 : (std::is_gt(order) ? 1 : 0);
}

CPString CPString::Right(size_t uCount) const {
    return m_strText.substr(m_strText.size() - std::min(uCount, m_strText.size()));
}

CPString& CPString::operator+=(const CPString& strOther) {
    m_strText += strOther.m_strText;
    return *this;
}
