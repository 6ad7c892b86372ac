#pragma once

// Exported, but protected: the plugin itself always reads its own key, whatever another module of the process exports.
#define QXPMAINT_EXPORTED_KEY __attribute__((visibility("protected")))

extern "C" {

/// The RSA public key that scripts are verified with: the modulus as 256 upper-case hexadecimal digits, the exponent as
/// hexadecimal digits. Made by the configure step from the public key file of the build; exported.
extern const char* const g_szRsaModulus QXPMAINT_EXPORTED_KEY;
extern const char* const g_szRsaPublicExponent QXPMAINT_EXPORTED_KEY;
}
