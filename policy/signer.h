#pragma once

#include <string>
#include <string_view>

#include "policy/key_file.h"

namespace qxpctl {

/// Signs the Base64 text of a script in the form that follows from the key. Returns the hexadecimal signature text,
/// mark first, lower-case digits. Throws LocalFailure when OpenSSL cannot.
std::string Sign(const Key& private_key, std::string_view base64_text);

}  // namespace qxpctl
