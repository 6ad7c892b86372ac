#pragma once

#include <cstdint>

// A signature of the plugin's own form: hexadecimal text of a 4-byte mark, least significant byte first, and of an RSA
// block, whose message holds the SHA-256 of the signed text.
constexpr uint32_t MAINT_SIGN_MARK = 0x1001;
constexpr uint32_t MAINT_SIGN_MARK_SIZE = 4;
constexpr uint32_t MAINT_SIGN_BLOCK_SIZE = 128;
constexpr uint32_t MAINT_SIGN_SIZE = MAINT_SIGN_MARK_SIZE + MAINT_SIGN_BLOCK_SIZE;
constexpr uint32_t MAINT_SIGN_MARK_DIGITS = 2 * MAINT_SIGN_MARK_SIZE;
constexpr uint32_t MAINT_SIGN_DIGITS = 2 * MAINT_SIGN_SIZE;
/// Where the digest lies in the message that the public-key operation gives back.
constexpr uint32_t MAINT_SIGN_DIGEST_OFFSET = 1;
/// The longest signature text and the longest script, 50 MiB each.
constexpr uint32_t MAINT_SIGN_MAX_SIZE = 52428800;

/// The mark that the first bytes of a signature are.
inline uint32_t ReadMaintSignMark(const unsigned char (&mark)[MAINT_SIGN_MARK_SIZE]) {
    return mark[0] | uint32_t{mark[1]} << 8 | uint32_t{mark[2]} << 16 | uint32_t{mark[3]} << 24;
}

/// An RSA public key of 1024 bits, in hexadecimal digits.
struct SMaintSignKey {
    const char* pszModulus;
    const char* pszExponent;
};

/// Decides whether a script may run. Stateless: any number of threads may check at once; nothing is logged.
class CMaintSign {
public:
    /// True when the signature over the NUL-terminated text is valid. Null for either gives false.
    bool VerifySignContent(const char* pszSign, const char* pszContent);
    /// The same over uLength bytes. A text that begins with the mark 0x1001 is checked with the built-in key, any other
    /// by the host's qxchksign_buffer.
    bool VerifySignContent(const char* pszSign, const unsigned char* pData, uint32_t uLength);

    /// Checks a signature of the plugin's own form: 264 hexadecimal digits (more are ignored) for the mark and a
    /// 128-byte RSA block whose message holds the SHA-256 of the data in bytes 1 to 32. 0 valid, -1 not.
    int VerifyMaintSignContent(const char* pszSign, const unsigned char* pData, uint32_t uLength);
    /// The same with another key than the built-in one: for programs that check beforehand what a plugin will say.
    int VerifyMaintSignContent(const char* pszSign, const unsigned char* pData, uint32_t uLength,
                               const SMaintSignKey& stKey);

    /// The raw public-key operation over 128 bytes with the built-in key. Returns the bytes produced, or -1.
    int RsaPublicDecrypt(const unsigned char* pInput, unsigned char* pOutput);
    /// The same with another key.
    int RsaPublicDecrypt(const unsigned char* pInput, unsigned char* pOutput, const SMaintSignKey& stKey);
    /// SHA-256 into 32 bytes. False for null or an empty input.
    bool Sha256Hash(const unsigned char* pData, uint32_t uLength, unsigned char* pOutput);

    /// 0 to 15, or 255 for a character that is no hexadecimal digit.
    unsigned char Hex2Byte(char cDigit);
    /// Decodes until the text or the output ends. Returns the bytes written, -1 at an invalid digit.
    int Hex2Bin(const char* pszHex, uint32_t uLength, unsigned char* pOutput, uint32_t uOutputSize);
    /// Upper-case digits without a terminating NUL. Returns the characters written.
    int Bin2Hex(const unsigned char* pData, uint32_t uLength, char* pOutput, uint32_t uOutputSize);
};
