// The RSA_* and SHA256_* calls are deprecated since OpenSSL 3.0 and are used here alone.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "plugin/sign/maint_sign.h"

#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>

#include "plugin/sign/rsa_public_key.h"
#include "qxhost/signature.h"

namespace {

// A signature of the plugin's own form: the mark, least significant byte first, then the RSA block.
constexpr uint32_t MAINT_SIGN_MARK = 0x1001;
constexpr uint32_t MARK_SIZE = 4;
constexpr uint32_t BLOCK_SIZE = 128;
constexpr uint32_t SIGN_SIZE = MARK_SIZE + BLOCK_SIZE;
constexpr uint32_t MARK_DIGITS = 2 * MARK_SIZE;
constexpr uint32_t SIGN_DIGITS = 2 * SIGN_SIZE;
/// Where the digest lies in the message that the public-key operation gives back.
constexpr uint32_t DIGEST_OFFSET = 1;
/// The longest signature text and the longest script, 50 MiB each.
constexpr uint32_t MAX_SIZE = 52428800;

struct CBignumFree {
    void operator()(BIGNUM* pNumber) const { BN_free(pNumber); }
};
struct CRsaFree {
    void operator()(RSA* pKey) const { RSA_free(pKey); }
};
using CBignumPtr = std::unique_ptr<BIGNUM, CBignumFree>;
using CRsaPtr = std::unique_ptr<RSA, CRsaFree>;

// OpenSSL's error queue belongs to the thread and so to the host: whatever is raised in this scope is dropped again.
class CErrorQueueScope {
public:
    CErrorQueueScope() { ERR_set_mark(); }
    ~CErrorQueueScope() { ERR_pop_to_mark(); }
    CErrorQueueScope(const CErrorQueueScope&) = delete;
    CErrorQueueScope& operator=(const CErrorQueueScope&) = delete;
};

uint32_t ReadMark(const unsigned char (&mark)[MARK_SIZE]) {
    return mark[0] | uint32_t{mark[1]} << 8 | uint32_t{mark[2]} << 16 | uint32_t{mark[3]} << 24;
}

CBignumPtr ReadNumber(const char* pszHex) {
    BIGNUM* pNumber = nullptr;
    if (BN_hex2bn(&pNumber, pszHex) == 0) {
        return nullptr;
    }
    return CBignumPtr(pNumber);
}

CRsaPtr MakeBuiltInKey() {
    CRsaPtr pKey(RSA_new());
    if (!pKey) {
        return nullptr;
    }
    CBignumPtr pExponent = ReadNumber(g_szRsaPublicExponent);
    CBignumPtr pModulus = ReadNumber(g_szRsaModulus);
    if (!pExponent || !pModulus || RSA_set0_key(pKey.get(), pModulus.get(), pExponent.get(), nullptr) != 1) {
        return nullptr;
    }
    // The key owns the numbers now.
    static_cast<void>(pModulus.release());
    static_cast<void>(pExponent.release());
    return pKey;
}

}  // namespace

bool CMaintSign::VerifySignContent(const char* pszSign, const char* pszContent) {
    if (!pszSign || !pszContent) {
        return false;
    }
    const size_t uLength = strlen(pszContent);
    // A length cut to 32 bits would leave the rest of the text unsigned.
    if (uLength > UINT32_MAX) {
        return false;
    }
    return VerifySignContent(pszSign, reinterpret_cast<const unsigned char*>(pszContent),
                             static_cast<uint32_t>(uLength));
}

bool CMaintSign::VerifySignContent(const char* pszSign, const unsigned char* pData, uint32_t uLength) {
    if (!pszSign || !pData || uLength == 0 || strnlen(pszSign, MARK_DIGITS + 1) <= MARK_DIGITS) {
        return false;
    }
    unsigned char mark[MARK_SIZE] = {};
    if (Hex2Bin(pszSign, MARK_DIGITS, mark, MARK_SIZE) <= 0) {
        return false;
    }
    if (ReadMark(mark) == MAINT_SIGN_MARK) {
        return VerifyMaintSignContent(pszSign, pData, uLength) == 0;
    }
    return qxchksign_buffer(pszSign, pData, uLength) == 0;
}

int CMaintSign::VerifyMaintSignContent(const char* pszSign, const unsigned char* pData, uint32_t uLength) {
    if (!pData || uLength == 0 || uLength > MAX_SIZE || !pszSign) {
        return -1;
    }
    const size_t uDigits = strnlen(pszSign, size_t{MAX_SIZE} + 1);
    if (uDigits < SIGN_DIGITS || uDigits > MAX_SIZE) {
        return -1;
    }

    unsigned char sign[SIGN_SIZE] = {};
    if (Hex2Bin(pszSign, static_cast<uint32_t>(uDigits), sign, SIGN_SIZE) != static_cast<int>(SIGN_SIZE)) {
        return -1;
    }
    unsigned char mark[MARK_SIZE];
    std::copy_n(sign, MARK_SIZE, mark);
    if (ReadMark(mark) != MAINT_SIGN_MARK) {
        return -1;
    }

    unsigned char message[BLOCK_SIZE] = {};
    if (RsaPublicDecrypt(sign + MARK_SIZE, message) != static_cast<int>(BLOCK_SIZE)) {
        return -1;
    }
    unsigned char digest[SHA256_DIGEST_LENGTH] = {};
    if (!Sha256Hash(pData, uLength, digest)) {
        return -1;
    }
    return memcmp(digest, message + DIGEST_OFFSET, sizeof(digest)) == 0 ? 0 : -1;
}

int CMaintSign::RsaPublicDecrypt(const unsigned char* pInput, unsigned char* pOutput) {
    if (!pInput || !pOutput) {
        return -1;
    }
    const CErrorQueueScope errorQueueScope;
    const CRsaPtr pKey = MakeBuiltInKey();
    if (!pKey) {
        return -1;
    }
    const int iSize = RSA_size(pKey.get());
    // The build takes no key of another size; a larger one would run over the caller's buffers.
    if (iSize <= 0 || iSize > static_cast<int>(BLOCK_SIZE)) {
        return -1;
    }
    return RSA_public_decrypt(iSize, pInput, pOutput, pKey.get(), RSA_NO_PADDING);
}

bool CMaintSign::Sha256Hash(const unsigned char* pData, uint32_t uLength, unsigned char* pOutput) {
    if (!pData || uLength == 0 || !pOutput) {
        return false;
    }
    SHA256_CTX stContext;
    return SHA256_Init(&stContext) == 1 && SHA256_Update(&stContext, pData, uLength) == 1 &&
           SHA256_Final(pOutput, &stContext) == 1;
}

unsigned char CMaintSign::Hex2Byte(char cDigit) {
    if (cDigit >= '0' && cDigit <= '9') {
        return static_cast<unsigned char>(cDigit - '0');
    }
    if (cDigit >= 'a' && cDigit <= 'f') {
        return static_cast<unsigned char>(cDigit - 'a' + 10);
    }
    if (cDigit >= 'A' && cDigit <= 'F') {
        return static_cast<unsigned char>(cDigit - 'A' + 10);
    }
    return 255;
}

int CMaintSign::Hex2Bin(const char* pszHex, uint32_t uLength, unsigned char* pOutput, uint32_t uOutputSize) {
    const int iOutputSize = static_cast<int>(uOutputSize);
    if (!pszHex || !pOutput || iOutputSize <= 0) {
        return 0;
    }
    // An odd last digit is ignored.
    const size_t uCount = std::min(uLength / 2, static_cast<uint32_t>(iOutputSize));
    for (size_t i = 0; i < uCount; ++i) {
        const unsigned char uHigh = Hex2Byte(pszHex[2 * i]);
        const unsigned char uLow = Hex2Byte(pszHex[2 * i + 1]);
        if (uHigh == 255 || uLow == 255) {
            return -1;
        }
        pOutput[i] = static_cast<unsigned char>(uHigh * 16 + uLow);
    }
    return static_cast<int>(uCount);
}

int CMaintSign::Bin2Hex(const unsigned char* pData, uint32_t uLength, char* pOutput, uint32_t uOutputSize) {
    if (!pData || !pOutput || uLength == 0 || uOutputSize < 2) {
        return 0;
    }
    constexpr char HEX_DIGITS[] = "0123456789ABCDEF";
    const uint32_t uCount = std::min(uLength, uOutputSize / 2);
    for (uint32_t i = 0; i < uCount; ++i) {
        *pOutput++ = HEX_DIGITS[pData[i] >> 4];
        *pOutput++ = HEX_DIGITS[pData[i] & 0x0F];
    }
    return static_cast<int>(2 * uCount);
}
