#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

// The two forms of a script's signature. Both are hexadecimal text: a 4-byte mark, least significant byte first, then
// the signature over the Base64 text of the script exactly as it stands in the policy.

namespace qxppolicy {

/// The plugin's own form: the RSA private-key operation, without padding, over a message of 128 bytes that holds the
/// SHA-256 of the text. A plugin trusts the one public key that it was built with.
inline constexpr std::string_view kPluginMark = "01100000";
inline constexpr uint32_t kPluginMarkValue = 0x1001;
inline constexpr size_t kPluginBlockBytes = 128;
inline constexpr size_t kPluginSignatureDigits = 264;
inline constexpr size_t kPluginDigestOffset = 1;
inline constexpr size_t kDigestBytes = 32;

/// The host's form: Ed25519 (RFC 8032). A host trusts the keys in its directory etc/trusted-keys.
inline constexpr std::string_view kEd25519Mark = "01200000";
inline constexpr uint32_t kEd25519MarkValue = 0x2001;
inline constexpr size_t kEd25519SignatureBytes = 64;
inline constexpr size_t kEd25519SignatureDigits = 136;

inline constexpr size_t kMarkDigits = 8;

/// The longest text that the plugin checks a signature over, and the longest signature text that it reads.
inline constexpr size_t kMaxSignedBytes = 52428800;

/// The one kind of RSA key that a plugin can be built with.
inline constexpr int kRsaBits = 1024;
inline constexpr uint64_t kRsaExponent = 65537;

}  // namespace qxppolicy
