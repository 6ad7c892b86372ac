// What needs the built-in key: the rest of CMaintSign is shared with programs that hold the key of another plugin.
#include <cstring>

#include "plugin/sign/maint_sign.h"
#include "plugin/sign/rsa_public_key.h"
#include "qxhost/signature.h"

namespace {

SMaintSignKey BuiltInKey() {
    return {g_szRsaModulus, g_szRsaPublicExponent};
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
    if (!pszSign || !pData || uLength == 0 || strnlen(pszSign, MAINT_SIGN_MARK_DIGITS + 1) <= MAINT_SIGN_MARK_DIGITS) {
        return false;
    }
    unsigned char mark[MAINT_SIGN_MARK_SIZE] = {};
    if (Hex2Bin(pszSign, MAINT_SIGN_MARK_DIGITS, mark, MAINT_SIGN_MARK_SIZE) <= 0) {
        return false;
    }
    if (ReadMaintSignMark(mark) == MAINT_SIGN_MARK) {
        return VerifyMaintSignContent(pszSign, pData, uLength) == 0;
    }
    return qxchksign_buffer(pszSign, pData, uLength) == 0;
}

int CMaintSign::VerifyMaintSignContent(const char* pszSign, const unsigned char* pData, uint32_t uLength) {
    return VerifyMaintSignContent(pszSign, pData, uLength, BuiltInKey());
}

int CMaintSign::RsaPublicDecrypt(const unsigned char* pInput, unsigned char* pOutput) {
    return RsaPublicDecrypt(pInput, pOutput, BuiltInKey());
}
