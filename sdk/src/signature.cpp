#include "qxhost/signature.h"

#include <dirent.h>
#include <fnmatch.h>
#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <span>
#include <string>

#include "c_interface.h"
#include "qxhost/module.h"
#include "regular_file.h"

namespace {

constexpr int kValid = 0;
constexpr int kNotValid = -1;

constexpr std::array<unsigned char, 4> kMark = {0x01, 0x20, 0x00, 0x00};  // 0x2001
constexpr size_t kSignatureSize = 64;                                     // RFC 8032 section 5.1.6
constexpr size_t kBlobSize = kMark.size() + kSignatureSize;
constexpr size_t kMaxKeyFileSize = 64UL * 1024;

template <auto Free>
struct Deleter {
    template <typename T>
    void operator()(T* p) const {
        Free(p);
    }
};
using BioPtr = std::unique_ptr<BIO, Deleter<BIO_free>>;
using KeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using DigestContextPtr = std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX_free>>;
using DirectoryPtr = std::unique_ptr<DIR, Deleter<closedir>>;

using Signature = std::array<unsigned char, kSignatureSize>;
using Data = std::span<const unsigned char>;

/// Leaves the thread's queue of OpenSSL errors as it was found.
class ErrorQueueKeeper {
public:
    ErrorQueueKeeper() { ERR_set_mark(); }
    ~ErrorQueueKeeper() { ERR_pop_to_mark(); }
    ErrorQueueKeeper(const ErrorQueueKeeper&) = delete;
    ErrorQueueKeeper& operator=(const ErrorQueueKeeper&) = delete;
};

std::optional<Signature> ReadSignature(const char* sign) {
    constexpr size_t kDigits = 2 * kBlobSize;
    std::array<unsigned char, kBlobSize> blob = {};
    size_t size = 0;
    if (strnlen(sign, kDigits + 1) != kDigits ||
        OPENSSL_hexstr2buf_ex(blob.data(), blob.size(), &size, sign, '\0') != 1 || size != kBlobSize ||
        !std::equal(kMark.begin(), kMark.end(), blob.begin())) {
        return std::nullopt;
    }
    Signature signature = {};
    std::copy(blob.begin() + kMark.size(), blob.end(), signature.begin());
    return signature;
}

/// A key file that wants a pass phrase is not read: nobody is asked.
int NoPassPhrase(char* /*buffer*/, int /*size*/, int /*for_writing*/, void* /*context*/) {
    return -1;
}

/// Null when the file holds no Ed25519 public key.
KeyPtr ReadKey(int directory, const char* name) {
    const FileContent file = ReadRegularFile(directory, name, kMaxKeyFileSize);
    if (file.data == nullptr) {
        return nullptr;
    }
    const BioPtr bio(BIO_new_mem_buf(file.data.get(), static_cast<int>(file.size)));
    KeyPtr key(bio != nullptr ? PEM_read_bio_PUBKEY(bio.get(), nullptr, NoPassPhrase, nullptr) : nullptr);
    if (key != nullptr && EVP_PKEY_is_a(key.get(), "ED25519") != 1) {
        key.reset();
    }
    return key;
}

bool Verifies(EVP_PKEY* key, const Signature& signature, Data data) {
    const DigestContextPtr context(EVP_MD_CTX_new());
    return context != nullptr && EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key) == 1 &&
           EVP_DigestVerify(context.get(), signature.data(), signature.size(), data.data(), data.size()) == 1;
}

/// As a shell would match *.pem: a name that begins with a dot, such as a key that is still being written, is not one.
bool IsKeyFileName(const char* name) {
    return fnmatch("*.pem", name, FNM_PERIOD) == 0;
}

struct TrustSetting {
    std::mutex mutex;
    std::string directory;  // guarded by mutex; empty: the default
};

/// Never destroyed: a thread may check a signature while the process exits.
TrustSetting& Setting() {
    static TrustSetting& setting = *new TrustSetting();
    return setting;
}

/// Empty when the place of this library is not known.
std::string DefaultTrustDirectory() {
    static const char kInThisLibrary = 0;
    std::array<char, PATH_MAX> directory = {};
    return QxGetModuleFilePath(&kInThisLibrary, directory.data(), directory.size() - 1)
               ? std::string(directory.data()) + "/../etc/trusted-keys"
               : std::string();
}

std::string TrustDirectory() {
    {
        const std::lock_guard lock(Setting().mutex);
        if (!Setting().directory.empty()) {
            return Setting().directory;
        }
    }
    return DefaultTrustDirectory();
}

bool AnyTrustedKeyVerifies(const Signature& signature, Data data) {
    const DirectoryPtr directory(opendir(TrustDirectory().c_str()));
    if (directory == nullptr) {
        return false;
    }
    // readdir is safe here: no other thread has this stream.
    while (const dirent* entry = readdir(directory.get())) {  // NOLINT(concurrency-mt-unsafe)
        if (!IsKeyFileName(entry->d_name)) {
            continue;
        }
        const KeyPtr key = ReadKey(dirfd(directory.get()), entry->d_name);
        if (key != nullptr && Verifies(key.get(), signature, data)) {
            return true;
        }
    }
    return false;
}

}  // namespace

int qxchksign_buffer(const char* sign, const unsigned char* data, unsigned int size) {
    if (sign == nullptr || data == nullptr) {
        return kNotValid;
    }
    const CancellationOff cancellation_off;
    const ErrorQueueKeeper errors;
    try {
        const std::optional<Signature> signature = ReadSignature(sign);
        return signature.has_value() && AnyTrustedKeyVerifies(*signature, Data(data, size)) ? kValid : kNotValid;
    } catch (const std::bad_alloc&) {
        return kNotValid;
    }
}

void QxSetTrustDirectory(const char* directory) {
    try {
        std::string text(directory == nullptr ? "" : directory);
        const std::lock_guard lock(Setting().mutex);
        Setting().directory.swap(text);
    } catch (const std::bad_alloc&) {  // NOLINT(bugprone-empty-catch): the directory stays as it was
    }
}
