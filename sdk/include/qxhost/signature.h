#pragma once

extern "C" {

/// Checks an Ed25519 signature against the keys that this machine trusts.
///
/// The signature text is exactly 136 hexadecimal digits: the mark 0x2001 as 4 bytes, least significant byte first (so
/// the text begins 01200000), then the 64 signature bytes (RFC 8032) over the data. It is valid when the public key in
/// any *.pem file (SubjectPublicKeyInfo, RFC 8410; one key a file, at most 64 KiB; names that begin with a dot do not
/// count) of the trust directory verifies it. The directory is read at every check, so a key can be added or withdrawn
/// without a restart. Any thread; OpenSSL's queue of errors is left as it was.
/// @return 0 valid; -1 not valid, for whatever reason: no directory, no key, another mark, null.
int qxchksign_buffer(const char* pszSign, const unsigned char* pData, unsigned int uSize);

/// Sets the trust directory of this process in place of the default, ../etc/trusted-keys under the directory of this
/// library. The text is copied. Null or an empty text restores the default. Any thread. When memory is short, nothing
/// is changed.
void QxSetTrustDirectory(const char* pszDirectory);
}
