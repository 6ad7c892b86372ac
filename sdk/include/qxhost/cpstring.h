#pragma once

#include <compare>
#include <cstdarg>
#include <cstddef>
#include <ostream>
#include <string>

/// A byte string: any bytes, NUL included, always followed by one NUL. A value type, as safe to share between threads
/// as std::string.
class CPString {
public:
    CPString() = default;
    /// Copies a NUL-terminated text; null gives an empty string.
    CPString(const char* pszText);  // NOLINT(google-explicit-constructor): texts convert freely
    /// Copies exactly uLength bytes; null gives an empty string.
    CPString(const char* pData, size_t uLength);
    CPString(std::string strText);  // NOLINT(google-explicit-constructor)

    /// A string from a possibly null pointer: null gives an empty string.
    static CPString SafeConstruct(const char* pszText);

    /// Replaces the content with a printf-style text of any length. On an encoding error the content becomes empty.
    void Format(const char* pszFormat, ...) __attribute__((format(printf, 2, 3)));
    void FormatV(const char* pszFormat, va_list args) __attribute__((format(printf, 2, 0)));

    /// Compares without regard to the case of ASCII letters, whatever the locale. Returns <0, 0 or >0.
    int CompareNoCase(const CPString& strOther) const;
    /// The last uCount bytes, or all when there are fewer.
    CPString Right(size_t uCount) const;
    /// The length in bytes, cut to 32 bits.
    unsigned int SafeSize() const { return static_cast<unsigned int>(m_strText.size()); }

    const char* c_str() const { return m_strText.c_str(); }
    const char* data() const { return m_strText.data(); }
    size_t size() const { return m_strText.size(); }
    bool empty() const { return m_strText.empty(); }
    void clear() { m_strText.clear(); }
    void append(const char* pData, size_t uLength) { m_strText.append(pData, uLength); }
    /// True when strPart occurs in this string; an empty part always does.
    bool Contains(const CPString& strPart) const { return m_strText.find(strPart.m_strText) != std::string::npos; }
    const std::string& Str() const { return m_strText; }

    CPString& operator+=(const CPString& strOther);
    friend CPString operator+(CPString strLeft, const CPString& strRight) { return strLeft += strRight; }

    /// Byte-wise order.
    friend bool operator==(const CPString& a, const CPString& b) { return a.m_strText == b.m_strText; }
    friend std::strong_ordering operator<=>(const CPString& a, const CPString& b) {
        return a.m_strText.compare(b.m_strText) <=> 0;
    }
    friend std::ostream& operator<<(std::ostream& out, const CPString& str) { return out << str.m_strText; }

private:
    std::string m_strText;
};
