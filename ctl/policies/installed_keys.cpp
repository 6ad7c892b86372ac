#include "ctl/policies/installed_keys.h"

#include <filesystem>
#include <system_error>

#include "ctl/terminal/error.h"
#include "policy/key_file.h"
#include "qxhost/signature.h"

namespace qxpctl {

void TrustedKeys::AddKeyFile(const std::string& path) {
    Key key = ReadPublicKey(path);
    if (key.scheme == Scheme::kEd25519) {
        AddEd25519Key(std::move(key.key));
        return;
    }
    if (!SetPluginKey(std::move(key.key))) {
        throw BadInput(path + " is a second RSA key; a plugin is built with one");
    }
}

void TrustedKeys::SetDirectory(const std::string& directory) {
    std::error_code failure;
    if (!std::filesystem::is_directory(directory, failure)) {
        throw BadInput(directory + " is not a directory; --trust-dir takes the directory of the trusted *.pem files");
    }
    NameDirectory(directory);
    QxSetTrustDirectory(directory.c_str());
}

}  // namespace qxpctl
