#include "qxhost/base64.h"

#include <openssl/evp.h>

#include <array>
#include <climits>
#include <cstring>
#include <string_view>

#include "heap_text.h"

namespace {

constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";
constexpr size_t kQuantum = 4;       // characters that
constexpr size_t kQuantumBytes = 3;  // stand for so many bytes
constexpr size_t kBlock = 1024 * kQuantum;

bool IsInAlphabet(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/';
}

/// Decodes what it is fed, character by character, into a buffer that is large enough.
class CDecoder {
public:
    explicit CDecoder(char* pOutput) : m_pOutput(reinterpret_cast<unsigned char*>(pOutput)) {}

    /// False for a character that cannot stand here.
    bool Feed(char c) {
        if (kWhiteSpace.find(c) != std::string_view::npos) {
            return true;
        }
        if (c == '=') {
            ++m_uPadding;
            return m_uPadding < kQuantumBytes;
        }
        if (m_uPadding > 0 || !IsInAlphabet(c)) {
            return false;
        }
        m_aPending[m_uPending++] = c;
        return m_uPending < kBlock || Flush();
    }

    /// False when the text ends within a byte, or its padding does not complete it.
    bool Finish() {
        const size_t uOver = m_uPending % kQuantum;
        const size_t uMissing = uOver == 0 ? 0 : kQuantum - uOver;
        if (uOver == 1 || (m_uPadding != 0 && m_uPadding != uMissing)) {
            return false;
        }
        std::memset(&m_aPending[m_uPending], '=', uMissing);
        m_uPending += uMissing;
        if (!Flush()) {
            return false;
        }
        m_uDecoded -= uMissing;  // the decoder counts padding as bytes
        return true;
    }

    size_t DecodedSize() const { return m_uDecoded; }

private:
    bool Flush() {
        const int iDecoded = EVP_DecodeBlock(m_pOutput + m_uDecoded, m_aPending.data(), static_cast<int>(m_uPending));
        m_uPending = 0;
        m_uDecoded += iDecoded < 0 ? 0 : static_cast<size_t>(iDecoded);
        return iDecoded >= 0;
    }

    unsigned char* m_pOutput;
    size_t m_uDecoded = 0;
    std::array<unsigned char, kBlock> m_aPending = {};
    size_t m_uPending = 0;
    size_t m_uPadding = 0;
};

}  // namespace

unsigned char* base64Decode2(const char* pszText, size_t uSize, int* piDecodedSize) {
    if (piDecodedSize != nullptr) {
        *piDecodedSize = 0;
    }
    const size_t uMostBytes = (uSize / kQuantum + 1) * kQuantumBytes;
    if (pszText == nullptr || uMostBytes > INT_MAX) {
        return nullptr;
    }
    CHeapText pBytes = AllocateHeapText(uMostBytes + 1);
    if (!pBytes) {
        return nullptr;
    }
    CDecoder decoder(pBytes.get());
    for (const char c : std::string_view(pszText, uSize)) {
        if (!decoder.Feed(c)) {
            return nullptr;
        }
    }
    if (!decoder.Finish()) {
        return nullptr;
    }
    pBytes[decoder.DecodedSize()] = '\0';
    if (piDecodedSize != nullptr) {
        *piDecodedSize = static_cast<int>(decoder.DecodedSize());
    }
    return reinterpret_cast<unsigned char*>(pBytes.release());
}

char* base64Decode(const char* pszText, size_t uSize) {
    return reinterpret_cast<char*>(base64Decode2(pszText, uSize, nullptr));
}
