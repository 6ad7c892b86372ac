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

namespace {

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

CBignumPtr ReadNumber(const char* pszHex) {
    BIGNUM* pNumber = nullptr;
    if (BN_hex2bn(&pNumber, pszHex) == 0) {
        return nullptr;
    }
    return CBignumPtr(pNumber);
}

CRsaPtr MakeKey(const SMaintSignKey& stKey) {
    CRsaPtr pKey(RSA_new());
    if (!pKey) {
        return nullptr;
    }
    CBignumPtr pExponent = ReadNumber(stKey.pszExponent);
    CBignumPtr pModulus = ReadNumber(stKey.pszModulus);
    if (!pExponent || !pModulus || RSA_set0_key(pKey.get(), pModulus.get(), pExponent.get(), nullptr) != 1) {
        return nullptr;
    }
    // The key owns the numbers now.
    static_cast<void>(pModulus.release());
    static_cast<void>(pExponent.release());
    return pKey;
}

}  // namespace

int CMaintSign::VerifyMaintSignContent(const char* pszSign, const unsigned char* pData, uint32_t uLength,
                                       const SMaintSignKey& stKey) {
    if (!pData || uLength == 0 || uLength > MAINT_SIGN_MAX_SIZE || !pszSign) {
        return -1;
    }
    const size_t uDigits = strnlen(pszSign, size_t{MAINT_SIGN_MAX_SIZE} + 1);
    if (uDigits < MAINT_SIGN_DIGITS || uDigits > MAINT_SIGN_MAX_SIZE) {
        return -1;
    }

    unsigned char sign[MAINT_SIGN_SIZE] = {};
    if (Hex2Bin(pszSign, static_cast<uint32_t>(uDigits), sign, MAINT_SIGN_SIZE) != static_cast<int>(MAINT_SIGN_SIZE)) {
        return -1;
    }
    unsigned char mark[MAINT_SIGN_MARK_SIZE];
    std::copy_n(sign, MAINT_SIGN_MARK_SIZE, mark);
    if (ReadMaintSignMark(mark) != MAINT_SIGN_MARK) {
        return -1;
    }

    unsigned char message[MAINT_SIGN_BLOCK_SIZE] = {};
    if (RsaPublicDecrypt(sign + MAINT_SIGN_MARK_SIZE, message, stKey) != static_cast<int>(MAINT_SIGN_BLOCK_SIZE)) {
        return -1;
    }
    unsigned char digest[SHA256_DIGEST_LENGTH] = {};
    if (!Sha256Hash(pData, uLength, digest)) {
        return -1;
    }
    return memcmp(digest, message + MAINT_SIGN_DIGEST_OFFSET, sizeof(digest)) == 0 ? 0 : -1;
}

int CMaintSign::RsaPublicDecrypt(const unsigned char* pInput, unsigned char* pOutput, const SMaintSignKey& stKey) {
    if (!pInput || !pOutput) {
        return -1;
    }
    const CErrorQueueScope errorQueueScope;
    const CRsaPtr pKey = MakeKey(stKey);
    if (!pKey) {
        return -1;
    }
    const int iSize = RSA_size(pKey.get());
    // The build takes no key of another size; a larger one would run over the caller's buffers.
    if (iSize <= 0 || iSize > static_cast<int>(MAINT_SIGN_BLOCK_SIZE)) {
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
