#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "plugin/sign/maint_sign.h"

// The two forms of a script's signature. Both are hexadecimal text: a 4-byte mark, least significant byte first, then
// the signature over the Base64 text of the script exactly as it stands in the policy.

namespace qxppolicy {

/// The plugin's own form (MAINT_SIGN_…): the RSA private-key operation, without padding, over a message that holds the
/// SHA-256 of the text. A plugin trusts the one public key that it was built with.
inline constexpr std::string_view kPluginMark = "01100000";

/// The host's form: Ed25519 (RFC 8032); see qxhost/signature.h. A host trusts the keys in its directory
/// etc/trusted-keys.
inline constexpr std::string_view kEd25519Mark = "01200000";
inline constexpr size_t kEd25519SignatureBytes = 64;
inline constexpr size_t kEd25519SignatureDigits = MAINT_SIGN_MARK_DIGITS + 2 * kEd25519SignatureBytes;

/// The one kind of RSA key that a plugin can be built with.
inline constexpr int kRsaBits = 8 * MAINT_SIGN_BLOCK_SIZE;
inline constexpr uint64_t kRsaExponent = 65537;

}  // namespace qxppolicy
