#pragma once

extern "C" {

/// The RSA public key that scripts are verified with: the modulus as 256 upper-case hexadecimal digits, the exponent as
/// hexadecimal digits. Made by the configure step from the public key file of the build; exported.
extern const char* const g_szRsaModulus;
extern const char* const g_szRsaPublicExponent;
}
